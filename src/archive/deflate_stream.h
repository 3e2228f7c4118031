#pragma once

// Raw DEFLATE (RFC 1951, no zlib or gzip wrapper) over zlib, streamed through a 64 KiB buffer.
// One stream serves many entries: reset() readies it for the next one without new allocations.
// A long input may be cut into blocks compressed by separate streams, each primed with the 32 KiB
// before it and flushed, the last one finished: joined in order, their outputs are one stream.

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

struct z_stream_s;

namespace corvelstow {

/// Receives each piece of output as it is produced; the piece is valid only during the call.
using ByteSink = std::function<void(std::string_view piece)>;

/// Compresses. Move-only; the zlib state is released by the destructor.
class DeflateStream {
 public:
  static constexpr std::size_t kBufferSize = 65536;
  static constexpr int kDefaultLevel = -1;  ///< zlib's default, level 6
  static constexpr int kStoredLevel = 0;    ///< stored blocks: the data as it is

  /// A raw DEFLATE compressor at zlib's default level. Throws std::bad_alloc when zlib cannot.
  DeflateStream();
  ~DeflateStream();
  DeflateStream(DeflateStream&& other) noexcept;
  DeflateStream& operator=(DeflateStream&& other) noexcept;

  /// Forgets any unfinished input and starts a new stream at `level` (0, stored blocks, to 9).
  void reset(int level = kDefaultLevel);

  /// Primes a stream just reset with the bytes that come before its input (DEFLATE looks back
  /// 32 KiB at most), so that the output continues a stream that ended with them.
  void setDictionary(std::string_view preceding);
  /// Compresses `input`, handing every full buffer to `sink`.
  void write(std::string_view input, const ByteSink& sink);
  /// Hands all output so far to `sink`, ending on a byte boundary with an empty stored block,
  /// and leaves the stream open: another stream's output may follow it.
  void flush(const ByteSink& sink);
  /// Ends the stream, handing the rest of the output to `sink`.
  void finish(const ByteSink& sink);

 private:
  void run(int flush, const ByteSink& sink);

  std::unique_ptr<z_stream_s> stream_;  // zlib's state points back at it: it must not move
  std::unique_ptr<unsigned char[]> buffer_;
  int level_;
};

/// Tells data worth compressing from data that DEFLATE cannot shrink (compressed media, encrypted
/// or random bytes), which goes into stored blocks many times faster. Move-only; owns a small
/// zlib stream for its trials.
class CompressionProbe {
 public:
  /// Throws std::bad_alloc when zlib cannot allocate.
  CompressionProbe();

  /// Whether `piece` should be compressed rather than stored. Pieces whose bytes are spread
  /// unevenly always are; for the others, short samples are compressed after the 32 KiB before
  /// them, and the piece is compressed only when a sample comes out smaller.
  bool worthCompressing(std::string_view piece);

 private:
  bool shrinks(std::string_view window, std::string_view sample);

  struct End {  // releases the zlib state, then the stream
    void operator()(z_stream_s* stream) const;
  };
  std::unique_ptr<z_stream_s, End> stream_;
  std::unique_ptr<unsigned char[]> output_;
};

/// Decompresses. Move-only; the zlib state is released by the destructor.
class InflateStream {
 public:
  static constexpr std::size_t kBufferSize = 65536;

  enum class Status {
    needsInput,  ///< everything given so far is decompressed; the stream goes on
    ended,       ///< the end of the stream was reached; any further input is not used
    corrupt,     ///< the input is not valid DEFLATE data
  };

  /// A raw DEFLATE decompressor. Throws std::bad_alloc when zlib cannot allocate.
  InflateStream();
  ~InflateStream();
  InflateStream(InflateStream&& other) noexcept;
  InflateStream& operator=(InflateStream&& other) noexcept;

  /// Starts a new stream.
  void reset();
  /// Decompresses `input`, handing each piece of output to `sink` as the buffer fills.
  Status write(std::string_view input, const ByteSink& sink);

 private:
  std::unique_ptr<z_stream_s> stream_;
  std::unique_ptr<unsigned char[]> buffer_;
  bool ended_ = false;
  bool corrupt_ = false;
};

}  // namespace corvelstow
