#include "archive/deflate_stream.h"

#include <gtest/gtest.h>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// One stream of each kind serves several inputs in turn, fed in uneven pieces.
TEST(DeflateStreamTest, RoundTripsSeveralInputsThroughOneResetStream) {
  const std::string inputs[] = {"", "a", testing::sampleText(300000),
                                testing::randomBytes(200000, 5), testing::sampleText(70)};
  DeflateStream deflater;
  InflateStream inflater;
  for (const std::string& input : inputs) {
    deflater.reset();
    std::string compressed;
    std::size_t largestPiece = 0;
    const ByteSink collect = [&](std::string_view piece) {
      largestPiece = std::max(largestPiece, piece.size());
      compressed += piece;
    };
    for (std::size_t at = 0; at < input.size(); at += 40000) {
      deflater.write(std::string_view(input).substr(at, 40000), collect);
    }
    deflater.finish(collect);
    EXPECT_LE(largestPiece, DeflateStream::kBufferSize);
    ASSERT_EQ(testing::zlibInflateRaw(compressed), input);

    inflater.reset();
    std::string unpacked;
    InflateStream::Status status = InflateStream::Status::needsInput;
    for (std::size_t at = 0; at < compressed.size(); at += 777) {
      status = inflater.write(std::string_view(compressed).substr(at, 777),
                              [&](std::string_view piece) { unpacked += piece; });
    }
    EXPECT_EQ(status, InflateStream::Status::ended);
    EXPECT_EQ(unpacked, input);
  }
}

// Dense pieces go into stored blocks and the rest is compressed, within one valid stream; a
// reset stream starts at the default level again.
TEST(DeflateStreamTest, SwitchesLevelsMidStreamAndJudgesDensity) {
  const std::string text = testing::sampleText(300000), noise = testing::randomBytes(300000, 9);
  EXPECT_FALSE(looksIncompressible(text));
  EXPECT_TRUE(looksIncompressible(noise));
  EXPECT_FALSE(looksIncompressible(noise.substr(0, 1000)));  // too little to judge

  DeflateStream deflater;
  for (int round = 0; round < 2; ++round) {
    deflater.reset();
    std::string compressed;
    const ByteSink collect = [&](std::string_view piece) { compressed += piece; };
    std::string input;
    for (const std::string* piece : {&text, &noise, &text, &noise}) {
      deflater.setLevel(looksIncompressible(*piece) ? 0 : -1, collect);
      deflater.write(*piece, collect);
      input += *piece;
    }
    deflater.finish(collect);
    ASSERT_EQ(testing::zlibInflateRaw(compressed), input);
    // Stored noise costs a few bytes a block; the text still shrinks.
    EXPECT_LT(compressed.size(), 2 * noise.size() + text.size() / 2);
  }
}

TEST(DeflateStreamTest, InflateStopsAtTheEndAndReportsCorruptInput) {
  DeflateStream deflater;
  std::string compressed;
  const ByteSink collect = [&](std::string_view piece) { compressed += piece; };
  deflater.write("hello, hello, hello", collect);
  deflater.finish(collect);

  InflateStream inflater;
  std::string unpacked;
  const ByteSink keep = [&](std::string_view piece) { unpacked += piece; };
  EXPECT_EQ(inflater.write(compressed + "trailing bytes", keep), InflateStream::Status::ended);
  EXPECT_EQ(unpacked, "hello, hello, hello");

  inflater.reset();
  unpacked.clear();
  EXPECT_EQ(inflater.write(compressed.substr(0, compressed.size() / 2), keep),
            InflateStream::Status::needsInput);

  inflater.reset();
  // Block type 3 does not exist in DEFLATE.
  EXPECT_EQ(inflater.write("\xff\xff\xff\xff", keep), InflateStream::Status::corrupt);
  inflater.reset();
  unpacked.clear();
  EXPECT_EQ(inflater.write(compressed, keep), InflateStream::Status::ended);
  EXPECT_EQ(unpacked, "hello, hello, hello");
}

TEST(DeflateStreamTest, MovedStreamsKeepWorking) {
  DeflateStream first;
  DeflateStream second(std::move(first));
  DeflateStream third;
  third = std::move(second);
  std::string compressed;
  const ByteSink collect = [&](std::string_view piece) { compressed += piece; };
  third.reset();
  third.write("moved", collect);
  third.finish(collect);
  EXPECT_EQ(testing::zlibInflateRaw(compressed), "moved");
}

}  // namespace
}  // namespace corvelstow
