#pragma once

#include <string>

#include "store/layout.h"

namespace corvelstow {

/// Leaves the empty marker undo.request in the work folder, so that the next launch puts back
/// the data from before the last restore. Never throws; false when the marker was not written.
bool requestUndo(const StowLayout& layout);

/// At launch: when undo.request exists, consumes it and swaps the data kept in Previous back
/// into place, writes the outcome, and removes Previous and previous.json. Never throws.
void performPendingUndo(const StowLayout& layout, const std::string& hostBundleID);

}  // namespace corvelstow
