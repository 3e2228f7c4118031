#include "archive/deflate_stream.h"

#include <gtest/gtest.h>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// Random bytes are not worth compressing, but text is, and random bytes are when a block of them
// repeats within DEFLATE's window, anywhere in the piece, or when there are too few to judge.
// (The streams themselves are checked through the archives that the reader and other tools read.)
TEST(DeflateStreamTest, TheProbeCompressesWhatShrinks) {
  const std::string text = testing::sampleText(300000), noise = testing::randomBytes(300000, 9);
  std::string repeats;
  while (repeats.size() < 300000) repeats += noise.substr(0, 16384);
  const std::pair<std::string, bool> pieces[] = {
      {text, true},
      {noise, false},
      {noise.substr(0, 1000), true},
      {repeats, true},
      {noise + repeats + testing::randomBytes(300000, 3), true},
      // A writer's block of 128 KiB whose repeats end where fresh noise fills its last 32 KiB.
      {repeats.substr(0, 98304) + noise.substr(0, 32768), true},
      {noise.substr(0, 20000), false},
  };
  CompressionProbe probe;
  for (const auto& [piece, worth] : pieces) {
    EXPECT_EQ(probe.worthCompressing(piece), worth) << piece.size();
  }
}

}  // namespace
}  // namespace corvelstow
