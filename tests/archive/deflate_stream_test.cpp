#include "archive/deflate_stream.h"

#include <gtest/gtest.h>

#include <vector>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

// One moved-into stream of each kind serves several inputs in turn, fed in uneven pieces; each
// piece is compressed on its own (dense ones stored) and joins the one before it, as the writer's
// blocks do; zlib's own inflate is the oracle. Random bytes are dense, but not when a block of them
// repeats within DEFLATE's window, anywhere in the piece. Inflating wants more input until the end
// of the stream, ignores what follows it, and reports bad data.
TEST(DeflateStreamTest, RoundTripsPiecesCompressedApartAndJoined) {
  using Status = InflateStream::Status;
  const std::string text = testing::sampleText(300000), noise = testing::randomBytes(300000, 9);
  std::string repeats;
  while (repeats.size() < 300000) repeats += noise.substr(0, 16384);
  CompressionProbe probe, moved;
  probe = std::move(moved);
  EXPECT_TRUE(probe.worthCompressing(text));
  EXPECT_FALSE(probe.worthCompressing(noise));
  EXPECT_TRUE(probe.worthCompressing(noise.substr(0, 1000)));  // too little to judge
  EXPECT_TRUE(probe.worthCompressing(repeats));
  EXPECT_TRUE(probe.worthCompressing(noise + repeats + testing::randomBytes(300000, 3)));
  // A writer's block of 128 KiB whose repeats end where fresh noise fills its last 32 KiB.
  EXPECT_TRUE(probe.worthCompressing(repeats.substr(0, 98304) + noise.substr(0, 32768)));
  EXPECT_FALSE(probe.worthCompressing(noise.substr(0, 20000)));

  const std::vector<std::string> inputs[] = {
      {""}, {"a"}, {text, noise, text, noise, repeats}, {text}};
  DeflateStream deflater, original;
  deflater = std::move(original);
  InflateStream source;
  InflateStream inflater(std::move(source));
  std::string unpacked;
  const ByteSink append = [&](std::string_view piece) { unpacked += piece; };
  EXPECT_EQ(inflater.write("\xff\xff\xff\xff", append), Status::corrupt);  // no block type 3
  for (const auto& pieces : inputs) {
    std::string input, compressed;
    std::size_t budget = 64;  // stored noise costs a few bytes a block; text shrinks by half
    const ByteSink collect = [&](std::string_view piece) {
      EXPECT_LE(piece.size(), DeflateStream::kBufferSize);
      compressed += piece;
    };
    // Each piece by the stream reset, primed with the 32 KiB before it, and flushed; the last
    // one finished.
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      const std::string& piece = pieces[i];
      const bool compress = probe.worthCompressing(piece);
      deflater.reset(compress ? DeflateStream::kDefaultLevel : DeflateStream::kStoredLevel);
      if (compress && !input.empty()) {
        deflater.setDictionary(std::string_view(input).substr(
            input.size() - std::min<std::size_t>(input.size(), 32768)));
      }
      for (std::size_t at = 0; at < piece.size(); at += 40000) {
        deflater.write(std::string_view(piece).substr(at, 40000), collect);
      }
      if (i + 1 < pieces.size()) {
        deflater.flush(collect);
      } else {
        deflater.finish(collect);
      }
      input += piece;
      budget += compress ? piece.size() / 2 : piece.size() + piece.size() / 1000;
    }
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
