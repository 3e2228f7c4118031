#include <unistd.h>

#include "base/files.h"
#include "platform/platform.h"

namespace corvelstow::platform {

PreferencesStore::PreferencesStore(fs::path preferencesFolder)
    : folder_(std::move(preferencesFolder)) {}

std::optional<PlistDictionary> PreferencesStore::domain(const std::string& name) const {
  auto bytes = files::readWhole(files::join(folder_, name + ".plist"));
  if (!bytes) return std::nullopt;
  auto parsed = parsePropertyList(*bytes);
  if (!parsed || !parsed->as<PlistDictionary>()) return std::nullopt;
  return *parsed->as<PlistDictionary>();
}

void PreferencesStore::setDomain(const std::string& name, const PlistDictionary& values) {
  if (auto encoded = encodeBinaryPropertyList(PlistValue{values})) {
    files::writeAtomically(files::join(folder_, name + ".plist"), *encoded);
  }
}

void PreferencesStore::removeDomain(const std::string& name) {
  ::unlink(files::join(folder_, name + ".plist").c_str());
}

// Every change above is already on disk.
void PreferencesStore::synchronize() {}

}  // namespace corvelstow::platform
