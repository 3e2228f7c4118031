#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "archive/deflate_stream.h"

namespace corvelstow {

/// Carries a stream of bytes from the thread that makes it to a second thread that takes it, in
/// order, through a few buffers of fixed size: the maker runs ahead of the taker by at most their
/// sum and waits when they are all full, so that neither waits for the other's every piece.
/// Not copyable or movable; the destructor stops the second thread and waits for it to end.
class StowPiecePipeline {
 public:
  static constexpr std::size_t kBuffers = 4;
  static constexpr std::size_t kBufferSize = 256 << 10;

  /// Starts the second thread, which hands each full buffer to `take`. Throws std::system_error
  /// when no thread can be started.
  explicit StowPiecePipeline(ByteSink take);
  ~StowPiecePipeline();
  StowPiecePipeline(const StowPiecePipeline&) = delete;
  StowPiecePipeline& operator=(const StowPiecePipeline&) = delete;

  /// Copies `piece` into the buffers, handing on each one that fills. Once `take` has failed,
  /// throws its exception.
  void put(std::string_view piece);

  /// Hands on what is left and waits until `take` has had everything; throws its exception when
  /// it failed. Call it once the maker is done, and also when the maker failed: what it made
  /// before the failure is taken first, as if the two had run one after the other.
  void finish();

 private:
  void handOn();
  void takeAll();

  ByteSink take_;
  std::unique_ptr<char[]> memory_;
  std::size_t sizes_[kBuffers] = {};
  std::size_t filled_ = 0;  // bytes in the buffer being filled

  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t handed_ = 0;  // buffers handed on so far; the next one filled is handed_ % kBuffers
  std::size_t taken_ = 0;   // buffers the taker is done with
  bool closing_ = false;    // nothing more comes: the taker ends once it has taken everything
  bool abandoned_ = false;  // the taker ends at once
  std::exception_ptr failure_;

  std::thread taker_;  // last: it starts once everything above is ready
};

}  // namespace corvelstow
