#include "archive/zip_format.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <tuple>

#include "archive_test_support.h"
#include "base/scope_guard.h"

namespace corvelstow {
namespace {

using testing::leBytes;

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

// The Zip64 block holds a value for each marked field only, in the order size, compressed size,
// offset; other blocks are skipped, and a block cut short fills what it can.
TEST(ZipFormatTest, TakesZip64ValuesOnlyForFieldsMarkedAsSuch) {
  constexpr std::uint32_t kMarked = 0xFFFFFFFF;
  constexpr std::uint64_t k1 = 0x100000001, k2 = 0x200000002, k3 = 0x300000003;
  const std::string values = leBytes(k1, 8) + leBytes(k2, 8) + leBytes(k3, 8);
  const auto block = [&](std::size_t count, std::size_t length) {
    return leBytes(0x5455, 2) + leBytes(5, 2) + "12345" + leBytes(0x0001, 2) + leBytes(length, 2) +
           values.substr(0, count);
  };
  using Fields = std::array<std::uint64_t, 3>;  // size, compressed size, local header offset
  const std::tuple<Fields, std::string, Fields> cases[] = {
      {{kMarked, kMarked, kMarked}, block(24, 24), {k1, k2, k3}},
      {{kMarked, 20, kMarked}, block(16, 16), {k1, 20, k2}},
      {{10, kMarked, kMarked}, block(16, 16), {10, k1, k2}},
      {{10, 20, kMarked}, block(8, 8), {10, 20, k1}},
      {{10, 20, 30}, block(24, 24), {10, 20, 30}},
      {{kMarked, kMarked, kMarked}, block(10, 24), {k1, kMarked, kMarked}},
  };
  for (const auto& [fields, extra, expected] : cases) {
    zip::CentralDirectoryHeader header;
    header.size = static_cast<std::uint32_t>(fields[0]);
    header.compressedSize = static_cast<std::uint32_t>(fields[1]);
    header.localHeaderOffset = static_cast<std::uint32_t>(fields[2]);
    header.extra = extra;
    const zip::EntryExtent extent = zip::entryExtent(header);
    EXPECT_EQ((Fields{extent.size, extent.compressedSize, extent.localHeaderOffset}), expected);
  }
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
