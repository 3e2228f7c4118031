#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "store/layout.h"

namespace corvelstow {

/// How much data a backup would hold.
struct StowUsage {
  std::int64_t documentsBytes = 0;  ///< files under Documents
  std::int64_t libraryBytes = 0;    ///< files under Library, without caches and system folders
  std::int64_t cachesBytes = 0;     ///< files under Library/Caches
  std::int64_t files = 0;           ///< files counted in Documents and Library (not caches)

  bool operator==(const StowUsage&) const = default;
};

/// Bytes and files below one folder.
struct StowFolderSize {
  std::int64_t bytes = 0;
  std::int64_t files = 0;
};

/// Measures Documents, Library and the caches of the container. Never fails: what cannot be
/// read counts as nothing.
StowUsage surveyUsage(const StowLayout& layout);

/// The logical size and number of files below the folder `relative` of the container `home`
/// ("Documents", "Library/Caches"), passing over the top-level names in `excluded`. At the top
/// level every non-folder counts as a file (links included); below it, only regular files count.
/// No link is followed, the folder itself included; what cannot be read counts as nothing.
StowFolderSize measureFolder(const fs::path& home, const std::string& relative,
                             const std::set<std::string>& excluded);

}  // namespace corvelstow
