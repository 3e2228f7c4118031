#include "startup/swap.h"

#include <cctype>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "base/files.h"
#include "platform/platform.h"

namespace corvelstow {
namespace {

using SwapFailures = std::vector<std::string>;

constexpr std::string_view kPlistExtension = ".plist";

bool isPlistName(const std::string& name) {
  return name.size() > kPlistExtension.size() &&
         name.compare(name.size() - kPlistExtension.size(), kPlistExtension.size(),
                      kPlistExtension) == 0;
}

std::string domainOf(const std::string& fileName) {
  return fileName.substr(0, fileName.size() - kPlistExtension.size());
}

std::vector<std::string> plistNames(const fs::path& folder) {
  std::vector<std::string> names;
  for (auto& name : files::listNames(folder)) {
    if (isPlistName(name)) names.push_back(std::move(name));
  }
  return names;
}

// Settings are applied through the preferences store rather than moved as files, so that the
// store's cache sees them. What is replaced is kept as binary property lists in `aside`.
void applySettings(const StowLayout& layout, const fs::path& source,
                   const std::string& sourceBundleID, const std::string& hostBundleID,
                   const fs::path& aside) {
  files::createFolders(aside);
  auto targetName = [&](const std::string& domain) {
    return domain == sourceBundleID ? hostBundleID : domain;
  };
  std::vector<std::string> staged = plistNames(source);
  std::set<std::string> targets;
  for (const auto& name : staged) targets.insert(targetName(domainOf(name)));

  platform::PreferencesStore store(layout.preferences);
  for (const auto& name : plistNames(layout.preferences)) {
    std::string domain = domainOf(name);
    if (auto values = store.domain(domain)) {
      if (auto encoded = platform::encodeBinaryPropertyList(PlistValue{*values})) {
        files::writeAtomically(files::join(aside, name), *encoded);
      }
    }
    if (!targets.count(domain)) store.removeDomain(domain);
  }
  for (const auto& name : staged) {
    auto bytes = files::readWhole(files::join(source, name));
    auto values = bytes ? platform::parsePropertyList(*bytes) : std::nullopt;
    if (!values || !values->as<PlistDictionary>()) continue;
    store.setDomain(targetName(domainOf(name)), *values->as<PlistDictionary>());
  }
  store.synchronize();
}

std::set<std::string> libraryExclusions(const fs::path& sourceLibrary) {
  std::set<std::string> excluded = excludedLibraryNames();
  excluded.insert("Preferences");
  // A backup without caches leaves the app's current caches in place.
  if (!files::exists(sourceLibrary / "Caches")) excluded.insert("Caches");
  return excluded;
}

void retain(const StowLayout& layout, const std::string& hostBundleID, StowStagedRestore record) {
  files::removeAll(layout.previous);
  std::rename(layout.previousNew.c_str(), layout.previous.c_str());
  record.manifest.bundleIdentifier = hostBundleID;
  record.manifest.appName = "Before the restore";
  record.stagedAt = currentDate();
  writeRecord(record, layout.previousRecord);
}

// Moves every entry of `live` not named in `excluded` into `aside`, then every entry of
// `source` not named in `excluded` into `live`. Returns how many entries were put back.
int swapFolder(const fs::path& live, const fs::path& source, const fs::path& aside,
               const std::set<std::string>& excluded, SwapFailures& failures) {
  files::createFolders(live);
  files::createFolders(aside);
  for (const auto& name : files::listNames(live)) {
    if (excluded.count(name)) continue;
    if (std::rename(files::join(live, name).c_str(), files::join(aside, name).c_str()) != 0) {
      failures.push_back("Could not move aside " + name);
    }
  }
  int putBack = 0;
  for (const auto& name : files::listNames(source)) {
    if (excluded.count(name)) continue;
    if (std::rename(files::join(source, name).c_str(), files::join(live, name).c_str()) != 0) {
      failures.push_back("Could not put back " + name);
    } else {
      ++putBack;
    }
  }
  return putBack;
}

// "Restored {scope} from {app}." without failures, else the first three failure texts.
std::string swapMessage(const StowStagedRestore& record, const SwapFailures& failures) {
  if (failures.empty()) {
    std::string scope(title(record.scope));
    for (char& c : scope) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return "Restored " + scope + " from " + record.manifest.appName + ".";
  }
  // Shown as they join: no full stop is added after the last text.
  std::string message;
  for (size_t i = 0; i < failures.size() && i < 3; ++i) {
    message += (i ? ". " : "") + failures[i];
  }
  return message;
}

}  // namespace

StowOutcome performSwap(const StowLayout& layout, const std::string& hostBundleID,
                        const StowStagedRestore& record, const fs::path& source, bool retainOld) {
  // Leftovers of an interrupted swap are discarded first.
  files::removeAll(layout.previousNew);
  files::createFolders(layout.previousNew);

  const StowRestoreScope scope = record.scope;
  const bool everything = scope == StowRestoreScope::everything;
  SwapFailures failures;
  if (everything || scope == StowRestoreScope::documents) {
    swapFolder(layout.documents, source / "Documents", layout.previousNew / "Documents", {},
               failures);
  }
  if (everything) {
    swapFolder(layout.library, source / "Library", layout.previousNew / "Library",
               libraryExclusions(source / "Library"), failures);
  }
  if (everything || scope == StowRestoreScope::settings) {
    applySettings(layout, source / "Library" / "Preferences", record.manifest.bundleIdentifier,
                  hostBundleID, layout.previousNew / "Library" / "Preferences");
  }

  if (retainOld) {
    retain(layout, hostBundleID, record);
  } else {
    files::removeAll(layout.previousNew);
  }

  StowOutcome outcome;
  outcome.succeeded = failures.empty();
  outcome.message = swapMessage(record, failures);
  outcome.sourceName = record.manifest.appName;
  outcome.sourceDate = record.manifest.createdAt;
  outcome.appliedAt = currentDate();
  outcome.canUndo = retainOld;
  outcome.announced = false;
  return outcome;
}

}  // namespace corvelstow
