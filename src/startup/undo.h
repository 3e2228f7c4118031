#pragma once

#include <string>

#include "startup/swap.h"
#include "store/layout.h"

namespace corvelstow {

/// Leaves the empty marker undo.request in the work folder, so that the next launch puts back
/// the data from before the last restore. Holds the container lock while it writes. Throws
/// StowFileError when another operation holds the lock or the marker cannot be written.
void requestUndo(const StowLayout& layout);

/// At launch: when undo.request exists and previous.json describes Previous, swaps the data
/// kept in Previous back into place, writes the outcome, and moves Previous and previous.json
/// to the trash (a marker without previous.json is only removed). A previous.json that cannot
/// be read is stood in for (previousStandIn): only what Previous holds is put back. Gives how
/// the undo ended; succeeded also when there was nothing to undo. Never throws.
StowSwapResult performPendingUndo(const StowLayout& layout, const std::string& hostBundleID);

}  // namespace corvelstow
