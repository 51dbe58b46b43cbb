#include "quillon/base/internal/uuid.h"

#include <openssl/rand.h>

#include <cstdint>

#include "quillon/base/error.h"

namespace quillon {

std::string makeUUIDString() {
  uint8_t b[16];
  if (RAND_bytes(b, sizeof b) != 1) {
    throw Exception("UUIDException", "The secure random generator failed.");
  }
  b[6] = (b[6] & 0x0F) | 0x40;
  b[8] = (b[8] & 0x3F) | 0x80;
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kHex[b[i] >> 4];
    out += kHex[b[i] & 15];
  }
  return out;
}

bool isUUIDString(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < 36; ++i) {
    char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'))) {
      return false;
    }
  }
  return true;
}

}  // namespace quillon
