#include "archive/zip_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "archive_test_support.h"
#include "base/scope_guard.h"

namespace corvelstow {
namespace {

TEST(ZipFormatTest, DecodesNamesReplacingEachIllFormedSubpart) {
  const std::string kBad = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98", "Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98"},
      {"smile \xF0\x9F\x98\x80", "smile \xF0\x9F\x98\x80"},
      {"a\xFF!", "a" + kBad + "!"},                     // never a lead byte
      {"a\xC3", "a" + kBad},                            // cut short by the end
      {"\xE2\x82z", kBad + "z"},                        // two bytes of three: one U+FFFD
      {"\xC0\xAF", kBad + kBad},                        // overlong form of "/"
      {"\xE0\x80\xAF", kBad + kBad + kBad},             // another overlong form of "/"
      {"\xED\xA0\x80", kBad + kBad + kBad},             // a surrogate
      {"\xF4\x90\x80\x80", kBad + kBad + kBad + kBad},  // past U+10FFFF
      {"\x80\x80", kBad + kBad},                        // lone continuation bytes
      {std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(zip::decodeName(bytes), text) << bytes;
}

// The DOS fields hold local time (EST5 here: five hours behind UTC all year) from 1980 to the end
// of 2107: later moments become the last one they can hold, earlier years become 1980.
TEST(ZipFormatTest, PacksDosTimesInLocalTimeClampedToTheirRange) {
  const char* savedZone = std::getenv("TZ");
  const std::string saved = savedZone ? savedZone : "";
  ScopeGuard restore([&] {
    savedZone ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
  });
  ::setenv("TZ", "EST5", 1);
  ::tzset();
  const std::tuple<const char*, int, int> cases[] = {
      {"2023-11-14T18:45:59Z", 13 * 2048 + 45 * 32 + 29, 43 * 512 + 11 * 32 + 14},   // 13:45:58
      {"2150-03-01T12:00:00Z", 23 * 2048 + 59 * 32 + 29, 127 * 512 + 12 * 32 + 31},  // 2107-12-31
      {"1975-06-15T17:00:00Z", 12 * 2048, 0 * 512 + 6 * 32 + 15},     // 1980-06-15 12:00
      {"2107-12-31T23:00:00Z", 18 * 2048, 127 * 512 + 12 * 32 + 31},  // 2107-12-31 18:00
  };
  for (const auto& [date, time, day] : cases) {
    const zip::DosDateTime packed = zip::dosDateTime(*parseInternetDate(date));
    EXPECT_EQ(std::make_pair(int{packed.time}, int{packed.date}), std::make_pair(time, day))
        << date;
  }
}

}  // namespace
}  // namespace corvelstow
