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

std::uint32_t checksumOf(std::string_view bytes) {
  StowCRC32 crc;
  crc.update(bytes);
  return crc.checksum();
}

TEST(CRC32Test, GivesTheStandardValues) {
  StowCRC32 fresh;
  EXPECT_EQ(fresh.value, 0xFFFFFFFFu);
  EXPECT_EQ(fresh.checksum(), 0x00000000u);
  fresh.update(nullptr, 0);
  EXPECT_EQ(fresh.value, 0xFFFFFFFFu);

  EXPECT_EQ(checksumOf("123456789"), 0xCBF43926u);
  EXPECT_EQ(checksumOf("The quick brown fox jumps over the lazy dog"), 0x414FA339u);
  EXPECT_EQ(checksumOf(std::string(1, '\0')), 0xD202EF8Du);
}

// Every length up to 80 at every alignment exercises both the eight-byte loop and the tail.
TEST(CRC32Test, MatchesZlibForEveryLengthAlignmentAndSplit) {
  const std::string bytes = testing::randomBytes(4096 + 8, 7);
  for (std::size_t start = 0; start < 8; ++start) {
    for (std::size_t length = 0; length <= 80; ++length) {
      std::string_view piece(bytes.data() + start, length);
      ASSERT_EQ(checksumOf(piece), zlibCrc(piece)) << start << " " << length;
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
