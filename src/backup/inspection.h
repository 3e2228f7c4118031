#pragma once

#include <filesystem>

#include "archive/zip_reader.h"
#include "backup/restore_error.h"
#include "store/records.h"

namespace corvelstow {

/// The manifest of a backup, read without unpacking anything else. Throws the reader's
/// StowZipError (or StowFileError) for a file that is not an archive, and
/// StowRestoreError::noManifest when it has no "manifest.json" or that entry cannot be
/// unpacked or decoded.
StowManifest readManifest(const std::filesystem::path& archive);

/// The first "manifest.json" of an open archive, decoded; the same failures as readManifest.
StowManifest readManifest(StowZipReader& reader);

}  // namespace corvelstow
