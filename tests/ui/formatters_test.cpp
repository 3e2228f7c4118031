// The ICU formatters against the texts the Foundation formatters give for the same input.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/posix/icu_formatters.h"

namespace corvelstow::platform {
namespace {

StowDate at(const char* text) { return *parseInternetDate(text); }

TEST(IcuFormattersTest, ByteCountsInTheFileStyle) {
  IcuFormatters format("en_US", "UTC");
  const std::vector<std::pair<std::int64_t, std::string>> cases{
      {0, "Zero KB"},
      {1, "1 byte"},
      {999, "999 bytes"},
      {1000, "1 KB"},
      {11999, "12 KB"},
      {12345678, "12.3 MB"},
      {1234567898, "1.23 GB"},
      {5500000000000, "5.5 TB"},
      {std::numeric_limits<std::int64_t>::max(), "9.22 EB"},
      {-1, "-1 byte"},
      {-2, "-2 bytes"},
      {-12345678987, "-12.35 GB"},
  };
  for (const auto& [bytes, expected] : cases) {
    EXPECT_EQ(format.byteCount(bytes), expected) << bytes;
  }
}

TEST(IcuFormattersTest, RelativeDatesNameTheLargestWholeCalendarUnitInTheTimeZone) {
  IcuFormatters format("en_US", "UTC");
  const StowDate now = at("2024-05-15T12:00:00Z");
  const std::vector<std::pair<const char*, std::string>> cases{
      {"2024-05-15T12:00:00Z", "in 0 seconds"},
      {"2024-05-15T11:59:59Z", "1 second ago"},
      {"2024-05-15T11:55:00Z", "5 minutes ago"},
      {"2024-05-15T10:30:00Z", "1 hour ago"},  // 90 minutes: whole units, not rounded
      {"2024-05-14T12:00:01Z", "23 hours ago"},
      {"2024-05-14T12:00:00Z", "1 day ago"},
      {"2024-05-17T12:00:00Z", "in 2 days"},
      {"2024-05-01T12:00:00Z", "2 weeks ago"},
      {"2024-04-15T12:00:00Z", "1 month ago"},
      {"2022-11-15T12:00:00Z", "1 year ago"},
  };
  for (const auto& [date, expected] : cases) {
    EXPECT_EQ(format.relativeDate(at(date), now), expected) << date;
  }
  // The clocks went forward in Berlin on 31 March 2024: one calendar day there lasted 23 hours.
  StowDate before = at("2024-03-30T12:00:00+01:00");
  StowDate after = at("2024-03-31T12:00:00+02:00");
  EXPECT_EQ(IcuFormatters("en_US", "Europe/Berlin").relativeDate(after, before), "in 1 day");
  EXPECT_EQ(format.relativeDate(after, before), "in 23 hours");
}

TEST(IcuFormattersTest, DatesAndNumbersFollowTheLocaleAndTimeZoneAndPosixAndRootAreEnglish) {
  StowDate date = at("2024-05-01T09:30:00Z");
  // ICU's English data puts a narrow no-break space before the day period.
  EXPECT_EQ(IcuFormatters("en_US", "America/New_York").dateAndTime(date),
            "May 1, 2024, 5:30\u202fAM");
  IcuFormatters german("de_DE", "Europe/Berlin");
  EXPECT_EQ(german.dateAndTime(date), "01.05.2024, 11:30");
  EXPECT_EQ(german.byteCount(12345678), "12,3 MB");
  for (const char* locale : {"en_US_POSIX", "root"}) {
    IcuFormatters format(locale, "UTC");
    EXPECT_EQ(format.relativeDate(at("0524-03-01T09:30:00Z"), date), "1,500 years ago") << locale;
    EXPECT_EQ(format.byteCount(5500000), "5.5 MB") << locale;
    EXPECT_EQ(format.dateAndTime(date), "May 1, 2024, 9:30\u202fAM") << locale;
  }
}

}  // namespace
}  // namespace corvelstow::platform
