#include "quillon/base/internal/date_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/scoped_time_zone.h"

namespace quillon {
namespace {

constexpr double kSample = 816929039.123;  // 2026-11-21 04:43:59.123 UTC

using testing::ScopedTimeZone;

TEST(DateFormatTest, ChangeDateTextsTruncateMilliseconds) {
  EXPECT_EQ(formatChangeDate(0), "2001-01-01-00-00-00.000");
  EXPECT_EQ(formatChangeDate(kSample), "2026-11-21-04-43-59.123");
  // Before the reference date and before 1970; leap days of century years.
  EXPECT_EQ(formatChangeDate(-0.001), "2000-12-31-23-59-59.999");
  EXPECT_EQ(formatChangeDate(-992490140), "1969-07-20-20-17-40.000");
  EXPECT_EQ(formatChangeDate(-12649219201.0), "1600-02-29-23-59-59.000");
  EXPECT_EQ(formatChangeDate(-86400 * 366 + 59 * 86400), "2000-02-29-00-00-00.000");
  EXPECT_EQ(formatChangeDate(std::nan("")), "2001-01-01-00-00-00.000");
  // Milliseconds are truncated, not rounded.
  EXPECT_EQ(formatChangeDate(59.9999), "2001-01-01-00-00-59.999");
  EXPECT_EQ(formatChangeDate(0.1239), "2001-01-01-00-00-00.123");
  EXPECT_EQ(formatChangeDate(-0.0005), "2000-12-31-23-59-59.999");
  EXPECT_EQ(formatChangeDate(-0.9991), "2000-12-31-23-59-59.000");
  EXPECT_EQ(formatISODate(59.9999), "2001-01-01T00:00:59.999+0000");
}

TEST(DateFormatTest, ChangeDateRoundTripsAndParsingIsStrict) {
  // Every millisecond of a span, around 2001, 1970 and today: the parsed
  // double formats back to the same text (no off-by-one from binary fractions).
  for (double base : {-2.0, -978307201.0, kSample - 1}) {
    for (int ms = 0; ms < 3000; ++ms) {
      double t = base + ms / 1000.0;
      std::string text = formatChangeDate(t);
      auto parsed = parseChangeDate(text);
      ASSERT_TRUE(parsed) << text;
      ASSERT_EQ(formatChangeDate(*parsed), text);
      ASSERT_NEAR(*parsed, t, 0.0011) << text;
    }
  }
  // Texts sort in time order.
  EXPECT_LT(formatChangeDate(-1), formatChangeDate(0));
  EXPECT_LT(formatChangeDate(9.999), formatChangeDate(10));

  // Parsing is strict.
  EXPECT_EQ(*parseChangeDate("2026-11-21-04-43-59.123"), kSample);
  for (std::string_view bad :
       {"", "2026-11-21-04-43-59", "2026-11-21-04-43-59.12", "2026-11-21-04-43-59.1234",
        "2026-11-21-04-43-59.123.6F9619FF-8B86-D011-B42D-00C04FC964FF", "2026-13-21-04-43-59.123",
        "2026-02-29-04-43-59.123", "2026-11-31-04-43-59.123", "2026-11-21-24-43-59.123",
        "2026-11-21-04-60-59.123", "2026-11-21-04-43-60.123", "2026-11-21T04:43:59.123",
        "2026-11-21-04-43-5a.123", "+026-11-21-04-43-59.123"}) {
    EXPECT_FALSE(parseChangeDate(bad)) << bad;
  }
  EXPECT_TRUE(parseChangeDate("2024-02-29-00-00-00.000"));
}

TEST(DateFormatTest, ISODateInZones) {
  EXPECT_EQ(formatISODate(kSample, true), "2026-11-21T04:43:59.123+0000");
  {
    ScopedTimeZone tz("IST-5:30");
    EXPECT_EQ(formatISODate(kSample, false), "2026-11-21T10:13:59.123+0530");
    EXPECT_EQ(formatISODate(kSample, true), "2026-11-21T04:43:59.123+0000");
  }
  {
    ScopedTimeZone tz("NST+3:30");
    EXPECT_EQ(formatISODate(kSample, false), "2026-11-21T01:13:59.123-0330");
    EXPECT_EQ(formatISODate(-0.001, false), "2000-12-31T20:29:59.999-0330");
  }
  {
    // Daylight saving time applies in summer only.
    ScopedTimeZone tz("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(formatISODate(kSample, false), "2026-11-21T05:43:59.123+0100");
    EXPECT_EQ(formatISODate(804600000, false), "2026-07-01T14:00:00.000+0200");
  }
}

TEST(DateFormatTest, ISODateParsingAcceptsOffsetsAndRejectsMalformedText) {
  for (std::string_view text :
       {"2026-11-21T04:43:59.123+0000", "2026-11-21T04:43:59.123Z", "2026-11-21T06:43:59.123+02:00",
        "2026-11-21T06:43:59.123+02", "2026-11-20T23:13:59.123-0530",
        "2026-11-21T04:43:59.123999-00:00", "2026-11-21T04:43:59.123456789Z"}) {
    auto parsed = parseISODate(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(formatISODate(*parsed), "2026-11-21T04:43:59.123+0000") << text;
  }
  EXPECT_EQ(*parseISODate("2026-11-21T04:43:59Z"), kSample - 0.123);
  EXPECT_EQ(*parseISODate("2026-11-21T04:43:59.1Z"), kSample - 0.023);
  EXPECT_EQ(formatISODate(*parseISODate("1969-07-20T20:17:40.000+0000")),
            "1969-07-20T20:17:40.000+0000");
  // Local texts read back to the same instant.
  ScopedTimeZone tz("NST+3:30");
  for (double t : {kSample, -0.001, -992490140.5, 1e9 + 0.007}) {
    EXPECT_EQ(formatISODate(*parseISODate(formatISODate(t, false))), formatISODate(t));
  }

  // Malformed texts are refused.
  for (std::string_view bad :
       {"", "2026-11-21T04:43:59.123", "2026-11-21 04:43:59.123Z", "2026-11-21T04:43:59.Z",
        "2026-11-21T04:43:59.123+2", "2026-11-21T04:43:59.123+02:0", "2026-11-21T04:43:59.123+2400",
        "2026-11-21T04:43:59.123+0260", "2026-11-21T04:43:59.123Zjunk", "2026-02-30T04:43:59Z",
        "2026-11-21T24:00:00Z", "2026-11-21T04:43:59.1234567890Z", "26-11-21T04:43:59Z",
        "2026-11-21T04:43:59.123 +0000"}) {
    EXPECT_FALSE(parseISODate(bad)) << bad;
  }
}

}  // namespace
}  // namespace quillon
