#include "startup/undo.h"

#include <unistd.h>

#include "base/file_error.h"
#include "base/files.h"
#include "startup/swap.h"
#include "store/container_lock.h"

namespace corvelstow {

// The request is made from the panel, on the main thread: it does not wait long.
constexpr auto kRequestPatience = std::chrono::milliseconds(500);

void requestUndo(const StowLayout& layout) {
  StowContainerLock lock = StowContainerLock::acquire(layout, kRequestPatience);
  if (!files::writeAtomically(layout.undoRequest, "")) {
    throwFileError("create", layout.undoRequest);
  }
}

bool performPendingUndo(const StowLayout& layout, const std::string& hostBundleID) {
  if (!files::exists(layout.undoRequest)) return true;
  auto record = readRecord<StowStagedRestore>(layout.previousRecord);
  if (!record) {
    ::unlink(layout.undoRequest.c_str());
    return true;
  }
  // The swap consumes the marker once its journal is written, so that an undo cut short is
  // finished rather than lost, and one that could not start is tried again.
  return performSwap(layout, hostBundleID, StowSwapKind::undo, *record);
}

}  // namespace corvelstow
