#include "startup/swap.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/files.h"
#include "platform/platform.h"
#include "startup/startup.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPlistExtension = ".plist";
// In Previous: what the next undo leaves live (StowKeptLive).
constexpr std::string_view kKeptRecordName = "kept.json";

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

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// One swap under way: the journal that describes it, and the places it works on.
struct Swap {
  const StowLayout& layout;
  const std::string& hostBundleID;
  StowSwapJournal journal;

  const StowStagedRestore& record() const { return journal.record; }
  StowRestoreScope scope() const { return journal.record.scope; }
  bool restores() const { return journal.kind == StowSwapKind::restore; }
  fs::path source() const { return restores() ? layout.staged : layout.previous; }
  std::vector<std::string>& failures() { return journal.failures; }

  // The name a staged settings domain is installed under: the source app's own becomes ours.
  std::string targetName(const std::string& domain) const {
    return domain == record().manifest.bundleIdentifier ? hostBundleID : domain;
  }
};

bool includesDocuments(StowRestoreScope scope) { return scope != StowRestoreScope::settings; }
bool includesLibrary(StowRestoreScope scope) { return scope == StowRestoreScope::everything; }
bool includesSettings(StowRestoreScope scope) { return scope != StowRestoreScope::documents; }

bool appliesTo(StowSwapStep step, StowRestoreScope scope) {
  switch (step) {
    case StowSwapStep::documentsAside:
    case StowSwapStep::documentsIn:
      return includesDocuments(scope);
    case StowSwapStep::libraryAside:
    case StowSwapStep::libraryIn:
      return includesLibrary(scope);
    case StowSwapStep::settingsAside:
    case StowSwapStep::settingsIn:
      return includesSettings(scope);
    case StowSwapStep::finish:
      return true;
  }
  return false;
}

// Steps that must not run again once the step after them has begun: a put-back (moving aside
// again would set the restored data aside) and the finish (the source is being cleared).
// The journal names each of them before it begins.
bool isPointOfNoReturn(StowSwapStep step) {
  return step == StowSwapStep::documentsIn || step == StowSwapStep::libraryIn ||
         step == StowSwapStep::settingsIn || step == StowSwapStep::finish;
}

constexpr StowSwapStep kSteps[] = {StowSwapStep::documentsAside, StowSwapStep::documentsIn,
                                   StowSwapStep::libraryAside,   StowSwapStep::libraryIn,
                                   StowSwapStep::settingsAside,  StowSwapStep::settingsIn,
                                   StowSwapStep::finish};

// Folders ------------------------------------------------------------------------------------

std::set<std::string> libraryExclusions(const fs::path& sourceLibrary) {
  std::set<std::string> excluded = excludedLibraryNames();
  excluded.insert("Preferences");
  // A backup without caches leaves the app's current caches in place.
  if (!files::exists(sourceLibrary / "Caches")) excluded.insert("Caches");
  return excluded;
}

// Moves every entry of the live folder `part` ("Documents" or "Library") into the same folder of
// the aside folder, but those named in `excluded` and those the swap keeps live. An entry that
// cannot be moved stays live, and is kept so. Running it again after an interruption moves what
// is left.
void moveAside(Swap& swap, const std::string& part, const std::set<std::string>& excluded) {
  const fs::path live = swap.layout.home / part, aside = swap.layout.previousNew / part;
  files::createFolders(live);
  for (const auto& name : files::listNames(live)) {
    const std::string entry = part + "/" + name;
    if (excluded.count(name) || contains(swap.journal.kept.entries, entry)) continue;
    if (!files::moveNoReplace(files::join(live, name), files::join(aside, name))) {
      swap.failures().push_back("Could not move aside " + name);
      swap.journal.kept.entries.push_back(entry);
    }
  }
}

// Moves every entry of `source` not named in `excluded` into `live`, never over an entry that
// is still there (one that could not be moved aside): that one stays in the source.
void putBack(const fs::path& source, const fs::path& live, const std::set<std::string>& excluded,
             std::vector<std::string>& failures) {
  for (const auto& name : files::listNames(source)) {
    if (excluded.count(name)) continue;
    if (!files::moveNoReplace(files::join(source, name), files::join(live, name))) {
      failures.push_back("Could not put back " + name);
    }
  }
}

