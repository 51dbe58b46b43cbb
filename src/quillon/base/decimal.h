#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillon {

__extension__ typedef unsigned __int128 uint128_t;

// A base-ten number of up to 38 significant digits: (-1)^negative × mantissa ×
// 10^exponent, or NaN. The representation is normalised only on request, so
// 1.50 keeps its trailing zero until compact() is called; equality is by value.
struct Decimal {
  uint128_t mantissa = 0;
  int32_t exponent = 0;
  bool negative = false;
  bool nan = false;

  static constexpr int kMaxDigits = 38;

  static Decimal notANumber() { return Decimal{0, 0, false, true}; }
  static Decimal fromInteger(int64_t v);
  // Parses "[-+]digits[.digits][e[-+]digits]"; nullopt for anything else or
  // for more than 38 significant digits after dropping leading zeros.
  static std::optional<Decimal> parse(std::string_view text);

  // Removes trailing zeros from the mantissa into the exponent.
  Decimal compact() const;
  double toDouble() const;
  bool isZero() const { return !nan && mantissa == 0; }
  // Plain decimal text such as "-12.5", "0.001", "1200"; "NaN".
  std::string toString() const;
  // "[-]MANTISSAeEXPONENT" with the stored mantissa and exponent; "NaN".
  std::string toScientificString() const;

  bool operator==(const Decimal& o) const;
  int compare(const Decimal& o) const;  // NaN sorts first
};

}  // namespace quillon
