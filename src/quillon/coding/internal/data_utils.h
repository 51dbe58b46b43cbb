#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quillon {

// Hexadecimal text and digests of raw bytes. Stateless and thread-safe.
//
// The two hexadecimal forms differ in case on purpose: object records store
// lower-case SHA-256 digests, identifiers hashed with storeSHA256String()
// are upper-case.

// Two upper-case hexadecimal digits per byte; "" for no bytes.
std::string quillonHexadecimalString(std::span<const uint8_t> bytes);
std::string quillonHexadecimalString(std::string_view bytes);

// SHA-256 of the bytes as 64 lower-case hexadecimal digits.
std::string quillonSHA256HexDigest(std::span<const uint8_t> bytes);
std::string quillonSHA256HexDigest(std::string_view bytes);

}  // namespace quillon
