#include "archive/piece_pipeline.h"

#include <algorithm>
#include <cstring>

namespace corvelstow {

StowPiecePipeline::StowPiecePipeline(ByteSink take)
    : take_(std::move(take)),
      memory_(new char[kBuffers * kBufferSize]),
      taker_([this] { takeAll(); }) {}

StowPiecePipeline::~StowPiecePipeline() {
  {
    std::lock_guard lock(mutex_);
    abandoned_ = true;
  }
  changed_.notify_all();
  taker_.join();
}

void StowPiecePipeline::put(std::string_view piece) {
  while (!piece.empty()) {
    if (filled_ == 0) {
      // The buffer about to be filled is free once the taker is done with the one it held
      // kBuffers hand-overs ago.
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return failure_ || handed_ - taken_ < kBuffers; });
      if (failure_) std::rethrow_exception(failure_);
    }
    char* buffer = memory_.get() + (handed_ % kBuffers) * kBufferSize;
    const std::size_t count = std::min(piece.size(), kBufferSize - filled_);
    std::memcpy(buffer + filled_, piece.data(), count);
    filled_ += count;
    piece.remove_prefix(count);
    if (filled_ == kBufferSize) handOn();
  }
}

void StowPiecePipeline::finish() {
  if (filled_ > 0) handOn();
  std::unique_lock lock(mutex_);
  closing_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return failure_ || taken_ == handed_; });
  if (failure_) std::rethrow_exception(failure_);
}

void StowPiecePipeline::handOn() {
  {
    std::lock_guard lock(mutex_);
    sizes_[handed_ % kBuffers] = filled_;
    ++handed_;
  }
  filled_ = 0;
  changed_.notify_all();
}

// The second thread: takes each buffer as it is handed on, until everything is taken, the
// pipeline is abandoned, or `take` fails (which ends the taking: nothing after a failure counts).
void StowPiecePipeline::takeAll() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return abandoned_ || closing_ || taken_ < handed_; });
    if (abandoned_ || taken_ == handed_) return;
    const std::size_t slot = taken_ % kBuffers;
    lock.unlock();
    try {
      take_({memory_.get() + slot * kBufferSize, sizes_[slot]});
    } catch (...) {
      lock.lock();
      failure_ = std::current_exception();
      changed_.notify_all();
      return;
    }
    lock.lock();
    ++taken_;
    changed_.notify_all();
  }
}

}  // namespace corvelstow
