#include "quillon/coding/internal/data_utils.h"

#include <openssl/evp.h>

#include <array>

namespace quillon {
namespace {

std::string hex(std::span<const uint8_t> bytes, const char* digits) {
  std::string text(bytes.size() * 2, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 0x0F];
  }
  return text;
}

std::span<const uint8_t> asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::string quillonHexadecimalString(std::span<const uint8_t> bytes) {
  return hex(bytes, "0123456789ABCDEF");
}

std::string quillonHexadecimalString(std::string_view bytes) {
  return quillonHexadecimalString(asBytes(bytes));
}

std::string quillonSHA256HexDigest(std::span<const uint8_t> bytes) {
  std::array<uint8_t, 32> digest;
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1 ||
      length != digest.size()) {
    return {};  // only a broken crypto library gets here
  }
  return hex(digest, "0123456789abcdef");
}

std::string quillonSHA256HexDigest(std::string_view bytes) {
  return quillonSHA256HexDigest(asBytes(bytes));
}

}  // namespace quillon
