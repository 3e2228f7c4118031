// Feeds arbitrary bytes to the archive reader as a file: open it, list it, and unpack every item
// into memory. Only the archive errors may come out; anything else, a crash, a leak or an
// allocation past the limit is a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "archive/zip_error.h"
#include "archive/zip_reader.h"

namespace {

// One in-memory file, rewritten for every input and opened through /proc like any other path.
int inputFile() {
  static const int fd = [] {
    int created = ::memfd_create("zip-reader-input", 0);
    if (created < 0) std::abort();
    return created;
  }();
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int fd = inputFile();
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  try {
    corvelstow::StowZipReader reader("/proc/self/fd/" + std::to_string(fd));
    for (const corvelstow::StowZipItem& item : reader.items()) {
      try {
        std::string bytes = reader.data(item);
        if (item.method == 0 && bytes.size() > size)
          std::abort();  // stored bytes come from the input
      } catch (const corvelstow::StowZipError&) {
      }
    }
  } catch (const corvelstow::StowZipError&) {
  }
  return 0;
}
