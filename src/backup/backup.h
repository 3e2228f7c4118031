#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "backup/progress.h"
#include "base/dates.h"
#include "store/host_app.h"
#include "store/layout.h"

namespace corvelstow {

/// The file name extension of a backup, without its dot.
inline constexpr std::string_view kBackupExtension = "corvelappdata";

/// What a backup made.
struct StowBackupResult {
  fs::path archive;
  /// The files that could not be archived, relative to the container ("Documents/a.txt"), in the
  /// order of the walk: gone or replaced (by a link or anything but a file) between the walk and
  /// their turn, as the app, running meanwhile, removed or renamed them or their folder.
  std::vector<std::string> leftOut;
};

/// Writes the container's Documents and Library (Library/Caches only with `includeCaches`)
/// into a new ".corvelappdata" archive in the container's exports folder, which then holds it
/// alone, and stamps lastBackupAt in the settings once the archive is finished. The manifest
/// names the device `deviceName` (platform::deviceName, read on the main queue) and counts the
/// files archived, as they were read: a file is read up to the size it had when it was opened,
/// and one gone or replaced by then is left out. Files are compressed by `threads` threads
/// (platform::processorCount, or 1 to compress on the calling thread alone); the archive is the
/// same whatever their number. Progress is reported on the calling thread, as files are written.
/// No link is followed. Holds the container's lock throughout. Throws StowZipError or
/// StowFileError: the lock's busy sentence while another operation holds it, a sentence naming
/// a folder or file that cannot be opened or read (other than for being gone), or a path too
/// long for the archive (before anything is written). A failed or interrupted backup leaves the
/// previous export, nothing under the new archive's name, and the settings as they were.
StowBackupResult backUp(const StowLayout& layout, const StowHostApp& app,
                        const std::string& deviceName, bool includeCaches, unsigned threads,
                        const StowProgress& progress);

/// "{app name without /\:?%*|"<> and outer spaces, or App} yyyy-MM-dd HHmm.corvelappdata",
/// the date in the device's time zone.
std::string exportFileName(std::string_view appName, StowDate createdAt);

}  // namespace corvelstow
