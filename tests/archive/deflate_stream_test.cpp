#include "archive/deflate_stream.h"

#include <gtest/gtest.h>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// Random bytes are not worth compressing, but text is, and random bytes are when a block of them
// repeats within DEFLATE's window, anywhere in the piece, or when there are too few to judge.
// Inflating wants more input until the end of the stream, ignores what follows it, and reports
// bad data.
TEST(DeflateStreamTest, ProbesWhatShrinksAndInflatesUntilTheEnd) {
  using Status = InflateStream::Status;
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

  std::string compressed, unpacked;
  const ByteSink collect = [&](std::string_view piece) { compressed += piece; };
  const ByteSink append = [&](std::string_view piece) { unpacked += piece; };
  DeflateStream deflater;
  deflater.write(text, collect);
  deflater.finish(collect);
  EXPECT_LT(compressed.size(), text.size() / 4);
  InflateStream inflater;
  EXPECT_EQ(inflater.write("\xff\xff\xff\xff", append), Status::corrupt);  // no block type 3
  inflater.reset();
  const std::string fed = compressed + "trailing bytes";
  for (std::size_t at = 0; at < fed.size(); at += 777) {
    EXPECT_EQ(inflater.write(std::string_view(fed).substr(at, 777), append),
              at + 777 < compressed.size() ? Status::needsInput : Status::ended);
  }
  EXPECT_EQ(unpacked, text);
}

}  // namespace
}  // namespace corvelstow
