#include "quillon/base/internal/base64.h"

#include <array>

namespace quillon {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> table{};
  for (auto& t : table) t = -1;
  for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
  return table;
}
constexpr std::array<int8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest) {
    uint32_t v = uint32_t(bytes[i]) << 16 | (rest == 2 ? uint32_t(bytes[i + 1]) << 8 : 0);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string base64Encode(std::string_view bytes) {
  return base64Encode(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    size_t significant = last ? 4 - padding : 4;
    uint32_t v = 0;
    for (size_t k = 0; k < 4; ++k) {
      int d = 0;
      if (k < significant) {
        d = kDecode[static_cast<uint8_t>(text[i + k])];
        if (d < 0) return std::nullopt;
      }
      v = v << 6 | static_cast<uint32_t>(d);
    }
    out.push_back(static_cast<uint8_t>(v >> 16));
    if (significant >= 3) out.push_back(static_cast<uint8_t>(v >> 8));
    if (significant == 4) out.push_back(static_cast<uint8_t>(v));
    // Bits below the last whole byte must be zero.
    if (significant == 3 && (v & 0xFF) != 0) return std::nullopt;
    if (significant == 2 && (v & 0xFFFF) != 0) return std::nullopt;
  }
  return out;
}

}  // namespace quillon
