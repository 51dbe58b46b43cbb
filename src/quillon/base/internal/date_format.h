#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillon {

// Dates are doubles: seconds since 2001-01-01 00:00:00 UTC (the reference
// date), negative before it. The texts below are the fixed formats the
// framework writes into file names, records and tool output.
//
// Formatting keeps milliseconds by truncation, never rounding up into the
// next second: a date is first rounded to the microsecond (so that a value
// parsed from "….123" that the double holds as ….1229999 still shows .123),
// then the milliseconds are cut, towards the past for negative dates too.
//
// Every function is thread-safe. "Local" means the zone of the process's TZ
// setting as localtime_r sees it.

// The current time, with the system clock's sub-millisecond precision.
double dateNow();

// Change-name dates: "yyyy-MM-dd-HH-mm-ss.SSS" in GMT, e.g.
// "2026-11-21-04-43-59.123". Plain string order of these texts is time order
// for years 0000 to 9999.
std::string formatChangeDate(double date);
// The exact 23-character text only (callers cut it off a change name);
// nullopt for anything else or for an impossible date or time.
std::optional<double> parseChangeDate(std::string_view text);

// "yyyy-MM-dd'T'HH:mm:ss.SSSZ" where Z is the RFC 822 offset, e.g.
// "2026-11-21T04:43:59.123+0000" (gmt) or "2026-11-21T05:43:59.123+0100"
// (local zone).
std::string formatISODate(double date, bool gmt = true);
// Reads the text above back to the same instant. Also accepts: no fraction
// or 1 to 9 fraction digits (past milliseconds they are cut), and the offset
// as "Z", "+HH", "+HHMM" or "+HH:MM" (or "-"). nullopt for anything else.
std::optional<double> parseISODate(std::string_view text);

// Medium date and time in the local zone, e.g. "Nov 21, 2026 at 4:43:59 AM".
std::string formatMediumDateTime(double date);

}  // namespace quillon
