#include "archive/deflate_stream.h"

#include <gtest/gtest.h>

#include <vector>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// One moved-into stream of each kind serves several inputs in turn, fed in uneven pieces, with
// dense pieces in stored blocks of the same stream and the rest compressed, as the writer does;
// zlib's own inflate is the oracle. A reset stream starts at the default level again. Inflating
// wants more input until the end of the stream, ignores what follows it, and reports bad data.
TEST(DeflateStreamTest, RoundTripsThroughOneResetStreamSwitchingLevels) {
  using Status = InflateStream::Status;
  const std::string text = testing::sampleText(300000), noise = testing::randomBytes(300000, 9);
  EXPECT_FALSE(looksIncompressible(text));
  EXPECT_TRUE(looksIncompressible(noise));
  EXPECT_FALSE(looksIncompressible(noise.substr(0, 1000)));  // too little to judge

  const std::vector<std::string> inputs[] = {{""}, {"a"}, {text, noise, text, noise}, {text}};
  DeflateStream deflater, original;
  deflater = std::move(original);
  InflateStream source;
  InflateStream inflater(std::move(source));
  std::string unpacked;
  const ByteSink append = [&](std::string_view piece) { unpacked += piece; };
  EXPECT_EQ(inflater.write("\xff\xff\xff\xff", append), Status::corrupt);  // no block type 3
  for (const auto& pieces : inputs) {
    deflater.reset();
    std::string input, compressed;
    std::size_t budget = 64;  // stored noise costs a few bytes a block; text shrinks by half
    const ByteSink collect = [&](std::string_view piece) {
      EXPECT_LE(piece.size(), DeflateStream::kBufferSize);
      compressed += piece;
    };
    for (const std::string& piece : pieces) {
      deflater.setLevel(looksIncompressible(piece) ? 0 : -1, collect);
      for (std::size_t at = 0; at < piece.size(); at += 40000) {
        deflater.write(std::string_view(piece).substr(at, 40000), collect);
      }
      input += piece;
      budget += looksIncompressible(piece) ? piece.size() + piece.size() / 1000 : piece.size() / 2;
    }
    deflater.finish(collect);
    ASSERT_EQ(testing::zlibInflateRaw(compressed), input);
    EXPECT_LT(compressed.size(), budget);

    inflater.reset();
    unpacked.clear();
    const std::string fed = compressed + "trailing bytes";
    for (std::size_t at = 0; at < fed.size(); at += 777) {
      EXPECT_EQ(inflater.write(std::string_view(fed).substr(at, 777), append),
                at + 777 < compressed.size() ? Status::needsInput : Status::ended);
    }
    EXPECT_EQ(unpacked, input);
  }
}

}  // namespace
}  // namespace corvelstow
