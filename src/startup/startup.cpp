#include "startup/startup.h"

#include <unistd.h>

#include "base/files.h"
#include "platform/platform.h"
#include "startup/swap.h"
#include "startup/undo.h"
#include "store/container_lock.h"
#include "store/host_app.h"

namespace corvelstow {

namespace {

// How long a launch waits for another operation on the same data (a second launch, the
// command) before it leaves its work to the next launch.
constexpr auto kLaunchPatience = std::chrono::milliseconds(500);

bool hasLaunchTimeWork(const StowLayout& layout) {
  return files::exists(layout.swapJournal) || files::exists(layout.undoRequest) ||
         files::exists(layout.stagedRecord);
}

bool dataLocked(const StowLayout& layout) {
  return platform::dataLocked(layout.swapJournal) || platform::dataLocked(layout.undoRequest) ||
         platform::dataLocked(layout.stagedRecord);
}

}  // namespace

// The record goes first: a staging cut short while it is cleared is then no staging at all,
// never a record over half a folder.
void clearStaging(const StowLayout& layout) {
  ::unlink(layout.stagedRecord.c_str());
  files::removeAll(layout.staged);
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
  if (files::exists(layout.swapJournal) && !resumeSwap(layout, hostBundleID)) return;
  // The undo comes next: with both pending, the older data is put back and the newly staged
  // restore is then applied on top of it.
  if (!performPendingUndo(layout, hostBundleID)) return;
  if (auto staged = readRecord<StowStagedRestore>(layout.stagedRecord)) {
    performSwap(layout, hostBundleID, StowSwapKind::restore, *staged);
  }
}

void corvelStowStart() {
  try {
    // Without a container the library does nothing at all, so that one loaded by accident
    // never touches anybody's files.
    if (platform::containerFolder()) {
      runLaunchTimeWork(StowLayout::shared());
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
