#include "startup/undo.h"

#include <unistd.h>

#include "base/files.h"
#include "startup/swap.h"

namespace corvelstow {

bool requestUndo(const StowLayout& layout) {
  return files::writeAtomically(layout.undoRequest, "");  // creates the work folder first
}

void performPendingUndo(const StowLayout& layout, const std::string& hostBundleID) {
  if (!files::exists(layout.undoRequest)) return;
  // The marker goes first, so that an undo that fails is never retried.
  ::unlink(layout.undoRequest.c_str());
  auto record = readRecord<StowStagedRestore>(layout.previousRecord);
  if (!record) return;

  StowOutcome outcome = performSwap(layout, hostBundleID, *record, layout.previous, false);
  if (outcome.succeeded) outcome.message = "Put back the data from before the restore.";
  outcome.canUndo = false;
  writeRecord(outcome, layout.outcomeRecord);

  files::removeAll(layout.previous);
  ::unlink(layout.previousRecord.c_str());
}

}  // namespace corvelstow
