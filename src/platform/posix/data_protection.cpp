#include <errno.h>
#include <fcntl.h>

#include "base/unique_fd.h"
#include "platform/platform.h"

// Linux protects data at rest with fscrypt: a folder whose key is not loaded refuses to open
// its files with ENOKEY.
namespace corvelstow::platform {

bool dataLocked(const fs::path& file) {
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd) return false;
  return errno == ENOKEY || errno == EPERM || errno == EACCES;
}

}  // namespace corvelstow::platform