// Settings -----------------------------------------------------------------------------------
// Settings are applied through the preferences store rather than moved as files, so that the
// store's cache sees them. What is replaced is kept as binary property lists in the aside folder.

// Keeps each live domain in the aside folder, and removes from the store those that the source
// does not replace. A domain is removed only once its copy is written; one that cannot be
// copied stays live, and its staged counterpart is not installed over it.
void setSettingsAside(Swap& swap) {
  const fs::path source = swap.source() / "Library" / "Preferences";
  const fs::path aside = swap.layout.previousNew / "Library" / "Preferences";
  std::set<std::string> targets;
  for (const auto& name : plistNames(source)) targets.insert(swap.targetName(domainOf(name)));

  platform::PreferencesStore store(swap.layout.preferences);
  for (const auto& name : plistNames(swap.layout.preferences)) {
    std::string domain = domainOf(name);
    if (contains(swap.journal.kept.domains, domain)) continue;
    bool copied = false;
    if (auto values = store.domain(domain)) {
      auto encoded = platform::encodeBinaryPropertyList(PlistValue{*values});
      copied = encoded && files::writeAtomically(files::join(aside, name), *encoded);
    } else {
      // A file the store cannot read is still the user's: it stays, as one not copied does.
      copied = !files::exists(files::join(swap.layout.preferences, name));
    }
    if (!copied) {
      swap.failures().push_back("Could not move aside " + name);
      swap.journal.kept.domains.push_back(domain);
    } else if (!targets.count(domain)) {
      store.removeDomain(domain);
    }
  }
  store.synchronize();
}

void installSettings(Swap& swap) {
  const fs::path source = swap.source() / "Library" / "Preferences";
  platform::PreferencesStore store(swap.layout.preferences);
  for (const auto& name : plistNames(source)) {
    std::string target = swap.targetName(domainOf(name));
    if (contains(swap.journal.kept.domains, target)) {
      swap.failures().push_back("Could not put back " + name);
      continue;
    }
    auto bytes = files::readWhole(files::join(source, name));
    auto values = bytes ? platform::parsePropertyList(*bytes) : std::nullopt;
    if (!values || !values->as<PlistDictionary>()) continue;
    store.setDomain(target, *values->as<PlistDictionary>());
  }
  store.synchronize();
}

// The finish -----------------------------------------------------------------------------------

// Previous is replaced only once its successor is whole: the old one steps aside as
// Previous-old (removed with the staging), then the aside folder becomes Previous, then
// previous.json describes it. Each part is skipped when an interrupted run already did it.
// What the restore kept live goes with it, so that its undo leaves that live too.
bool keepReplaced(Swap& swap) {
  const StowLayout& layout = swap.layout;
  if (files::exists(layout.previousNew)) {
    const StowKeptLive& kept = swap.journal.kept;
    if (kept != StowKeptLive{} && !writeRecord(kept, layout.previousNew / kKeptRecordName)) {
      return false;
    }
    if (files::exists(layout.previous)) {
      files::removeAll(layout.previousOld);
      if (!files::moveNoReplace(layout.previous, layout.previousOld)) return false;
    }
    if (!files::moveNoReplace(layout.previousNew, layout.previous)) return false;
  }
  StowStagedRestore kept = swap.record();
  kept.manifest.bundleIdentifier = swap.hostBundleID;
  kept.manifest.appName = "Before the restore";
  kept.stagedAt = currentDate();
  return writeRecord(kept, layout.previousRecord);
}

