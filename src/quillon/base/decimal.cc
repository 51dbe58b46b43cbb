#include "quillon/base/decimal.h"

#include <cmath>
#include <cstdlib>

namespace quillon {
namespace {

constexpr uint128_t kTen = 10;

std::string digits(uint128_t v) {
  if (v == 0) return "0";
  std::string s;
  while (v > 0) {
    s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(v % kTen)));
    v /= kTen;
  }
  return s;
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
  return std::strtod(toScientificString().c_str(), nullptr);
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
  // Compare magnitudes: number of integer digits first, then digit strings.
  std::string da = digits(a.mantissa), db = digits(b.mantissa);
  int64_t ma = static_cast<int64_t>(da.size()) + a.exponent;
  int64_t mb = static_cast<int64_t>(db.size()) + b.exponent;
  if (ma != mb) return (ma < mb ? -1 : 1) * sign;
  size_t n = std::max(da.size(), db.size());
  da.resize(n, '0');
  db.resize(n, '0');
  int c = da.compare(db);
  return (c < 0 ? -1 : c > 0 ? 1 : 0) * sign;
}

bool Decimal::operator==(const Decimal& o) const {
  if (nan || o.nan) return nan && o.nan;
  return compare(o) == 0;
}

}  // namespace quillon
