#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// Base64 with the standard alphabet (A-Z a-z 0-9 + /) and "=" padding, no
// line breaks.
std::string base64Encode(std::span<const uint8_t> bytes);
std::string base64Encode(std::string_view bytes);

// Decodes padded base64. Answers nullopt for anything else: a length that
// is not a multiple of four, characters outside the alphabet (whitespace
// included), misplaced padding, or non-zero bits after the last byte (so
// only the canonical text of some bytes decodes).
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace quillon
