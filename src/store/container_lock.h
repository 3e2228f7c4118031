#pragma once

#include <chrono>
#include <optional>

#include "base/unique_fd.h"
#include "store/layout.h"

namespace corvelstow {

/// An advisory lock on one container's data, held from construction to destruction. Every
/// operation that changes the container's data or its work folder (the launch-time work, a
/// backup, a restore's staging, an undo request) holds it, so that two never interleave, in one
/// process or in two. It is a `flock` on the file "operation.lock" in the work folder, so it is released
/// by the system when the process ends, however it ends.
class StowContainerLock {
 public:
  /// What a second operation is told while the lock is held elsewhere.
  static constexpr const char* kBusyText = "Another CorvelStow operation is running on this app's data.";

  /// Takes the lock, waiting up to `patience` for another holder to let go. Creates the work
  /// folder when needed. Throws StowFileError: kBusyText when it is still held after
  /// `patience`, or the file error when the lock file cannot be made.
  static StowContainerLock acquire(const StowLayout& layout,
                                   std::chrono::milliseconds patience = std::chrono::seconds(2));

  /// The same without throwing: no lock when it cannot be had within `patience`.
  static std::optional<StowContainerLock> tryAcquire(const StowLayout& layout,
                                                     std::chrono::milliseconds patience) noexcept;

 private:
  explicit StowContainerLock(UniqueFd fd) noexcept : fd_(std::move(fd)) {}
  UniqueFd fd_;  // the lock goes with the descriptor
};

}  // namespace corvelstow
