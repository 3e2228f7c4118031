#include "archive/crc32.h"

#include <gtest/gtest.h>

#include <random>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// The format's check value, and the same checksum however the bytes are cut: fed piece by piece,
// or checksummed apart and joined in order, as the writer does with blocks compressed on other
// threads.
TEST(Crc32Test, GivesTheCheckValueAndTheSameChecksumForPiecesFedOrJoined) {
  StowCRC32 check;
  check.update("123456789");
  EXPECT_EQ(check.checksum(), 0xCBF43926u);
  EXPECT_EQ(StowCRC32().checksum(), 0u);

  const std::string bytes = testing::randomBytes(4096 + 8, 7);
  StowCRC32 whole;
  whole.update(bytes);
  std::mt19937 engine(11);
  for (int round = 0; round < 200; ++round) {
    std::size_t first = engine() % bytes.size();
    std::size_t second = first + engine() % (bytes.size() - first + 1);
    const std::string_view pieces[] = {std::string_view(bytes).substr(0, first),
                                       std::string_view(bytes).substr(first, second - first),
                                       std::string_view(bytes).substr(second)};
    StowCRC32 fed, joined;
    for (std::string_view piece : pieces) {
      fed.update(piece);
      StowCRC32 apart;
      apart.update(piece);
      joined.append(apart.checksum(), piece.size());
    }
    ASSERT_EQ(fed.checksum(), whole.checksum()) << first << " " << second;
    ASSERT_EQ(joined.checksum(), whole.checksum()) << first << " " << second;
  }
}

}  // namespace
}  // namespace corvelstow
