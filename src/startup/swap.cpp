#include "startup/swap.h"

#include <fcntl.h>
#include <sys/stat.h>
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
#include "store/trash.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPlistExtension = ".plist";
// In Previous: what the next undo leaves live (StowKeptLive).
constexpr const char* kKeptRecordName = "kept.json";
// Room kept on the volume for the journal's rewrites and the finish's records, besides three
// times the length of every top-level name the swap may record.
constexpr std::size_t kRoomBase = 64 * 1024;
constexpr std::size_t kRoomPerName = 48;

bool isPlistName(const std::string& name) {
  return name.size() > kPlistExtension.size() &&
         name.compare(name.size() - kPlistExtension.size(), kPlistExtension.size(),
                      kPlistExtension) == 0;
}

std::string domainOf(const std::string& fileName) {
  return fileName.substr(0, fileName.size() - kPlistExtension.size());
}

std::vector<std::string> plistNames(int folder) {
  std::vector<std::string> names;
  for (auto& name : files::listNames(folder)) {
    if (isPlistName(name)) names.push_back(std::move(name));
  }
  return names;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string systemReason(int code) { return std::string(std::strerror(code)) + "."; }

std::optional<PlistDictionary> parseDomain(int folder, const std::string& name) {
  auto bytes = files::readWhole(folder, name);
  auto values = bytes ? platform::parsePropertyList(*bytes) : std::nullopt;
  if (!values || !values->as<PlistDictionary>()) return std::nullopt;
  return *values->as<PlistDictionary>();
}

// The parts of the container a swap works on: as they lie live, in the source (Staged or
// Previous) and in the aside folder.
enum Part { kDocuments, kLibrary, kPreferences, kParts };
constexpr const char* kPartNames[] = {"Documents", "Library", "Preferences"};

// Every folder of one swap, opened once from the container down without following a link:
// every move is made between these descriptors, so that a link put in the place of one of them
// meanwhile is never crossed.
struct Folders {
  UniqueFd home, library, work, trash, sourceRoot, asideRoot, previous;
  UniqueFd live[kParts], source[kParts], aside[kParts];
};

// Opens the folders of a swap, keeping the first reason one could not be opened.
class FolderOpener {
 public:
  // The folder `name` of `parent`, shown as `place`; with `create`, made when it is missing.
  // A folder whose parent is missing is missing too, which is no problem unless it is made.
  UniqueFd open(int parent, const std::string& name, const std::string& place, bool create) {
    if (parent < 0) {
      if (create) note(place, ENOENT, create);
      return UniqueFd();
    }
    UniqueFd fd = create ? files::makeFolder(parent, name) : files::openFolder(parent, name);
    if (!fd && (create || errno != ENOENT)) note(place, errno, create);
    return fd;
  }

  const std::optional<std::string>& problem() const { return problem_; }

 private:
  void note(const std::string& place, int code, bool create) {
    if (problem_) return;
    if (code == ELOOP) {
      problem_ = place + " is a link.";
    } else if (code == ENOTDIR) {
      problem_ = place + " is not a folder.";
    } else {
      problem_ = std::string(create ? "could not create " : "could not open ") + place + ": " +
                 systemReason(code);
    }
  }

  std::optional<std::string> problem_;
};

// Room kept on the volume for the records a swap must be able to write once it has moved
// something: a file holding blocks, given back when such a write fails for want of space. It
// has no name, so that nothing is left of it however the process ends.
class Room {
 public:
  bool reserve(int folder, std::size_t bytes) {
    const std::string name = ".room-" + newStagingToken();
    fd_.reset(::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd_) return false;
    ::unlinkat(folder, name.c_str(), 0);
#ifdef __APPLE__
    fstore_t store{F_ALLOCATEALL, F_PEOFPOSMODE, 0, static_cast<off_t>(bytes), 0};
    bool held = ::fcntl(fd_.get(), F_PREALLOCATE, &store) == 0 &&
                ::ftruncate(fd_.get(), static_cast<off_t>(bytes)) == 0;
#else
    int code = ::posix_fallocate(fd_.get(), 0, static_cast<off_t>(bytes));
    bool held = code == 0;
    if (!held) errno = code;
#endif
    if (!held) fd_.reset();
    return held;
  }

  void release() {
    if (fd_) ::ftruncate(fd_.get(), 0);
    fd_.reset();
  }

 private:
  UniqueFd fd_;
};

// One swap under way: the journal that describes it, and the folders it works on.
struct Swap {
  const StowLayout& layout;
  const std::string& hostBundleID;
  StowSwapJournal journal;
  Folders folders{};
  Room room{};

  const StowStagedRestore& record() const { return journal.record; }
  StowRestoreScope scope() const { return journal.record.scope; }
  bool restores() const { return journal.kind == StowSwapKind::restore; }
  std::vector<std::string>& failures() { return journal.failures; }
  int work() const { return folders.work.get(); }

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

// Records ------------------------------------------------------------------------------------

// Writes a record of the swap. When the write fails, the room reserved for it is given back
// and the write is tried once more; something other than a file in the record's place (a
// damaged record: a folder) goes to the trash first.
template <typename Record>
bool writeSwapRecord(Swap& swap, const Record& record, int folder, const std::string& name) {
  const auto attempt = [&] {
    if (writeRecord(record, folder, name)) return true;
    struct stat info {};
    int code = errno;
    if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(info.st_mode) && moveToTrash(folder, name, swap.folders.trash.get())) {
      return writeRecord(record, folder, name);
    }
    errno = code;
    return false;
  };
  if (attempt()) return true;
  swap.room.release();
  return attempt();
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

void writeOutcome(Swap& swap, const std::string& message, bool succeeded, bool canUndo) {
  StowOutcome outcome = outcomeFor(swap.record(), message, succeeded, canUndo);
  if (swap.work() >= 0) {
    writeSwapRecord(swap, outcome, swap.work(), swap.layout.outcomeRecord.filename().string());
  } else {
    writeRecord(outcome, swap.layout.outcomeRecord);
  }
}

bool previousKept(const StowLayout& layout) { return readPreviousRestore(layout).has_value(); }

// Folders ------------------------------------------------------------------------------------

std::set<std::string> libraryExclusions(const Swap& swap) {
  std::set<std::string> excluded = excludedLibraryNames();
  excluded.insert("Preferences");
  // A backup without caches leaves the app's current caches in place.
  if (!files::exists(swap.folders.source[kLibrary].get(), "Caches")) excluded.insert("Caches");
  return excluded;
}

// Moves every live entry of `part` (Documents or Library) into the same folder of the aside
// folder, but those named in `excluded` and those the swap keeps live. An entry that cannot be
// moved stays live, and is kept so. Running it again after an interruption moves what is left.
void moveAside(Swap& swap, Part part, const std::set<std::string>& excluded) {
  const int live = swap.folders.live[part].get(), aside = swap.folders.aside[part].get();
  for (const auto& name : files::listNames(live)) {
    const std::string entry = std::string(kPartNames[part]) + "/" + name;
    if (excluded.count(name) || contains(swap.journal.kept.entries, entry)) continue;
    if (!files::moveNoReplace(live, name, aside, name)) {
      swap.failures().push_back("Could not move aside " + name);
      swap.journal.kept.entries.push_back(entry);
      if (!swap.restores()) swap.journal.kept.restoredEntries.push_back(entry);
    }
  }
}

// Moves every source entry of `part` not named in `excluded` into place, never over an entry
// that is still there (one that could not be moved aside): that one stays in the source. A
// staging never holds a link (none is unpacked), so one found in Staged was put there by
// something else, and is not let in.
void putBack(Swap& swap, Part part, const std::set<std::string>& excluded) {
  const int source = swap.folders.source[part].get(), live = swap.folders.live[part].get();
  for (const auto& name : files::listNames(source)) {
    if (excluded.count(name)) continue;
    if ((swap.restores() && files::isLink(source, name)) ||
        !files::moveNoReplace(source, name, live, name)) {
      swap.failures().push_back("Could not put back " + name);
    }
  }
}

// Settings -----------------------------------------------------------------------------------
// Settings are applied through the preferences store rather than moved as files, so that the
// store's cache sees them. What is replaced is kept as binary property lists in the aside folder.

platform::PreferencesStore liveStore(const Swap& swap) {
  return platform::PreferencesStore(swap.layout.preferences, swap.folders.live[kPreferences].get());
}

// Keeps each live domain in the aside folder, and removes from the store those that the source
// does not replace. A domain is removed only once its copy is written; one that cannot be
// copied stays live, and its staged counterpart is not installed over it. A file the store
// cannot read as a domain is set aside as the file it is.
void setSettingsAside(Swap& swap) {
  const int source = swap.folders.source[kPreferences].get();
  const int live = swap.folders.live[kPreferences].get();
  const int aside = swap.folders.aside[kPreferences].get();
  std::set<std::string> targets;
  for (const auto& name : plistNames(source)) targets.insert(swap.targetName(domainOf(name)));

  platform::PreferencesStore store = liveStore(swap);
  for (const auto& name : plistNames(live)) {
    std::string domain = domainOf(name);
    if (contains(swap.journal.kept.domains, domain)) continue;
    bool copied = false;
    if (auto values = store.domain(domain)) {
      auto encoded = platform::encodeBinaryPropertyList(PlistValue{*values});
      copied = encoded && files::writeAtomically(aside, name, *encoded);
    } else {
      copied = files::moveNoReplace(live, name, aside, name) || !files::exists(live, name);
    }
    const bool removed = !copied || targets.count(domain) || store.removeDomain(domain);
    if (!copied || !removed) swap.failures().push_back("Could not move aside " + name);
    if (!copied) swap.journal.kept.domains.push_back(domain);
    // Restored settings that an undo could not set aside: the next undo sets them aside.
    if ((!copied || !removed) && !swap.restores()) {
      swap.journal.kept.restoredDomains.push_back(domain);
    }
  }
  if (!store.synchronize()) swap.failures().push_back("Could not save the settings");
}

// Installs each source domain. A source file that is no domain is skipped in a restore; in an
// undo it is a live file that the restore set aside as it was, and goes back as that file.
void installSettings(Swap& swap) {
  const int source = swap.folders.source[kPreferences].get();
  const int live = swap.folders.live[kPreferences].get();
  platform::PreferencesStore store = liveStore(swap);
  std::vector<std::string> installed;
  for (const auto& name : plistNames(source)) {
    const std::string target = swap.targetName(domainOf(name));
    if (contains(swap.journal.kept.domains, target)) {
      swap.failures().push_back("Could not put back " + name);
      continue;
    }
    auto values = parseDomain(source, name);
    bool put = values ? store.setDomain(target, *values)
                      : swap.restores() || files::moveNoReplace(source, name, live, name);
    if (!put) {
      swap.failures().push_back("Could not put back " + name);
    } else if (values) {
      installed.push_back(name);
    }
  }
  if (!store.synchronize()) {
    for (const auto& name : installed) swap.failures().push_back("Could not put back " + name);
  }
}

// The finish -----------------------------------------------------------------------------------

// Previous is replaced only once its successor is whole: the old one goes to the trash, then
// the aside folder becomes Previous, then previous.json describes it. Each part is skipped when
// an interrupted run already did it. What the restore kept live goes with it, so that its undo
// leaves that live too. False when one of these could not be done.
bool keepReplaced(Swap& swap) {
  const int work = swap.work();
  const std::string asideName = swap.layout.previousNew.filename().string();
  const std::string previousName = swap.layout.previous.filename().string();
  if (files::exists(work, asideName)) {
    const StowKeptLive& kept = swap.journal.kept;
    if (kept != StowKeptLive{} &&
        !writeSwapRecord(swap, kept, swap.folders.asideRoot.get(), kKeptRecordName)) {
      return false;
    }
    if (files::exists(work, previousName) &&
        !moveToTrash(work, previousName, swap.folders.trash.get())) {
      return false;
    }
    if (!files::moveNoReplace(work, asideName, work, previousName)) return false;
  }
  StowStagedRestore kept = swap.record();
  kept.manifest.bundleIdentifier = swap.hostBundleID;
  kept.manifest.appName = "Before the restore";
  kept.stagedAt = currentDate();
  return writeSwapRecord(swap, kept, work, swap.layout.previousRecord.filename().string());
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

// Moves the staging into the trash, record first. Failures are left: a staged.json whose
// folder is gone, or whose token previous.json carries, is never applied again.
void clearStaging(Swap& swap) {
  const int work = swap.work(), trash = swap.folders.trash.get();
  moveToTrash(work, swap.layout.stagedRecord.filename().string(), trash);
  moveToTrash(work, swap.layout.staged.filename().string(), trash);
}

bool finishRestore(Swap& swap) {
  if (!keepReplaced(swap) || !files::syncFolder(swap.work())) return false;
  // A restore that failed half-way is not retried at the next launch.
  clearStaging(swap);
  writeOutcome(swap, swapMessage(swap.record(), swap.failures()), swap.failures().empty(), true);
  return true;
}

// What an undo put back, it no longer needs in Previous: a domain's copy goes once the store
// holds the domain as the copy has it.
void dropSettingsPutBack(Swap& swap) {
  const int copies = swap.folders.source[kPreferences].get();
  platform::PreferencesStore store = liveStore(swap);
  if (!store.synchronize()) return;
  for (const auto& name : plistNames(copies)) {
    auto copy = parseDomain(copies, name);
    if (copy && store.domain(swap.targetName(domainOf(name))) == copy) {
      moveToTrash(copies, name, swap.folders.trash.get());
    }
  }
}

// Whether anything but folders (and, at the top, kept.json) lies below `folder`.
bool holdsData(int folder, bool top = true) {
  for (const auto& name : files::listNames(folder)) {
    if (top && name == kKeptRecordName) continue;
    UniqueFd inside = files::openFolder(folder, name);
    if (!inside || holdsData(inside.get(), false)) return true;
  }
  return false;
}

// An undo discards the restored data it moved aside. What it could not put back stays in
// Previous, and previous.json with it, so that the user can undo again: that undo swaps just
// what Previous still holds (kept.json says so). Otherwise Previous goes, record first: a
// previous.json without its folder would undo nothing but empty the app.
bool finishUndo(Swap& swap) {
  const int work = swap.work(), trash = swap.folders.trash.get();
  const bool succeeded = swap.failures().empty();
  if (!succeeded) dropSettingsPutBack(swap);
  const StowKeptLive& kept = swap.journal.kept;
  const bool keep = !succeeded && (holdsData(swap.folders.sourceRoot.get()) ||
                                   !kept.restoredEntries.empty() || !kept.restoredDomains.empty());
  if (keep) {
    if (!writeSwapRecord(swap,
                         StowKeptLive{{}, {}, true, kept.restoredEntries, kept.restoredDomains},
                         swap.folders.sourceRoot.get(), kKeptRecordName)) {
      return false;
    }
  } else {
    const std::string record = swap.layout.previousRecord.filename().string();
    if (files::exists(work, record) && !moveToTrash(work, record, trash)) return false;
    moveToTrash(work, swap.layout.previous.filename().string(), trash);
  }
  moveToTrash(work, swap.layout.previousNew.filename().string(), trash);
  files::syncFolder(work);
  std::string message = succeeded ? "Put back the data from before the restore."
                                   : swapMessage(swap.record(), swap.failures());
  writeOutcome(swap, message, succeeded, keep);
  return true;
}

// Running -------------------------------------------------------------------------------------

bool runStep(Swap& swap, StowSwapStep step) {
  switch (step) {
    case StowSwapStep::documentsAside:
      moveAside(swap, kDocuments, {});
      return true;
    case StowSwapStep::documentsIn:
      putBack(swap, kDocuments, {});
      return true;
    case StowSwapStep::libraryAside:
      moveAside(swap, kLibrary, libraryExclusions(swap));
      return true;
    case StowSwapStep::libraryIn:
      putBack(swap, kLibrary, libraryExclusions(swap));
      return true;
    case StowSwapStep::settingsAside:
      setSettingsAside(swap);
      return true;
    case StowSwapStep::settingsIn:
      installSettings(swap);
      return true;
    case StowSwapStep::finish:
      return swap.restores() ? finishRestore(swap) : finishUndo(swap);
  }
  return false;
}

std::string operationName(const Swap& swap) { return swap.restores() ? "restore" : "undo"; }

// Moves every entry of `from`'s part back into `to`'s, where its place is free; false when one
// stays.
bool moveAllBack(int from, int to, const std::set<std::string>& skipped,
                 const std::vector<std::string>& kept) {
  bool all = true;
  for (const auto& name : files::listNames(from)) {
    if (skipped.count(name) || contains(kept, name)) continue;
    all = files::moveNoReplace(from, name, to, name) && all;
  }
  return all;
}

// The live settings as the aside copies have them: each copied domain set again, each domain
// installed from the source without a copy removed, a file set aside as a file moved back.
bool settingsBack(Swap& swap, bool installed) {
  const int aside = swap.folders.aside[kPreferences].get();
  const int live = swap.folders.live[kPreferences].get();
  platform::PreferencesStore store = liveStore(swap);
  bool all = true;
  for (const auto& name : plistNames(aside)) {
    if (auto values = parseDomain(aside, name)) {
      all = store.setDomain(domainOf(name), *values) && all;
    } else {
      all = files::moveNoReplace(aside, name, live, name) && all;
    }
  }
  for (const auto& name : installed ? plistNames(swap.folders.source[kPreferences].get())
                                    : std::vector<std::string>{}) {
    const std::string target = swap.targetName(domainOf(name));
    if (!files::exists(aside, target + std::string(kPlistExtension))) {
      all = store.removeDomain(target) && all;
    }
  }
  return store.synchronize() && all;
}

// Takes back every step before `failed`, last first, after the journal could not be rewritten
// to name `failed`. When something cannot go back, the journal on disk (naming the step
// reached) stays for the next launch, which goes on from there instead.
StowSwapResult rollBack(Swap& swap, StowSwapStep failed, int code) {
  bool all = true;
  const auto kept = [&](Part part) {
    std::vector<std::string> names;
    const std::string prefix = std::string(kPartNames[part]) + "/";
    for (const auto& entry : swap.journal.kept.entries) {
      if (entry.rfind(prefix, 0) == 0) names.push_back(entry.substr(prefix.size()));
    }
    return names;
  };
  const bool installed = failed > StowSwapStep::settingsIn;
  for (auto it = std::rbegin(kSteps); it != std::rend(kSteps); ++it) {
    if (*it >= failed || !appliesTo(*it, swap.scope())) continue;
    const Folders& f = swap.folders;
    switch (*it) {
      case StowSwapStep::documentsAside:
        all = moveAllBack(f.aside[kDocuments].get(), f.live[kDocuments].get(), {}, {}) && all;
        break;
      case StowSwapStep::documentsIn:
        all = moveAllBack(f.live[kDocuments].get(), f.source[kDocuments].get(), {},
                          kept(kDocuments)) &&
              all;
        break;
      case StowSwapStep::libraryAside:
        all = moveAllBack(f.aside[kLibrary].get(), f.live[kLibrary].get(), {}, {}) && all;
        break;
      case StowSwapStep::libraryIn:
        all = moveAllBack(f.live[kLibrary].get(), f.source[kLibrary].get(),
                          libraryExclusions(swap), kept(kLibrary)) &&
              all;
        break;
      case StowSwapStep::settingsAside:
        all = settingsBack(swap, installed) && all;
        break;
      case StowSwapStep::settingsIn:
      case StowSwapStep::finish:
        break;
    }
  }
  if (!all || ::unlinkat(swap.work(), swap.layout.swapJournal.filename().c_str(), 0) != 0) {
    return StowSwapResult::stopped;
  }
  moveToTrash(swap.work(), swap.layout.previousNew.filename().string(), swap.folders.trash.get());
  if (!swap.restores()) files::writeAtomically(swap.work(), "undo.request", "");
  writeOutcome(swap,
               "Nothing was changed: the " + operationName(swap) +
                   " was taken back, as swap.json could not be written: " + systemReason(code),
               false, previousKept(swap.layout));
  return StowSwapResult::rolledBack;
}

// Runs the steps from the journal's step on. Before a step that must not run twice, the
// journal is rewritten to name it, with the failures met so far; a step that is run again
// after an interruption meets its own failures again. When the journal cannot be rewritten,
// the swap is taken back; when the finish cannot keep what was replaced, the swap stops and
// the next launch goes on from there.
StowSwapResult run(Swap& swap) {
  for (StowSwapStep step : kSteps) {
    if (step < swap.journal.step || !appliesTo(step, swap.scope())) continue;
    if (step != swap.journal.step && isPointOfNoReturn(step)) {
      const StowSwapStep reached = swap.journal.step;
      swap.journal.step = step;
      if (!writeSwapRecord(swap, swap.journal, swap.work(),
                           swap.layout.swapJournal.filename().string())) {
        int code = errno;
        swap.journal.step = reached;
        return rollBack(swap, step, code);
      }
    }
    if (!runStep(swap, step)) {
      writeOutcome(swap,
                   "The " + operationName(swap) +
                       " is not finished: it finishes the next time the app opens.",
                   false, previousKept(swap.layout));
      return StowSwapResult::stopped;
    }
  }
  ::unlinkat(swap.work(), swap.layout.swapJournal.filename().c_str(), 0);
  return swap.failures().empty() ? StowSwapResult::succeeded : StowSwapResult::failed;
}

// Starting --------------------------------------------------------------------------------------

bool partUsed(Part part, StowRestoreScope scope) {
  switch (part) {
    case kDocuments:
      return includesDocuments(scope);
    case kLibrary:
      return includesLibrary(scope) || includesSettings(scope);
    case kPreferences:
      return includesSettings(scope);
    case kParts:
      break;
  }
  return false;
}

// Opens the three parts below `root` (shown as `place`), those the scope uses; with `create`,
// making them.
void openParts(FolderOpener& opener, UniqueFd (&parts)[kParts], int root, const std::string& place,
               StowRestoreScope scope, bool create) {
  const std::string prefix = place.empty() ? "" : place + "/";
  for (Part part : {kDocuments, kLibrary}) {
    if (partUsed(part, scope)) {
      parts[part] = opener.open(root, kPartNames[part], prefix + kPartNames[part], create);
    }
  }
  if (partUsed(kPreferences, scope)) {
    parts[kPreferences] =
        opener.open(parts[kLibrary].get(), "Preferences", prefix + "Library/Preferences", create);
  }
}

// Opens the container, Library, the work folder and its trash, the live parts the scope uses
// (made when missing) and the source's. Nothing when all could be opened, else why not.
std::optional<std::string> openFolders(Swap& swap) {
  const StowLayout& layout = swap.layout;
  Folders& f = swap.folders;
  FolderOpener opener;
  f.home = files::openFolder(layout.home);
  if (!f.home) return "could not open the app's container: " + systemReason(errno);
  f.library = opener.open(f.home.get(), "Library", "Library", true);
  f.work = opener.open(f.library.get(), "CorvelStow", "Library/CorvelStow", true);
  f.trash = opener.open(f.work.get(), "Trash", "Library/CorvelStow/Trash", true);
  const std::string source = swap.restores() ? "Staged" : "Previous";
  f.sourceRoot = opener.open(f.work.get(), source, "Library/CorvelStow/" + source, false);
  f.previous = opener.open(f.work.get(), "Previous", "Library/CorvelStow/Previous", false);
  for (Part part : {kDocuments, kLibrary}) {
    if (partUsed(part, swap.scope())) {
      f.live[part] = part == kLibrary ? UniqueFd(::fcntl(f.library.get(), F_DUPFD_CLOEXEC, 0))
                                      : opener.open(f.home.get(), kPartNames[part],
                                                    kPartNames[part], true);
    }
  }
  if (partUsed(kPreferences, swap.scope())) {
    f.live[kPreferences] =
        opener.open(f.library.get(), "Preferences", "Library/Preferences", true);
  }
  openParts(opener, f.source, f.sourceRoot.get(), "Library/CorvelStow/" + source, swap.scope(),
            false);
  return opener.problem();
}

// Opens (with `create`, makes) the aside folder and its parts; nothing, or why not.
std::optional<std::string> openAside(Swap& swap, bool create) {
  Folders& f = swap.folders;
  FolderOpener opener;
  f.asideRoot = opener.open(f.work.get(), "Previous-new", "Previous-new", create);
  openParts(opener, f.aside, f.asideRoot.get(), "Previous-new", swap.scope(), create);
  return opener.problem();
}

// How much room the swap's records may need: the journal, kept.json and the outcome name at
// most every top-level entry of the parts it moves.
std::size_t roomNeeded(const Swap& swap) {
  std::size_t room = kRoomBase;
  for (const UniqueFd* parts : {swap.folders.live, swap.folders.source}) {
    for (int part = 0; part < kParts; ++part) {
      for (const auto& name : files::listNames(parts[part].get())) {
        room += 3 * name.size() + kRoomPerName;
      }
    }
  }
  return room;
}

// The names of `folder` that `other` does not hold.
std::vector<std::string> namesMissingFrom(int folder, int other) {
  std::vector<std::string> names;
  for (auto& name : files::listNames(folder)) {
    if (!files::exists(other, name)) names.push_back(std::move(name));
  }
  return names;
}

// An undo that puts back only what Previous holds leaves live everything that Previous does
// not hold: what the restore could not set aside, what an earlier undo put back, what the app
// has written since, and what the restore added; but what an earlier undo meant to set aside
// and could not (`restored`), which it sets aside now.
void keepAllButPrevious(Swap& swap, const StowKeptLive& restored = {}) {
  const Folders& f = swap.folders;
  for (Part part : {kDocuments, kLibrary}) {
    for (const auto& name : namesMissingFrom(f.live[part].get(), f.source[part].get())) {
      const std::string entry = std::string(kPartNames[part]) + "/" + name;
      if (!contains(restored.restoredEntries, entry)) swap.journal.kept.entries.push_back(entry);
    }
  }
  for (const auto& name : namesMissingFrom(f.live[kPreferences].get(), f.source[kPreferences].get())) {
    if (isPlistName(name) && !contains(restored.restoredDomains, domainOf(name))) {
      swap.journal.kept.domains.push_back(domainOf(name));
    }
  }
}

// An undo leaves live what the restore it undoes kept live, or, after an undo that could not
// put everything back, all that Previous does not hold. When that cannot be known (kept.json
// or previous.json cannot be read), it leaves live all that Previous does not hold, which
// loses nothing, and says why.
void keepLiveWhatTheRestoreKept(Swap& swap, bool recordDamaged) {
  auto kept = readRecordFile<StowKeptLive>(swap.folders.sourceRoot.get(), kKeptRecordName);
  if (recordDamaged || kept.damaged) {
    swap.failures().push_back((recordDamaged ? "previous.json" : "Previous/kept.json") +
                              std::string(" could not be read: only what Previous held was put "
                                          "back"));
    keepAllButPrevious(swap);
  } else if (kept.record && kept.record->allButPrevious) {
    keepAllButPrevious(swap, *kept.record);
  } else if (kept.record) {
    swap.journal.kept = std::move(*kept.record);
  }
}

// Why the swap cannot start, or nothing once it may: the folders it uses are no links, the
// aside folder is made afresh (a leftover of an earlier swap goes to the trash), room for its
// records is reserved, the journal is written, and an undo's request consumed. Nothing has
// moved yet; on failure the aside folder goes again.
std::optional<std::string> prepare(Swap& swap, bool recordDamaged) {
  const StowLayout& layout = swap.layout;
  if (auto problem = openFolders(swap)) return problem;
  const int work = swap.work(), trash = swap.folders.trash.get();
  if (!swap.restores()) keepLiveWhatTheRestoreKept(swap, recordDamaged);
  const std::string asideName = layout.previousNew.filename().string();
  if (files::exists(work, asideName) && !moveToTrash(work, asideName, trash)) {
    return "could not clear Previous-new: " + systemReason(errno);
  }
  std::optional<std::string> problem = openAside(swap, true);
  if (!problem && !swap.room.reserve(trash, roomNeeded(swap))) {
    problem = "could not keep room for swap.json: " + systemReason(errno);
  }
  const std::string journal = layout.swapJournal.filename().string();
  if (!problem && (!writeSwapRecord(swap, swap.journal, work, journal) ||
                   !files::syncFolder(work))) {
    problem = "could not write swap.json: " + systemReason(errno);
  }
  // An undo consumes its request once its journal stands in for it: never before, so that an
  // undo cut short is finished rather than lost; never after, so that it is never done twice.
  const std::string request = layout.undoRequest.filename().string();
  if (!problem && !swap.restores() && files::exists(work, request) &&
      !moveToTrash(work, request, trash)) {
    problem = "could not remove undo.request: " + systemReason(errno);
    ::unlinkat(work, journal.c_str(), 0);
  }
  if (problem) moveToTrash(work, asideName, trash);
  return problem;
}

StowSwapStep firstStep(StowRestoreScope scope) {
  for (StowSwapStep step : kSteps) {
    if (appliesTo(step, scope)) return step;
  }
  return StowSwapStep::finish;
}

StowSwapResult start(const StowLayout& layout, const std::string& hostBundleID, StowSwapKind kind,
                     const StowStagedRestore& record, bool recordDamaged) {
  Swap swap{layout, hostBundleID, {kind, record, firstStep(record.scope), {}, {}}};
  if (auto reason = prepare(swap, recordDamaged)) {
    writeOutcome(swap, "Nothing was moved: " + *reason, false, previousKept(layout));
    return StowSwapResult::notStarted;
  }
  return run(swap);
}

// Recovering a swap whose journal cannot be read ------------------------------------------------

// `name`, or "name (2)", "name (3)"...: the first that `folder` does not hold.
std::string freeName(int folder, const std::string& name) {
  std::string candidate = name;
  for (int n = 2; files::exists(folder, candidate); ++n) {
    candidate = name + " (" + std::to_string(n) + ")";
  }
  return candidate;
}

// Without a journal, which swap was cut short, and how far, is unknown. What Previous-new holds
// goes back where its place is free; the rest is kept in Previous (becoming it, or joining it
// under names of its own), for an undo that puts back just what Previous holds.
StowSwapResult recover(const StowLayout& layout, const std::string& hostBundleID) {
  Swap swap{layout, hostBundleID, {}};
  swap.journal.record = previousStandIn(layout);
  if (auto problem = openFolders(swap)) {
    writeOutcome(swap, "The last restore or undo was cut short and cannot go on: " + *problem,
                 false, previousKept(layout));
    return StowSwapResult::stopped;
  }
  Folders& f = swap.folders;
  openAside(swap, false);
  const std::set<std::string> untouched = [] {
    auto names = excludedLibraryNames();
    names.insert("Preferences");
    return names;
  }();
  for (Part part : {kDocuments, kLibrary}) {
    for (const auto& name : files::listNames(f.aside[part].get())) {
      if (part == kLibrary && untouched.count(name)) continue;
      files::moveNoReplace(f.aside[part].get(), name, f.live[part].get(), name);
    }
  }
  platform::PreferencesStore store = liveStore(swap);
  for (const auto& name : plistNames(f.aside[kPreferences].get())) {
    if (store.domain(domainOf(name)) || files::exists(f.live[kPreferences].get(), name)) continue;
    if (auto values = parseDomain(f.aside[kPreferences].get(), name)) {
      store.setDomain(domainOf(name), *values);
    } else {
      files::moveNoReplace(f.aside[kPreferences].get(), name, f.live[kPreferences].get(), name);
    }
  }
  store.synchronize();

  const int work = swap.work(), trash = f.trash.get();
  const bool rest = f.asideRoot && holdsData(f.asideRoot.get());
  if (rest && !f.previous) {
    files::moveNoReplace(work, "Previous-new", work, "Previous");
  } else if (rest) {
    for (Part part : {kDocuments, kLibrary, kPreferences}) {
      UniqueFd into = part == kPreferences
                          ? files::makeFolder(files::makeFolder(f.previous.get(), "Library").get(),
                                              "Preferences")
                          : files::makeFolder(f.previous.get(), kPartNames[part]);
      for (const auto& name : files::listNames(f.aside[part].get())) {
        if (part == kLibrary && name == "Preferences") continue;
        files::moveNoReplace(f.aside[part].get(), name, into.get(), freeName(into.get(), name));
      }
    }
  }
  // Previous-new goes once it holds nothing more; until then so does the journal.
  const bool unplaced = files::exists(work, "Previous-new") && f.asideRoot &&
                        holdsData(f.asideRoot.get());
  if (!unplaced) moveToTrash(work, "Previous-new", trash);
  UniqueFd previous = files::openFolder(work, "Previous");
  if (rest && previous) {
    writeSwapRecord(swap, StowKeptLive{{}, {}, true, {}, {}}, previous.get(), kKeptRecordName);
    if (!readRecord<StowStagedRestore>(layout.previousRecord)) {
      writeSwapRecord(swap, previousStandIn(layout), work, "previous.json");
    }
  }
  if (!unplaced) moveToTrash(work, layout.swapJournal.filename().string(), trash);
  writeOutcome(swap,
               "The last restore or undo was cut short and swap.json could not be read: what "
               "had a free place is back, the rest is kept for an undo.",
               false, previousKept(layout));
  return StowSwapResult::failed;
}

}  // namespace

StowSwapResult performSwap(const StowLayout& layout, const std::string& hostBundleID,
                           StowSwapKind kind, const StowStagedRestore& record) {
  try {
    return start(layout, hostBundleID, kind, record, false);
  } catch (...) {
    return StowSwapResult::stopped;  // only memory can run out here; swap.json finishes it later
  }
}

StowSwapResult performUndo(const StowLayout& layout, const std::string& hostBundleID,
                           const StowStagedRestore& record, bool recordDamaged) {
  try {
    if (!files::isFolder(layout.previous)) {
      // A record without the data it describes: an undo would only empty the app.
      Swap swap{layout, hostBundleID, {StowSwapKind::undo, record, {}, {}, {}}};
      UniqueFd work = files::openFolder(layout.workFolder);
      UniqueFd trash = files::makeFolder(work.get(), "Trash");
      moveToTrash(work.get(), layout.undoRequest.filename().string(), trash.get());
      moveToTrash(work.get(), layout.previousRecord.filename().string(), trash.get());
      writeOutcome(swap, "Nothing was put back: the data from before the restore is missing.",
                   false, false);
      return StowSwapResult::failed;
    }
    return start(layout, hostBundleID, StowSwapKind::undo, record, recordDamaged);
  } catch (...) {
    return StowSwapResult::stopped;
  }
}

StowSwapResult resumeSwap(const StowLayout& layout, const std::string& hostBundleID) {
  try {
    auto found = readRecordFile<StowSwapJournal>(layout.swapJournal);
    if (!found.record) {
      return found.damaged ? recover(layout, hostBundleID) : StowSwapResult::succeeded;
    }
    // Settings written when the swap was cut short may have left their temporary files.
    files::removeUnfinishedWrites(layout.preferences);
    files::removeUnfinishedWrites(layout.previousNew / "Library" / "Preferences");
    Swap swap{layout, hostBundleID, std::move(*found.record)};
    auto problem = openFolders(swap);
    if (!problem && swap.journal.step != StowSwapStep::finish) problem = openAside(swap, true);
    if (!problem && swap.journal.step == StowSwapStep::finish) openAside(swap, false);
    if (problem) {
      writeOutcome(swap,
                   "The " + operationName(swap) + " that was cut short cannot go on: " + *problem,
                   false, previousKept(layout));
      return StowSwapResult::stopped;
    }
    swap.room.reserve(swap.folders.trash.get(), roomNeeded(swap));
    return run(swap);
  } catch (...) {
    return StowSwapResult::stopped;
  }
}

}  // namespace corvelstow