// "Restored {scope} from {app}." without failures, else the first three failure texts.
std::string swapMessage(const StowStagedRestore& record, const std::vector<std::string>& failures) {
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

StowOutcome outcomeFor(const StowStagedRestore& record, std::string message, bool succeeded,
                       bool canUndo) {
  StowOutcome outcome;
  outcome.succeeded = succeeded;
  outcome.message = std::move(message);
  outcome.sourceName = record.manifest.appName;
  outcome.sourceDate = record.manifest.createdAt;
  outcome.appliedAt = currentDate();
  outcome.canUndo = canUndo;
  outcome.announced = false;
  return outcome;
}

// What an undo could not put back stays in Previous, and previous.json with it, so that the
// user can undo again: that undo swaps just what Previous still holds. False when that cannot
// be recorded: an undo of the whole scope would then set aside what this one put back.
bool keepForAnotherUndo(const Swap& swap) {
  return writeRecord(StowKeptLive{{}, {}, true}, swap.layout.previous / kKeptRecordName);
}

bool finish(Swap& swap) {
  const StowLayout& layout = swap.layout;
  if (swap.restores() && !keepReplaced(swap)) return false;

  bool succeeded = swap.failures().empty();
  bool canUndo = swap.restores() || (!succeeded && keepForAnotherUndo(swap));
  std::string message = swapMessage(swap.record(), swap.failures());
  if (!swap.restores() && succeeded) message = "Put back the data from before the restore.";
  writeRecord(outcomeFor(swap.record(), message, succeeded, canUndo), layout.outcomeRecord);

  // A restore that failed half-way is not retried at the next launch.
  if (swap.restores()) {
    clearStaging(layout);
    files::removeAll(layout.previousOld);
    return true;
  }
  // An undo discards the restored data it moved aside. Previous stays while it holds anything.
  files::removeAll(layout.previousNew);
  if (!canUndo) {
    if (succeeded) files::removeAll(layout.previous);
    ::unlink(layout.previousRecord.c_str());
  }
  return true;
}

// Running -------------------------------------------------------------------------------------

bool runStep(Swap& swap, StowSwapStep step) {
  const StowLayout& layout = swap.layout;
  switch (step) {
    case StowSwapStep::documentsAside:
      moveAside(swap, "Documents", {});
      return true;
    case StowSwapStep::documentsIn:
      putBack(swap.source() / "Documents", layout.documents, {}, swap.failures());
      return true;
    case StowSwapStep::libraryAside:
      moveAside(swap, "Library", libraryExclusions(swap.source() / "Library"));
      return true;
    case StowSwapStep::libraryIn:
      putBack(swap.source() / "Library", layout.library,
              libraryExclusions(swap.source() / "Library"), swap.failures());
      return true;
    case StowSwapStep::settingsAside:
      setSettingsAside(swap);
      return true;
    case StowSwapStep::settingsIn:
      installSettings(swap);
      return true;
    case StowSwapStep::finish:
      return finish(swap);
  }
  return false;
}

// Runs the steps from the journal's step on. Before a step that must not run twice, the
// journal is rewritten to name it, with the failures met so far; a step that is run again
// after an interruption meets its own failures again. Stops (false) when the journal cannot
// be written or the finish cannot keep what was replaced: the next launch goes on from there.
bool run(Swap& swap) {
  const StowLayout& layout = swap.layout;
  // An undo consumes its request once its journal stands in for it.
  if (!swap.restores()) ::unlink(layout.undoRequest.c_str());
  for (StowSwapStep step : kSteps) {
    if (step < swap.journal.step || !appliesTo(step, swap.scope())) continue;
    if (step != swap.journal.step && isPointOfNoReturn(step)) {
      swap.journal.step = step;
      if (!writeRecord(swap.journal, layout.swapJournal)) return false;
    }
    if (!runStep(swap, step)) return false;
  }
  ::unlink(layout.swapJournal.c_str());
  return true;
}

// Starting --------------------------------------------------------------------------------------

std::string relativeName(const fs::path& path, const fs::path& base) {
  return path.lexically_relative(base).string();
}

// The folders a swap of this scope reads or moves entries through: none may be a link, which
// would move the app's data out of the container or someone else's data into it.
std::vector<fs::path> foldersUsed(const Swap& swap) {
  const StowLayout& layout = swap.layout;
  const fs::path source = swap.source();
  std::vector<fs::path> folders{layout.library, layout.workFolder, source, layout.previousNew,
                                layout.previous};
  if (includesDocuments(swap.scope())) {
    folders.insert(folders.end(), {layout.documents, source / "Documents"});
  }
  if (includesLibrary(swap.scope()) || includesSettings(swap.scope())) {
    folders.push_back(source / "Library");
  }
  if (includesSettings(swap.scope())) {
    folders.insert(folders.end(), {layout.preferences, source / "Library" / "Preferences"});
  }
  return folders;
}

std::vector<fs::path> asideFolders(const Swap& swap) {
  const fs::path aside = swap.layout.previousNew;
  std::vector<fs::path> folders{aside};
  if (includesDocuments(swap.scope())) folders.push_back(aside / "Documents");
  if (includesLibrary(swap.scope())) folders.push_back(aside / "Library");
  if (includesSettings(swap.scope())) folders.push_back(aside / "Library" / "Preferences");
  return folders;
}

// Whether anything but folders lies below `folder`.
bool holdsData(const fs::path& folder) {
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    if (!it->is_directory(error) || it->is_symlink(error)) return true;
  }
  return false;
}

