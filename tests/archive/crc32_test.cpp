#include "archive/crc32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

std::uint32_t zlibCrc(std::string_view bytes) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// zlib is the oracle: every length up to 80 at every alignment runs both the eight-byte loop and
// the byte-by-byte tail, and pieces split anywhere give the whole's CRC.
TEST(Crc32Test, MatchesZlibForEveryLengthAlignmentAndSplit) {
  const std::string bytes = testing::randomBytes(4096 + 8, 7);
  for (std::size_t start = 0; start < 8; ++start) {
    for (std::size_t length = 0; length <= 80; ++length) {
      StowCRC32 crc;
      crc.update(bytes.data() + start, length);
      ASSERT_EQ(crc.checksum(), zlibCrc({bytes.data() + start, length})) << start << " " << length;
    }
  }
  std::mt19937 engine(11);
  for (int round = 0; round < 200; ++round) {
    std::size_t first = engine() % bytes.size();
    std::size_t second = first + engine() % (bytes.size() - first + 1);
    StowCRC32 crc;
    crc.update(bytes.data(), first);
    crc.update(bytes.data() + first, second - first);
    crc.update(bytes.data() + second, bytes.size() - second);
    ASSERT_EQ(crc.checksum(), zlibCrc(bytes)) << first << " " << second;
  }
}

}  // namespace
}  // namespace corvelstow
