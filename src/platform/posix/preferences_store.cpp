#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/files.h"
#include "platform/platform.h"

namespace corvelstow::platform {

namespace {

std::string fileOf(const std::string& domain) { return domain + ".plist"; }

}  // namespace

PreferencesStore::PreferencesStore(fs::path preferencesFolder, int folder)
    : folder_(std::move(preferencesFolder)), folderFd_(folder) {}

std::optional<PlistDictionary> PreferencesStore::domain(const std::string& name) const {
  auto bytes = folderFd_ >= 0 ? files::readWhole(folderFd_, fileOf(name))
                              : files::readWhole(files::join(folder_, fileOf(name)));
  if (!bytes) return std::nullopt;
  auto parsed = parsePropertyList(*bytes);
  if (!parsed || !parsed->as<PlistDictionary>()) return std::nullopt;
  return *parsed->as<PlistDictionary>();
}

bool PreferencesStore::setDomain(const std::string& name, const PlistDictionary& values) {
  auto encoded = encodeBinaryPropertyList(PlistValue{values});
  if (!encoded) return false;
  return folderFd_ >= 0 ? files::writeAtomically(folderFd_, fileOf(name), *encoded)
                        : files::writeAtomically(files::join(folder_, fileOf(name)), *encoded);
}

bool PreferencesStore::removeDomain(const std::string& name) {
  int removed = folderFd_ >= 0 ? ::unlinkat(folderFd_, fileOf(name).c_str(), 0)
                               : ::unlink(files::join(folder_, fileOf(name)).c_str());
  return removed == 0 || errno == ENOENT;
}

// Every change above is already on disk, synced.
bool PreferencesStore::synchronize() { return true; }

}  // namespace corvelstow::platform
