#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Routine file maintenance: none of these throws; each reports failure by its result.
namespace corvelstow::files {

namespace fs = std::filesystem;

/// The whole file as bytes, or nothing when it cannot be read (absent, a folder, unreadable).
std::optional<std::string> readWhole(const fs::path& path);

/// Writes `bytes` to a temporary file beside `path`, flushes it and renames it over `path`,
/// creating the parent folder first. False, with errno set, when any step failed; an older file
/// is left intact.
bool writeAtomically(const fs::path& path, std::string_view bytes);

/// Removes the temporary files that writeAtomically leaves in `folder` when its process is
/// killed mid-write.
void removeUnfinishedWrites(const fs::path& folder);

/// Renames `from` to `to` unless something already stands at `to`: a move that never replaces.
/// False, with errno set (EEXIST when `to` exists), when the move did not happen.
bool moveNoReplace(const fs::path& from, const fs::path& to);

/// Writes all of `bytes` to the open descriptor `fd`, however many writes it takes. False, with
/// errno set, when a write fails.
bool writeAll(int fd, std::string_view bytes);

/// Creates `path` and every missing parent with mode 0755; an existing folder is no failure.
bool createFolders(const fs::path& path);

/// Removes `path` and everything below it; an absent path is no failure.
void removeAll(const fs::path& path);

/// Whether anything (a file, folder or link) stands at `path`.
bool exists(const fs::path& path);

/// Whether `path` itself is a symbolic link.
bool isLink(const fs::path& path);

/// Whether `path` is a folder (following links).
bool isFolder(const fs::path& path);

/// The names in a folder, without "." and "..", in the order the directory yields them.
/// A missing or unreadable folder lists as empty.
std::vector<std::string> listNames(const fs::path& folder);

/// `folder` + "/" + `name`, joined as text: no second slash when `folder` ends in one.
fs::path join(const fs::path& folder, std::string_view name);

}  // namespace corvelstow::files
