#pragma once

#include <filesystem>

#include "backup/progress.h"
#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// Unpacks the part of `archive` that `scope` selects into the Staged folder, checks it and
/// writes staged.json, for the next launch to swap in, holding the container lock throughout.
/// Up to `threads` threads unpack at once (0: one for each core; 8 at most); the result, the
/// progress reports (from the calling thread) and the failure are the same on any number.
/// Throws StowRestoreError, StowZipError or StowFileError (also when another operation holds
/// the lock, or a swap cut short still needs Staged): when several entries fail, the failure
/// of the first in archive order. After a failure in unpacking or in writing staged.json
/// neither Staged nor staged.json is left.
void stageRestore(const StowLayout& layout, const std::filesystem::path& archive,
                  StowRestoreScope scope, const StowProgress& progress, unsigned threads = 0);

}  // namespace corvelstow
