#pragma once

// An .ipa: a ZIP archive holding the app bundle under Payload/. Unpacked into a folder to be
// changed there, then packed again in the same order, each file keeping its permissions.

#include <filesystem>
#include <string>
#include <vector>

namespace corvelstow::inject {

namespace fs = std::filesystem;

/// An .ipa unpacked into a folder.
struct UnpackedApp {
  std::vector<std::string> entries;  ///< the archive's entry names in order; folders end in "/"
  std::string app;                   ///< the bundle's path, "Payload/{name}.app"
};

/// Unpacks every entry of `ipa` below `folder`, files with their Unix permissions (0644 when the
/// archive gives none), each checked against its CRC. Throws StowZipError for an archive that is
/// damaged or holds an unsafe path, and a one-sentence error for a symbolic link (which is not
/// carried over) or when Payload/ holds not exactly one .app folder.
UnpackedApp unpackApp(const fs::path& ipa, const fs::path& folder);

/// Packs `entries` (names below `folder`, folders ending in "/") into a new archive at
/// `destination`, files deflated with their permissions. Throws StowZipError or StowFileError.
void packApp(const fs::path& folder, const std::vector<std::string>& entries,
             const fs::path& destination);

}  // namespace corvelstow::inject
