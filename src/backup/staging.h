#pragma once

#include <filesystem>

#include "backup/progress.h"
#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// Unpacks the part of `archive` that `scope` selects into the Staged folder, checks it and
/// writes staged.json, for the next launch to swap in, holding the container lock throughout.
/// `threads` threads unpack at once (8 at most; 1 unpacks on the calling thread alone); the
/// result, the progress reports (on the calling thread) and the failure are the same whatever
/// their number. Throws StowRestoreError, StowZipError or StowFileError (also when another
/// operation holds the lock, or a swap cut short still needs Staged); when several entries fail,
/// the failure of the first in archive order. After a failure in unpacking or in writing
/// staged.json neither Staged nor staged.json is left.
void stageRestore(const StowLayout& layout, const std::filesystem::path& archive,
                  StowRestoreScope scope, unsigned threads, const StowProgress& progress);

}  // namespace corvelstow
