#include "quillon/base/decimal.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

namespace quillon {
namespace {

constexpr uint128_t kTen = 10;
constexpr uint64_t kTenToThe19 = 10'000'000'000'000'000'000ULL;

// The decimal digits of v into the end of `buffer` (40 bytes suffice);
// answers where they begin.
char* writeDigits(uint128_t v, char* end) {
  char* p = end;
  // 64-bit chunks of 19 digits: far cheaper than dividing by ten in 128 bits.
  while (v > UINT64_MAX) {
    uint64_t chunk = static_cast<uint64_t>(v % kTenToThe19);
    v /= kTenToThe19;
    for (int i = 0; i < 19; ++i, chunk /= 10) *--p = static_cast<char>('0' + chunk % 10);
  }
  auto low = static_cast<uint64_t>(v);
  do {
    *--p = static_cast<char>('0' + low % 10);
    low /= 10;
  } while (low > 0);
  return p;
}

std::string digits(uint128_t v) {
  char buffer[40];
  char* begin = writeDigits(v, buffer + sizeof buffer);
  return std::string(begin, buffer + sizeof buffer);
}

int digitCount(uint128_t v) {
  int count = 1;
  while (v >= kTenToThe19) {
    v /= kTenToThe19;
    count += 19;
  }
  for (auto low = static_cast<uint64_t>(v); low >= 10; low /= 10) ++count;
  return count;
}

uint128_t powerOfTen(int n) {
  uint128_t p = 1;
  while (n-- > 0) p *= kTen;
  return p;
}

}  // namespace

Decimal Decimal::fromInteger(int64_t v) {
  Decimal d;
  d.negative = v < 0;
  d.mantissa = d.negative ? static_cast<uint128_t>(-(v + 1)) + 1 : static_cast<uint128_t>(v);
  return d;
}

std::optional<Decimal> Decimal::parse(std::string_view text) {
  if (text == "NaN") return notANumber();
  size_t i = 0;
  Decimal d;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) d.negative = text[i++] == '-';
  bool sawDigit = false;
  bool sawPoint = false;
  int significant = 0;
  int64_t exponent = 0;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c == '.' && !sawPoint) {
      sawPoint = true;
      continue;
    }
    if (c < '0' || c > '9') break;
    sawDigit = true;
    if (d.mantissa == 0 && c == '0') {
      if (sawPoint) --exponent;
      continue;
    }
    if (++significant > kMaxDigits) return std::nullopt;
    d.mantissa = d.mantissa * 10 + static_cast<unsigned>(c - '0');
    if (sawPoint) --exponent;
  }
  if (!sawDigit) return std::nullopt;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    bool negExp = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) negExp = text[i++] == '-';
    if (i == text.size()) return std::nullopt;
    int64_t e = 0;
    for (; i < text.size(); ++i) {
      if (text[i] < '0' || text[i] > '9') return std::nullopt;
      e = e * 10 + (text[i] - '0');
      if (e > 100000) return std::nullopt;
    }
    exponent += negExp ? -e : e;
  }
  if (i != text.size()) return std::nullopt;
  if (d.mantissa == 0) exponent = 0;
  if (exponent < -100000 || exponent > 100000) return std::nullopt;
  d.exponent = static_cast<int32_t>(exponent);
  if (d.mantissa == 0) d.negative = false;
  return d;
}

Decimal Decimal::compact() const {
  Decimal d = *this;
  if (d.nan) return d;
  if (d.mantissa == 0) return Decimal{};
  while (d.mantissa % kTen == 0) {
    d.mantissa /= kTen;
    ++d.exponent;
  }
  return d;
}

double Decimal::toDouble() const {
  if (nan) return std::nan("");
  // Both factors exact in a double: one correctly rounded operation.
  static constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                            1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  const double sign = negative ? -1.0 : 1.0;
  if (mantissa <= (uint128_t{1} << 53) && exponent >= -22 && exponent <= 22) {
    const auto m = static_cast<double>(static_cast<uint64_t>(mantissa));
    return sign * (exponent >= 0 ? m * kExactPowers[exponent] : m / kExactPowers[-exponent]);
  }
  char buffer[64];
  char* end = buffer + 41;
  char* begin = writeDigits(mantissa, end);
  *end++ = 'e';
  end = std::to_chars(end, buffer + sizeof buffer, exponent).ptr;
  double value = 0;
  std::from_chars(begin, end, value);  // out of range: ±0 or ±inf, as strtod gives
  if (std::isinf(value) || value == 0) {
    value = std::strtod(std::string(begin, end).c_str(), nullptr);
  }
  return sign * value;
}

std::string Decimal::toScientificString() const {
  if (nan) return "NaN";
  return (negative ? "-" : "") + digits(mantissa) + "e" + std::to_string(exponent);
}

std::string Decimal::toString() const {
  if (nan) return "NaN";
  std::string m = digits(mantissa);
  std::string out = negative && mantissa != 0 ? "-" : "";
  if (exponent >= 0) {
    if (mantissa == 0) return "0";
    return out + m + std::string(static_cast<size_t>(exponent), '0');
  }
  auto fraction = static_cast<size_t>(-static_cast<int64_t>(exponent));
  if (m.size() <= fraction) m.insert(0, fraction - m.size() + 1, '0');
  m.insert(m.size() - fraction, ".");
  return out + m;
}

int Decimal::compare(const Decimal& o) const {
  if (nan || o.nan) return nan == o.nan ? 0 : (nan ? -1 : 1);
  Decimal a = compact(), b = o.compact();
  bool aNeg = a.negative && a.mantissa != 0, bNeg = b.negative && b.mantissa != 0;
  if (aNeg != bNeg) return aNeg ? -1 : 1;
  int sign = aNeg ? -1 : 1;
  if (a.mantissa == 0 || b.mantissa == 0) {
    if (a.mantissa == b.mantissa) return 0;
    return (a.mantissa == 0 ? -1 : 1) * sign;
  }
  // Compare magnitudes: number of integer digits first, then the mantissas
  // scaled to the same number of digits (at most 38, so no overflow).
  const int na = digitCount(a.mantissa), nb = digitCount(b.mantissa);
  const int64_t ma = na + int64_t{a.exponent};
  const int64_t mb = nb + int64_t{b.exponent};
  if (ma != mb) return (ma < mb ? -1 : 1) * sign;
  uint128_t x = a.mantissa, y = b.mantissa;
  if (na < nb) x *= powerOfTen(nb - na);
  if (nb < na) y *= powerOfTen(na - nb);
  return (x < y ? -1 : x > y ? 1 : 0) * sign;
}

bool Decimal::operator==(const Decimal& o) const {
  if (nan || o.nan) return nan && o.nan;
  return compare(o) == 0;
}

}  // namespace quillon
