#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "backup/progress.h"
#include "base/dates.h"
#include "store/host_app.h"
#include "store/layout.h"

namespace corvelstow {

/// The file name extension of a backup, without its dot.
inline constexpr std::string_view kBackupExtension = "corvelappdata";

/// Writes the container's Documents and Library (Library/Caches only with `includeCaches`)
/// into a new ".corvelappdata" archive in the container's exports folder, which then holds it
/// alone, and stamps lastBackupAt in the settings once the archive is finished. The manifest
/// names the device `deviceName` (platform::deviceName, read on the main queue). Files are
/// compressed by `threads` threads (platform::processorCount, or 1 to compress on the calling
/// thread alone); the archive is the same whatever their number. Progress is reported on the
/// calling thread, as files are written. Returns the archive. No link is followed. Holds the
/// container's lock throughout. Throws StowZipError or StowFileError: the lock's busy sentence
/// while another operation holds it, a sentence naming a folder that cannot be opened (other
/// than for permission, which leaves it out) or a file replaced while the backup ran. A failed
/// or interrupted backup leaves the previous export, nothing under the new archive's name, and
/// the settings as they were.
fs::path backUp(const StowLayout& layout, const StowHostApp& app, const std::string& deviceName,
                bool includeCaches, unsigned threads, const StowProgress& progress);

/// "{app name without /\:?%*|"<> and outer spaces, or App} yyyy-MM-dd HHmm.corvelappdata",
/// the date in the device's time zone.
std::string exportFileName(std::string_view appName, StowDate createdAt);

}  // namespace corvelstow
