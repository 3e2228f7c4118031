#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

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

/// The failures of one swap, in the order they happened.
using SwapFailures = std::vector<std::string>;

/// Moves every entry of `live` not named in `excluded` into `aside`, then every entry of
/// `source` not named in `excluded` into `live`. Returns how many entries were put back.
int swapFolder(const fs::path& live, const fs::path& source, const fs::path& aside,
               const std::set<std::string>& excluded, SwapFailures& failures);

/// The outcome's message: "Restored {scope} from {app}." without failures, else the first
/// three failure texts joined by ". ".
std::string swapMessage(const StowStagedRestore& record, const SwapFailures& failures);

}  // namespace corvelstow
