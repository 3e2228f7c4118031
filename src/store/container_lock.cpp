#include "store/container_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <thread>

#include "base/file_error.h"
#include "base/files.h"

namespace corvelstow {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(10);

// Opens (creating) the lock file and polls a non-blocking flock until `patience` runs out:
// flock has no timed wait, and a blocking one could hold the app's launch indefinitely.
// Returns the locked descriptor; errno is EWOULDBLOCK when the lock stayed busy.
UniqueFd lockWithin(const StowLayout& layout, std::chrono::milliseconds patience) {
  makeWorkFolder(layout);
  UniqueFd fd(::open(layout.lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) return fd;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(kPollInterval);
  }
  int code = errno;
  fd.reset();
  errno = code;
  return fd;
}

}  // namespace

StowContainerLock StowContainerLock::acquire(const StowLayout& layout,
                                             std::chrono::milliseconds patience) {
  UniqueFd fd = lockWithin(layout, patience);
  if (fd) return StowContainerLock(std::move(fd));
  if (errno == EWOULDBLOCK) throwFileError(EWOULDBLOCK, kBusyText);
  throwFileError("open", layout.lockFile);
}

std::optional<StowContainerLock> StowContainerLock::tryAcquire(
    const StowLayout& layout, std::chrono::milliseconds patience) noexcept {
  try {
    UniqueFd fd = lockWithin(layout, patience);
    if (fd) return StowContainerLock(std::move(fd));
  } catch (...) {
  }
  return std::nullopt;
}

}  // namespace corvelstow
