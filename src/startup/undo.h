#pragma once

#include <string>

#include "store/layout.h"

namespace corvelstow {

/// Leaves the empty marker undo.request in the work folder, so that the next launch puts back
/// the data from before the last restore. Holds the container lock while it writes. Throws
/// StowFileError when another operation holds the lock or the marker cannot be written.
void requestUndo(const StowLayout& layout);

/// At launch: when undo.request exists and previous.json describes Previous, swaps the data
/// kept in Previous back into place, writes the outcome, and removes Previous and
/// previous.json (a marker without previous.json is only removed). Returns false when the undo
/// did not start or had to stop, so that a restore staged after it waits too. Never throws.
bool performPendingUndo(const StowLayout& layout, const std::string& hostBundleID);

}  // namespace corvelstow
