#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

// Routine file maintenance: none of these throws; each reports failure by its result.
namespace corvelstow::files {

namespace fs = std::filesystem;

/// The whole file as bytes, or nothing when it cannot be read (absent, a folder, unreadable).
std::optional<std::string> readWhole(const fs::path& path);

/// The same for the file `name` of the open folder `folder`.
std::optional<std::string> readWhole(int folder, const std::string& name);

/// Writes `bytes` to a temporary file beside `path`, syncs it and renames it over `path`,
/// creating the parent folder first. False, with errno set, when any step failed; an older file
/// is left intact. The temporary file's name never exceeds the file system's limit on names.
bool writeAtomically(const fs::path& path, std::string_view bytes);

/// The same for the file `name` of the open folder `folder`.
bool writeAtomically(int folder, const std::string& name, std::string_view bytes);

/// Removes the temporary files that writeAtomically leaves in `folder` when its process is
/// killed mid-write.
void removeUnfinishedWrites(const fs::path& folder);

/// Renames `from` to `to` unless something already stands at `to`: a move that never replaces.
/// False, with errno set (EEXIST when `to` exists), when the move did not happen.
bool moveNoReplace(const fs::path& from, const fs::path& to);

/// The same between two open folders: the entry `from` of `fromFolder` becomes `to` of
/// `toFolder`. Links standing where the folders were opened are never crossed.
bool moveNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to);

/// Opens the folder `name` of the open folder `parent` without following a link in its place:
/// none, with errno set (ELOOP for a link, ENOTDIR for anything else that is no folder, ENOENT),
/// when it cannot.
UniqueFd openFolder(int parent, const std::string& name);

/// Opens the folder at `path`, following links on the way (the roots the platform names).
UniqueFd openFolder(const fs::path& path);

/// Creates the folder `name` in `parent` (mode 0755; one that exists is no failure) and opens
/// it as openFolder does.
UniqueFd makeFolder(int parent, const std::string& name);

/// Makes the file's contents durable: on Apple platforms F_FULLFSYNC, which also empties the
/// drive's cache (fsync where the file system refuses it); elsewhere fsync.
bool syncFile(int fd);

/// Makes the entries of an open folder (names created, renamed or removed in it) durable, as
/// syncFile does for a file.
bool syncFolder(int folder);

/// Hands what was written to `fd` to the storage without waiting, ahead of a syncVolume: on
/// Apple platforms fsync, since F_FULLFSYNC there flushes the drive but no file's own data.
void startSync(int fd);

/// Makes everything written on the volume that holds `folder` durable at once: syncfs on Linux,
/// F_FULLFSYNC on Apple platforms (after startSync of each file).
bool syncVolume(int folder);

/// Writes all of `bytes` to the open descriptor `fd`, however many writes it takes. False, with
/// errno set, when a write fails.
bool writeAll(int fd, std::string_view bytes);

/// Creates `path` and every missing parent with mode 0755; an existing folder is no failure.
bool createFolders(const fs::path& path);

/// Removes `path` and everything below it; an absent path is no failure.
void removeAll(const fs::path& path);

/// Whether anything (a file, folder or link) stands at `path`.
bool exists(const fs::path& path);

/// Whether anything stands at `name` in the open folder `folder`.
bool exists(int folder, const std::string& name);

/// Whether `path` itself is a symbolic link.
bool isLink(const fs::path& path);

/// Whether the entry `name` of the open folder `folder` is a symbolic link.
bool isLink(int folder, const std::string& name);

/// Whether `path` is a folder (following links).
bool isFolder(const fs::path& path);

/// The names in a folder, without "." and "..", in the order the directory yields them.
/// A missing or unreadable folder lists as empty.
std::vector<std::string> listNames(const fs::path& folder);

/// The same for an open folder (-1 lists as empty).
std::vector<std::string> listNames(int folder);

/// Removes everything below the open folder `folder`, and the folder's own entries, without
/// following links; what cannot be removed is left. Never throws.
void removeContents(int folder);

/// `folder` + "/" + `name`, joined as text: no second slash when `folder` ends in one.
fs::path join(const fs::path& folder, std::string_view name);

}  // namespace corvelstow::files
