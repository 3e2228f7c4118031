#include <dlfcn.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "platform/platform.h"

namespace corvelstow::platform {
namespace {

bool sameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return a == b || fs::equivalent(a, b, error);
}

}  // namespace

void finishStartup() {
  Dl_info info{};
  const char* preload = ::getenv("LD_PRELOAD");
  if (preload == nullptr ||
      ::dladdr(reinterpret_cast<void*>(&finishStartup), &info) == 0 || !info.dli_fname) {
    return;
  }
  // LD_PRELOAD separates its entries with colons or spaces.
  std::string kept;
  std::string_view rest = preload;
  while (!rest.empty()) {
    size_t end = rest.find_first_of(": ");
    std::string entry(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    if (entry.empty() || sameFile(entry, info.dli_fname)) continue;
    kept += (kept.empty() ? "" : ":") + entry;
  }
  if (kept.empty()) {
    ::unsetenv("LD_PRELOAD");
  } else {
    ::setenv("LD_PRELOAD", kept.c_str(), 1);
  }
}

// The corvelstow command empties the trash and tidies the work folder as it runs; the library
// starts no thread of its own in the host's process.
void afterLaunch(std::function<void()>) {}

// Only Apple platforms back up an app's container.
bool excludeFromBackup(const fs::path&) { return true; }

}  // namespace corvelstow::platform
