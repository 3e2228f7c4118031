#include "startup/undo.h"

#include <unistd.h>

#include "base/file_error.h"
#include "base/files.h"
#include "startup/startup.h"
#include "store/container_lock.h"
#include "store/trash.h"

namespace corvelstow {

// The request is made from the panel, on the main thread: it does not wait long.
constexpr auto kRequestPatience = std::chrono::milliseconds(500);

void requestUndo(const StowLayout& layout) {
  StowContainerLock lock = StowContainerLock::acquire(layout, kRequestPatience);
  if (!files::writeAtomically(layout.undoRequest, "")) {
    throwFileError("create", layout.undoRequest);
  }
}

StowSwapResult performPendingUndo(const StowLayout& layout, const std::string& hostBundleID) {
  if (!files::exists(layout.undoRequest)) return StowSwapResult::succeeded;
  auto found = readRecordFile<StowStagedRestore>(layout.previousRecord);
  if (!found.record && !found.damaged) {
    // Nothing to undo: the marker alone is consumed.
    UniqueFd work = files::openFolder(layout.workFolder);
    UniqueFd trash = files::makeFolder(work.get(), layout.trash.filename().string());
    moveToTrash(work.get(), layout.undoRequest.filename().string(), trash.get());
    return StowSwapResult::succeeded;
  }
  // The swap consumes the marker once its journal is written, so that an undo cut short is
  // finished rather than lost, and one that could not start is tried again.
  return performUndo(layout, hostBundleID, found.record.value_or(previousStandIn(layout)),
                     found.damaged);
}

}  // namespace corvelstow
