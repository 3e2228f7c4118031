#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "base/files.h"
#include "platform/platform.h"

namespace corvelstow::platform {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

}  // namespace

std::optional<fs::path> containerFolder() {
  auto home = environment("CORVELSTOW_HOME");
  if (!home) return std::nullopt;
  return fs::path(*home);
}

std::string deviceName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "Linux";
  return name;
}

unsigned processorCount() { return std::max(std::thread::hardware_concurrency(), 1u); }

fs::path temporaryFolder() { return environment("TMPDIR").value_or("/tmp"); }

std::optional<std::uint64_t> freeSpace(const fs::path& folder) {
  struct statvfs volume {};
  if (::statvfs(folder.c_str(), &volume) != 0) return std::nullopt;
  return std::uint64_t{volume.f_bavail} * volume.f_frsize;
}

// On Linux a bundle is a folder laid out like an .app: Info.plist (XML or binary) at its top.
Bundle mainBundle() {
  Bundle bundle;
  auto folder = environment("CORVELSTOW_BUNDLE");
  if (!folder) return bundle;
  bundle.folder = fs::path(*folder);
  if (auto bytes = files::readWhole(*bundle.folder / "Info.plist")) {
    if (auto parsed = parsePropertyList(*bytes)) {
      if (auto* info = parsed->as<PlistDictionary>()) bundle.info = *info;
    }
  }
  bundle.provisioningProfile = files::readWhole(*bundle.folder / "embedded.mobileprovision");
  if (auto it = bundle.info.find("CFBundleIdentifier"); it != bundle.info.end()) {
    if (auto* identifier = it->second.as<std::string>()) bundle.identifier = *identifier;
  }
  return bundle;
}

}  // namespace corvelstow::platform