std::string systemReason(int code) { return std::string(std::strerror(code)) + "."; }

// Why the swap cannot start, or nothing once it may: the folders it uses are no links, the
// aside folder is empty and made, and the journal is written. Nothing has moved yet.
std::optional<std::string> prepare(Swap& swap) {
  const StowLayout& layout = swap.layout;
  for (const fs::path& folder : foldersUsed(swap)) {
    if (files::isLink(folder)) {
      return "Nothing was moved: " + relativeName(folder, layout.home) + " is a link.";
    }
  }
  if (holdsData(layout.previousNew)) {
    return "Nothing was moved: Previous-new still holds data from an earlier restore.";
  }
  // From here on the aside folder holds at most empty folders, which go if the swap cannot start.
  files::removeAll(layout.previousNew);
  std::optional<std::string> reason;
  for (const fs::path& folder : asideFolders(swap)) {
    if (!reason && !files::createFolders(folder)) {
      reason = "Nothing was moved: could not create " + relativeName(folder, layout.workFolder) +
               ": " + systemReason(errno);
    }
  }
  if (!reason && !writeRecord(swap.journal, layout.swapJournal)) {
    reason = "Nothing was moved: could not write swap.json: " + systemReason(errno);
  }
  if (reason) files::removeAll(layout.previousNew);
  return reason;
}

// The names of `folder` that `other` does not hold.
std::vector<std::string> namesMissingFrom(const fs::path& folder, const fs::path& other) {
  std::vector<std::string> names;
  for (auto& name : files::listNames(folder)) {
    if (!files::exists(files::join(other, name))) names.push_back(std::move(name));
  }
  return names;
}

// An undo leaves live what the restore it undoes kept live, or, after an undo that could not
// put everything back, all that Previous does not hold: what that undo put back, what it kept,
// what the app has written since.
void keepLiveWhatTheRestoreKept(Swap& swap) {
  const StowLayout& layout = swap.layout;
  auto kept = readRecord<StowKeptLive>(layout.previous / kKeptRecordName);
  if (!kept) return;
  if (!kept->allButPrevious) {
    swap.journal.kept = std::move(*kept);
    return;
  }
  for (const std::string part : {"Documents", "Library"}) {
    for (const auto& name : namesMissingFrom(layout.home / part, layout.previous / part)) {
      swap.journal.kept.entries.push_back(part + "/" + name);
    }
  }
  for (const auto& name :
       namesMissingFrom(layout.preferences, layout.previous / "Library" / "Preferences")) {
    if (isPlistName(name)) swap.journal.kept.domains.push_back(domainOf(name));
  }
}

StowSwapStep firstStep(StowRestoreScope scope) {
  for (StowSwapStep step : kSteps) {
    if (appliesTo(step, scope)) return step;
  }
  return StowSwapStep::finish;
}

}  // namespace

bool performSwap(const StowLayout& layout, const std::string& hostBundleID, StowSwapKind kind,
                 const StowStagedRestore& record) {
  try {
    Swap swap{layout, hostBundleID, {kind, record, firstStep(record.scope), {}, {}}};
    if (kind == StowSwapKind::undo) keepLiveWhatTheRestoreKept(swap);
    if (auto reason = prepare(swap)) {
      bool canUndo = readRecord<StowStagedRestore>(layout.previousRecord).has_value();
      writeRecord(outcomeFor(record, *reason, false, canUndo), layout.outcomeRecord);
      return false;
    }
    return run(swap);
  } catch (...) {
    return false;  // only memory can run out here; swap.json, if written, finishes it later
  }
}

bool resumeSwap(const StowLayout& layout, const std::string& hostBundleID) {
  try {
    auto journal = readRecord<StowSwapJournal>(layout.swapJournal);
    if (!journal) return false;
    // Settings written when the swap was cut short may have left their temporary files.
    files::removeUnfinishedWrites(layout.preferences);
    files::removeUnfinishedWrites(layout.previousNew / "Library" / "Preferences");
    Swap swap{layout, hostBundleID, std::move(*journal)};
    return run(swap);
  } catch (...) {
    return false;
  }
}

}  // namespace corvelstow
