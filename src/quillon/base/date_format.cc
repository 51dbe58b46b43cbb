#include "quillon/base/internal/date_format.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace quillon {
namespace {

constexpr int64_t kReferenceDateUnixMillis = 978307200000;  // 2001-01-01 UTC
constexpr int64_t kMillisPerDay = 86400000;

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's method).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  int64_t era = floorDiv(y, 400);
  auto yoe = static_cast<unsigned>(y - era * 400);
  unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

struct Civil {
  int64_t year;
  unsigned month, day, hour, minute, second, millis;
};

Civil civilFromUnixMillis(int64_t ms) {
  int64_t days = floorDiv(ms, kMillisPerDay);
  auto inDay = static_cast<unsigned>(ms - days * kMillisPerDay);
  int64_t z = days + 719468;
  int64_t era = floorDiv(z, 146097);
  auto doe = static_cast<unsigned>(z - era * 146097);
  unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  unsigned mp = (5 * doy + 2) / 153;
  Civil c;
  c.day = doy - (153 * mp + 2) / 5 + 1;
  c.month = mp < 10 ? mp + 3 : mp - 9;
  c.year = static_cast<int64_t>(yoe) + era * 400 + (c.month <= 2);
  c.hour = inDay / 3600000;
  c.minute = inDay / 60000 % 60;
  c.second = inDay / 1000 % 60;
  c.millis = inDay % 1000;
  return c;
}

unsigned daysInMonth(int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : kDays[m - 1];
}

// Whole milliseconds since 1970 of a date: rounded to the microsecond, then
// truncated towards the past. Out-of-range dates are clamped to about
// ±100,000 years.
int64_t unixMillis(double date) {
  if (!std::isfinite(date)) date = 0;
  date = std::clamp(date, -3.2e12, 3.2e12);
  auto micros = static_cast<int64_t>(std::llround(date * 1e6));
  return floorDiv(micros, 1000) + kReferenceDateUnixMillis;
}

double dateFromUnixMillis(int64_t ms) {
  return static_cast<double>(ms - kReferenceDateUnixMillis) / 1000.0;
}

// The local zone's offset from UTC in seconds at an instant.
long localOffsetSeconds(int64_t unixMs) {
  time_t t = static_cast<time_t>(floorDiv(unixMs, 1000));
  struct tm tm;
  if (!localtime_r(&t, &tm)) return 0;
  return tm.tm_gmtoff;
}

// Reads exactly `count` digits at text[*pos].
bool readDigits(std::string_view text, size_t* pos, size_t count, unsigned* out) {
  if (*pos + count > text.size()) return false;
  unsigned v = 0;
  for (size_t i = 0; i < count; ++i) {
    char c = text[*pos + i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  *pos += count;
  *out = v;
  return true;
}

bool expect(std::string_view text, size_t* pos, char c) {
  if (*pos >= text.size() || text[*pos] != c) return false;
  ++*pos;
  return true;
}

// Reads "yyyy?MM?dd?HH?mm?ss" with the given separators.
bool readDateTime(std::string_view text, size_t* pos, const char separators[5], Civil* c) {
  unsigned year;
  if (!readDigits(text, pos, 4, &year)) return false;
  c->year = year;
  unsigned* fields[] = {&c->month, &c->day, &c->hour, &c->minute, &c->second};
  for (int i = 0; i < 5; ++i) {
    if (!expect(text, pos, separators[i]) || !readDigits(text, pos, 2, fields[i])) return false;
  }
  return c->month >= 1 && c->month <= 12 && c->day >= 1 &&
         c->day <= daysInMonth(c->year, c->month) && c->hour <= 23 && c->minute <= 59 &&
         c->second <= 59;
}

int64_t unixMillisOf(const Civil& c) {
  return daysFromCivil(c.year, c.month, c.day) * kMillisPerDay +
         (c.hour * 3600 + c.minute * 60 + c.second) * int64_t{1000} + c.millis;
}

std::string formatYear(int64_t year) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%04lld", static_cast<long long>(year));
  return buf;
}

}  // namespace

double dateNow() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec - kReferenceDateUnixMillis / 1000) +
         static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string formatChangeDate(double date) {
  Civil c = civilFromUnixMillis(unixMillis(date));
  char buf[48];
  std::snprintf(buf, sizeof buf, "%s-%02u-%02u-%02u-%02u-%02u.%03u", formatYear(c.year).c_str(),
                c.month, c.day, c.hour, c.minute, c.second, c.millis);
  return buf;
}

std::optional<double> parseChangeDate(std::string_view text) {
  if (text.size() != 23) return std::nullopt;
  size_t pos = 0;
  Civil c{};
  if (!readDateTime(text, &pos, "-----", &c) || !expect(text, &pos, '.') ||
      !readDigits(text, &pos, 3, &c.millis)) {
    return std::nullopt;
  }
  return dateFromUnixMillis(unixMillisOf(c));
}

std::string formatISODate(double date, bool gmt) {
  int64_t ms = unixMillis(date);
  long offset = gmt ? 0 : localOffsetSeconds(ms);
  Civil c = civilFromUnixMillis(ms + offset * 1000);
  long minutes = (offset < 0 ? -offset : offset) / 60;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s-%02u-%02uT%02u:%02u:%02u.%03u%c%02ld%02ld",
                formatYear(c.year).c_str(), c.month, c.day, c.hour, c.minute, c.second, c.millis,
                offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
  return buf;
}

std::optional<double> parseISODate(std::string_view text) {
  size_t pos = 0;
  Civil c{};
  const char separators[] = {'-', '-', 'T', ':', ':'};
  if (!readDateTime(text, &pos, separators, &c)) return std::nullopt;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    size_t digits = 0;
    unsigned millis = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      if (digits < 3) millis = millis * 10 + static_cast<unsigned>(text[pos] - '0');
      ++digits;
      ++pos;
    }
    if (digits == 0 || digits > 9) return std::nullopt;
    for (size_t d = digits; d < 3; ++d) millis *= 10;
    c.millis = millis;
  }
  if (pos >= text.size()) return std::nullopt;
  long offset = 0;
  if (text[pos] == 'Z') {
    ++pos;
  } else if (text[pos] == '+' || text[pos] == '-') {
    bool negative = text[pos++] == '-';
    unsigned hours, minutes = 0;
    if (!readDigits(text, &pos, 2, &hours)) return std::nullopt;
    if (pos < text.size()) {
      if (text[pos] == ':') ++pos;
      if (!readDigits(text, &pos, 2, &minutes)) return std::nullopt;
    }
    if (hours > 23 || minutes > 59) return std::nullopt;
    offset = static_cast<long>(hours * 3600 + minutes * 60) * (negative ? -1 : 1);
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;
  return dateFromUnixMillis(unixMillisOf(c) - offset * 1000);
}

std::string formatMediumDateTime(double date) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  int64_t ms = unixMillis(date);
  Civil c = civilFromUnixMillis(ms + localOffsetSeconds(ms) * 1000);
  unsigned hour12 = c.hour % 12 == 0 ? 12 : c.hour % 12;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s %u, %lld at %u:%02u:%02u %s", kMonths[c.month - 1], c.day,
                static_cast<long long>(c.year), hour12, c.minute, c.second,
                c.hour < 12 ? "AM" : "PM");
  return buf;
}

}  // namespace quillon
