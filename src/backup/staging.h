#pragma once

#include <filesystem>

#include "backup/progress.h"
#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// Unpacks the part of `archive` that `scope` selects into the Staged folder, checks it and
/// writes staged.json, for the next launch to swap in. Throws StowRestoreError, StowZipError or
/// StowFileError; after a failure in unpacking neither Staged nor staged.json is left.
void stageRestore(const StowLayout& layout, const std::filesystem::path& archive,
                  StowRestoreScope scope, const StowProgress& progress);

}  // namespace corvelstow
