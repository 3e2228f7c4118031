#include "startup/startup.h"

#include <unistd.h>

#include <cerrno>

#include "base/file_error.h"
#include "base/files.h"
#include "platform/platform.h"
#include "startup/swap.h"
#include "startup/undo.h"
#include "store/container_lock.h"
#include "store/host_app.h"
#include "store/trash.h"

namespace corvelstow {

namespace {

// How long a launch waits for another operation on the same data (a second launch, the
// command) before it leaves its work to the next launch.
constexpr auto kLaunchPatience = std::chrono::milliseconds(500);
// Tidying waits less: it is done again later.
constexpr auto kTidyPatience = std::chrono::milliseconds(100);

constexpr const char* kSwapUnfinishedText =
    "The last restore or undo has not finished yet: it finishes the next time the app opens.";

bool hasLaunchTimeWork(const StowLayout& layout) {
  return files::exists(layout.swapJournal) || files::exists(layout.undoRequest) ||
         files::exists(layout.stagedRecord);
}

bool dataLocked(const StowLayout& layout) {
  return platform::dataLocked(layout.swapJournal) || platform::dataLocked(layout.undoRequest) ||
         platform::dataLocked(layout.stagedRecord);
}

// Whether work folder/`name` is worth a tidy: something of ours that waits to be removed.
bool needsTidying(const StowLayout& layout) {
  return files::exists(layout.trash) || files::exists(layout.stagedNew) ||
         (files::exists(layout.staged) && !files::exists(layout.stagedRecord));
}

void trashInWorkFolder(const StowLayout& layout, const fs::path& path) {
  UniqueFd work = files::openFolder(layout.workFolder);
  UniqueFd trash = files::makeFolder(work.get(), layout.trash.filename().string());
  moveToTrash(work.get(), path.filename().string(), trash.get());
}

// The staging and its record go to the trash, record first.
void trashStaging(const StowLayout& layout) {
  trashInWorkFolder(layout, layout.stagedRecord);
  trashInWorkFolder(layout, layout.staged);
}

bool hasUnannounced(const StowLayout& layout, const std::string& message) {
  auto outcome = readRecord<StowOutcome>(layout.outcomeRecord);
  return outcome && (!outcome->announced || outcome->message == message);
}

// A staging that cannot be applied is cleared, and the outcome says why, unless an outcome not
// yet announced would be lost by it.
StowSwapResult refuseStaging(const StowLayout& layout, StowStagedRestore record,
                             const std::string& message) {
  trashStaging(layout);
  StowOutcome outcome;
  outcome.message = message;
  outcome.sourceName = record.manifest.appName;
  outcome.sourceDate = record.manifest.createdAt;
  outcome.appliedAt = currentDate();
  outcome.canUndo = readPreviousRestore(layout).has_value();
  writeRecord(outcome, layout.outcomeRecord);
  return StowSwapResult::failed;
}

// The staged restore, when there is one that may be applied now.
StowSwapResult applyStagedRestore(const StowLayout& layout, const std::string& hostBundleID) {
  settleStaging(layout);
  auto staged = readRecordFile<StowStagedRestore>(layout.stagedRecord);
  if (staged.damaged) {
    StowStagedRestore unknown;
    unknown.manifest.appName = "The waiting restore";
    unknown.manifest.createdAt = currentDate();
    return refuseStaging(layout, unknown,
                         "The restore that was waiting could not be read (staged.json): prepare "
                         "it again.");
  }
  if (!staged.record) return StowSwapResult::succeeded;
  const StowStagedRestore& record = *staged.record;
  auto previous = readRecord<StowStagedRestore>(layout.previousRecord);
  if (record.token && previous && previous->token == record.token) {
    trashStaging(layout);  // applied already: its finish could not clear it
    return StowSwapResult::succeeded;
  }
  if (!stagingInPlace(layout, record)) {
    return refuseStaging(layout, record,
                         "The restore that was waiting is missing its files: prepare it again.");
  }
  if (undoUnfinished(layout)) {
    const std::string message =
        "The restore that was waiting was not applied: the last undo could not put everything "
        "back. Undo again first.";
    if (!hasUnannounced(layout, message)) {
      writeRecord(StowOutcome{false, message, record.manifest.appName, record.manifest.createdAt,
                              currentDate(), true, false},
                  layout.outcomeRecord);
    }
    return StowSwapResult::notStarted;
  }
  return performSwap(layout, hostBundleID, StowSwapKind::restore, record);
}

}  // namespace

void settleStaging(const StowLayout& layout) {
  auto record = readRecord<StowStagedRestore>(layout.stagedRecord);
  if (!record || !record->token) return;
  const std::string marker = stagingMarker(*record->token);
  if (files::exists(layout.staged / marker) || !files::exists(layout.stagedNew / marker)) return;
  UniqueFd work = files::openFolder(layout.workFolder);
  if (files::exists(layout.staged)) {
    UniqueFd trash = files::makeFolder(work.get(), layout.trash.filename().string());
    if (!moveToTrash(work.get(), layout.staged.filename().string(), trash.get())) return;
  }
  if (files::moveNoReplace(work.get(), layout.stagedNew.filename().string(), work.get(),
                           layout.staged.filename().string())) {
    files::syncFolder(work.get());
  }
}

bool stagingInPlace(const StowLayout& layout, const StowStagedRestore& record) {
  if (!record.token) return files::isFolder(layout.staged) && !files::isLink(layout.staged);
  return files::exists(layout.staged / stagingMarker(*record.token));
}

void refuseWhileSwapUnfinished(const StowLayout& layout) {
  if (files::exists(layout.swapJournal)) throwFileError(EBUSY, kSwapUnfinishedText);
}

bool undoUnfinished(const StowLayout& layout) {
  auto kept = readRecord<StowKeptLive>(layout.previous / "kept.json");
  return kept && kept->allButPrevious;
}

void runLaunchTimeWork(const StowLayout& layout) {
  // Nothing to do is the common case: three lookups, and no file is made.
  if (!hasLaunchTimeWork(layout)) return;
  // Loaded before the device's first unlock (prewarmed), the app cannot read its files yet:
  // what waits is left for a launch that can.
  if (dataLocked(layout)) return;
  auto lock = StowContainerLock::tryAcquire(layout, kLaunchPatience);
  if (!lock) return;
  files::removeUnfinishedWrites(layout.workFolder);  // records whose writer was killed
  // Read only now: the bundle's property list and profile cost more than the lookups above.
  const std::string& hostBundleID = StowHostApp::shared().bundleID;

  // A swap cut short is finished first: it began before anything else that is waiting.
  if (files::exists(layout.swapJournal) &&
      resumeSwap(layout, hostBundleID) != StowSwapResult::succeeded) {
    return;
  }
  // The undo comes next: with both pending, the older data is put back and the newly staged
  // restore is then applied on top of it.
  if (performPendingUndo(layout, hostBundleID) != StowSwapResult::succeeded) return;
  applyStagedRestore(layout, hostBundleID);
}

void tidyWorkFolder(const StowLayout& layout) {
  try {
    if (!needsTidying(layout)) return;
    if (auto lock = StowContainerLock::tryAcquire(layout, kTidyPatience)) {
      settleStaging(layout);
      auto staged = readRecordFile<StowStagedRestore>(layout.stagedRecord);
      if (staged.damaged) trashStaging(layout);
      if (files::exists(layout.staged) && !(staged.record && stagingInPlace(layout, *staged.record))) {
        trashInWorkFolder(layout, layout.staged);
      }
      if (files::exists(layout.stagedNew)) trashInWorkFolder(layout, layout.stagedNew);
    }
    emptyTrash(layout);
  } catch (...) {
  }
}

void corvelStowStart() {
  try {
    // Without a container the library does nothing at all, so that one loaded by accident
    // never touches anybody's files.
    if (platform::containerFolder()) {
      const StowLayout& layout = StowLayout::shared();
      runLaunchTimeWork(layout);
      if (needsTidying(layout)) platform::afterLaunch([&layout] { tidyWorkFolder(layout); });
    }
  } catch (...) {
    // Nothing may stop the host app from starting.
  }
  try {
    platform::finishStartup();
  } catch (...) {
  }
}

}  // namespace corvelstow
