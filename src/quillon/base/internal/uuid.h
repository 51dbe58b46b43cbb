#pragma once

#include <string>
#include <string_view>

namespace quillon {

// A new random (version 4, RFC 4122 variant) UUID in canonical upper-case
// form, "8-4-4-4-12" hexadecimal digits, from OpenSSL's secure random
// generator. Thread-safe. Throws Exception "UUIDException" only if the
// generator cannot be seeded.
std::string makeUUIDString();

// Whether a text is a UUID in canonical form: 36 characters, hyphens at
// offsets 8, 13, 18 and 23, hexadecimal digits (either case) elsewhere. The
// version and variant are not checked, so any UUID a peer wrote passes.
bool isUUIDString(std::string_view text);

}  // namespace quillon
