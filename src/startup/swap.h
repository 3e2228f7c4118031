#pragma once

#include <filesystem>
#include <string>

#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// Swaps the data in `source` (Staged for a restore, Previous for an undo) into the live
/// container, for the record's scope: each live top-level entry is renamed into the aside
/// folder, then each source entry is renamed into place; settings go through the preferences
/// store, with the source app's domain renamed to `hostBundleID`. With `retain`, what was
/// replaced becomes Previous (described by previous.json); without, it is discarded.
/// Never throws: failed moves are reported in the outcome's message.
StowOutcome performSwap(const StowLayout& layout, const std::string& hostBundleID,
                        const StowStagedRestore& record, const fs::path& source, bool retain);

}  // namespace corvelstow
