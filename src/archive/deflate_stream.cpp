#include "archive/deflate_stream.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

namespace corvelstow {
namespace {

static_assert(DeflateStream::kDefaultLevel == Z_DEFAULT_COMPRESSION);

constexpr int kRawWindowBits = -15;  // negative: raw DEFLATE without a header or trailer
constexpr int kMemoryLevel = 8;      // zlib's default

// zlib counts input in `uInt`; longer input is fed in slices of this size.
constexpr std::size_t kMaxSlice = std::numeric_limits<uInt>::max();

[[noreturn]] void throwZlibFailure(int status) {
  if (status == Z_MEM_ERROR) throw std::bad_alloc();
  throw std::logic_error("zlib failed with status " + std::to_string(status));
}

}  // namespace

// DeflateStream

DeflateStream::DeflateStream()
    : stream_(std::make_unique<z_stream>()),
      buffer_(new unsigned char[kBufferSize]),
      level_(kDefaultLevel) {
  int status = deflateInit2(stream_.get(), kDefaultLevel, Z_DEFLATED, kRawWindowBits, kMemoryLevel,
                            Z_DEFAULT_STRATEGY);
  if (status != Z_OK) throwZlibFailure(status);
}

DeflateStream::~DeflateStream() {
  if (stream_) deflateEnd(stream_.get());
}

DeflateStream::DeflateStream(DeflateStream&& other) noexcept = default;

DeflateStream& DeflateStream::operator=(DeflateStream&& other) noexcept {
  if (this != &other) {
    if (stream_) deflateEnd(stream_.get());
    stream_ = std::move(other.stream_);
    buffer_ = std::move(other.buffer_);
    level_ = other.level_;
  }
  return *this;
}

void DeflateStream::reset(int level) {
  deflateReset(stream_.get());
  if (level != level_) {
    // Right after a reset no data is pending, so zlib changes the level without output.
    int status = deflateParams(stream_.get(), level, Z_DEFAULT_STRATEGY);
    if (status != Z_OK) throwZlibFailure(status);
    level_ = level;
  }
}

void DeflateStream::setDictionary(std::string_view preceding) {
  int status = deflateSetDictionary(stream_.get(), reinterpret_cast<const Bytef*>(preceding.data()),
                                    static_cast<uInt>(std::min(preceding.size(), kMaxSlice)));
  if (status != Z_OK) throwZlibFailure(status);
}

void DeflateStream::write(std::string_view input, const ByteSink& sink) {
  while (!input.empty()) {
    std::size_t slice = std::min(input.size(), kMaxSlice);
    stream_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream_->avail_in = static_cast<uInt>(slice);
    run(Z_NO_FLUSH, sink);
    input.remove_prefix(slice);
  }
}

void DeflateStream::flush(const ByteSink& sink) {
  stream_->next_in = nullptr;
  stream_->avail_in = 0;
  run(Z_SYNC_FLUSH, sink);
}

void DeflateStream::finish(const ByteSink& sink) {
  stream_->next_in = nullptr;
  stream_->avail_in = 0;
  run(Z_FINISH, sink);
}

// The loop of zlib's zpipe.c: compress into the buffer until a call leaves room in it, which
// means the input is used up (or, with Z_FINISH, the stream is complete).
void DeflateStream::run(int flush, const ByteSink& sink) {
  int status = Z_OK;
  do {
    stream_->next_out = buffer_.get();
    stream_->avail_out = kBufferSize;
    status = deflate(stream_.get(), flush);
    if (status == Z_STREAM_ERROR) throwZlibFailure(status);
    std::size_t produced = kBufferSize - stream_->avail_out;
    if (produced > 0) sink({reinterpret_cast<const char*>(buffer_.get()), produced});
  } while (stream_->avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
}

// CompressionProbe

namespace {

constexpr std::size_t kWindowSize = 32768;  // the farthest back a DEFLATE match reaches
constexpr std::size_t kSampleSize = 1024;
// One sample for each stretch this long, so that any run of repeats longer than a window and a
// sample holds one.
constexpr std::size_t kProbeStride = kWindowSize;

// Order-0 entropy of the bytes: about 8 bits for random data and compressed formats, well under
// 7 for text, databases and most binaries. Small pieces cost little to compress anyway.
bool bytesLookRandom(std::string_view piece) {
  constexpr std::size_t kSmallest = 4096;
  constexpr double kThreshold = 7.9;
  if (piece.size() < kSmallest) return false;
  std::size_t counts[256] = {};
  for (unsigned char byte : piece) ++counts[byte];
  double entropy = 0, total = static_cast<double>(piece.size());
  for (std::size_t count : counts) {
    if (count == 0) continue;
    double p = static_cast<double>(count) / total;
    entropy -= p * std::log2(p);
  }
  return entropy >= kThreshold;
}

}  // namespace

void CompressionProbe::End::operator()(z_stream_s* stream) const {
  deflateEnd(stream);
  delete stream;
}

CompressionProbe::CompressionProbe() : output_(new unsigned char[2 * kSampleSize]) {
  auto stream = std::make_unique<z_stream>();
  // The fastest level: a trial only needs to find the repeats, not the best encoding of them.
  int status =
      deflateInit2(stream.get(), 1, Z_DEFLATED, kRawWindowBits, kMemoryLevel, Z_DEFAULT_STRATEGY);
  if (status != Z_OK) throwZlibFailure(status);
  stream_.reset(stream.release());
}

bool CompressionProbe::worthCompressing(std::string_view piece) {
  if (!bytesLookRandom(piece)) return true;
  // Evenly spread bytes can still repeat within DEFLATE's window (a random block copied over and
  // over), which the byte counts cannot see. A sample at the end of each stretch finds that.
  for (std::size_t end = 0; end < piece.size();) {
    end = std::min(end + kProbeStride, piece.size());
    const std::size_t start = end - kSampleSize;  // a piece that looks random has 4 KiB or more
    const std::size_t from = start > kWindowSize ? start - kWindowSize : 0;
    if (shrinks(piece.substr(from, start - from), piece.substr(start, kSampleSize))) return true;
  }
  return false;
}

// Whether `sample` compresses to fewer bytes than it has, with `window` as what came before it.
bool CompressionProbe::shrinks(std::string_view window, std::string_view sample) {
  deflateReset(stream_.get());
  const auto bytes = [](std::string_view text) {
    return reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  };
  if (!window.empty()) {
    deflateSetDictionary(stream_.get(), bytes(window), static_cast<uInt>(window.size()));
  }
  stream_->next_in = bytes(sample);
  stream_->avail_in = static_cast<uInt>(sample.size());
  stream_->next_out = output_.get();
  stream_->avail_out = static_cast<uInt>(2 * kSampleSize);
  // Room for the sample in stored blocks and the flush: one call flushes it all.
  if (deflate(stream_.get(), Z_SYNC_FLUSH) != Z_OK || stream_->avail_in != 0) return true;
  return 2 * kSampleSize - stream_->avail_out < sample.size();
}

// InflateStream

InflateStream::InflateStream()
    : stream_(std::make_unique<z_stream>()), buffer_(new unsigned char[kBufferSize]) {
  int status = inflateInit2(stream_.get(), kRawWindowBits);
  if (status != Z_OK) throwZlibFailure(status);
}

InflateStream::~InflateStream() {
  if (stream_) inflateEnd(stream_.get());
}

InflateStream::InflateStream(InflateStream&& other) noexcept = default;

InflateStream& InflateStream::operator=(InflateStream&& other) noexcept {
  if (this != &other) {
    if (stream_) inflateEnd(stream_.get());
    stream_ = std::move(other.stream_);
    buffer_ = std::move(other.buffer_);
    ended_ = other.ended_;
    corrupt_ = other.corrupt_;
  }
  return *this;
}

void InflateStream::reset() {
  inflateReset(stream_.get());
  ended_ = false;
  corrupt_ = false;
}

InflateStream::Status InflateStream::write(std::string_view input, const ByteSink& sink) {
  while (!input.empty() && !ended_ && !corrupt_) {
    std::size_t slice = std::min(input.size(), kMaxSlice);
    stream_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream_->avail_in = static_cast<uInt>(slice);
    do {
      stream_->next_out = buffer_.get();
      stream_->avail_out = kBufferSize;
      int status = inflate(stream_.get(), Z_NO_FLUSH);
      if (status == Z_MEM_ERROR) throwZlibFailure(status);
      if (status == Z_DATA_ERROR || status == Z_NEED_DICT || status == Z_STREAM_ERROR) {
        corrupt_ = true;
      }
      if (status == Z_STREAM_END) ended_ = true;
      std::size_t produced = kBufferSize - stream_->avail_out;
      if (produced > 0) sink({reinterpret_cast<const char*>(buffer_.get()), produced});
    } while (stream_->avail_out == 0 && !ended_ && !corrupt_);
    input.remove_prefix(slice);
  }
  if (corrupt_) return Status::corrupt;
  return ended_ ? Status::ended : Status::needsInput;
}

}  // namespace corvelstow
