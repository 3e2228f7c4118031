#include <errno.h>
#include <fcntl.h>

#include "base/unique_fd.h"
#include "platform/platform.h"

// Data protection: until the device's first unlock after a restart (and, for files under
// complete protection, whenever it is locked) the container's files refuse to open, with EPERM.
// UIApplication's protectedDataAvailable would say the same, but at load time, where this is
// asked, there is no app object yet to ask.
namespace corvelstow::platform {

bool dataLocked(const fs::path& file) {
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd) return false;
  return errno == EPERM || errno == EACCES;
}

}  // namespace corvelstow::platform
