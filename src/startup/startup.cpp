#include "startup/startup.h"

#include <unistd.h>

#include "base/files.h"
#include "platform/platform.h"
#include "startup/swap.h"
#include "startup/undo.h"
#include "store/host_app.h"

namespace corvelstow {

void clearStaging(const StowLayout& layout) {
  files::removeAll(layout.staged);
  ::unlink(layout.stagedRecord.c_str());
}

void runLaunchTimeWork(const StowLayout& layout, const std::string& hostBundleID) {
  // Loaded before the device's first unlock (prewarmed), the app cannot read its files yet:
  // what waits is left for a launch that can.
  if (platform::dataLocked(layout.undoRequest) || platform::dataLocked(layout.stagedRecord)) return;
  // The undo comes first: with both pending, the older data is put back and the newly staged
  // restore is then applied on top of it.
  performPendingUndo(layout, hostBundleID);

  auto staged = readRecord<StowStagedRestore>(layout.stagedRecord);
  if (!staged) return;
  StowOutcome outcome = performSwap(layout, hostBundleID, *staged, layout.staged, true);
  writeRecord(outcome, layout.outcomeRecord);
  // Whatever the outcome, a restore is not retried at the next launch.
  clearStaging(layout);
}

void corvelStowStart() {
  try {
    // Without a container the library does nothing at all, so that one loaded by accident
    // never touches anybody's files.
    if (platform::containerFolder()) {
      runLaunchTimeWork(StowLayout::shared(), StowHostApp::shared().bundleID);
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
