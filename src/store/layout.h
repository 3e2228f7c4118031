#pragma once

#include <filesystem>
#include <set>
#include <string>

namespace corvelstow {

namespace fs = std::filesystem;

/// Every well-known location, derived from the app container (home) and the temporary folder.
/// A plain value, so tests build one on a temporary folder; `shared()` is the process's own.
struct StowLayout {
  fs::path home;
  fs::path documents;       ///< home/Documents
  fs::path library;         ///< home/Library
  fs::path preferences;     ///< Library/Preferences
  fs::path workFolder;      ///< Library/CorvelStow
  fs::path staged;          ///< work folder/Staged
  fs::path stagedNew;       ///< work folder/Staged-new, a staging being built beside Staged
  fs::path stagedRecord;    ///< work folder/staged.json
  fs::path previous;        ///< work folder/Previous
  fs::path previousRecord;  ///< work folder/previous.json
  fs::path previousNew;     ///< work folder/Previous-new, the aside folder of a swap
  fs::path trash;           ///< work folder/Trash: what the launch discards, emptied later
  fs::path swapJournal;     ///< work folder/swap.json, the journal of a swap under way
  fs::path settingsRecord;  ///< work folder/settings.json
  fs::path outcomeRecord;   ///< work folder/outcome.json
  fs::path undoRequest;     ///< work folder/undo.request
  fs::path lockFile;        ///< work folder/operation.lock, see StowContainerLock
  fs::path exports;         ///< temporary folder/CorvelStow Exports/{container}-{hash}: this
                            ///< container's own, named for its folder and a hash of its real path

  /// The layout of the container `home` with the temporary folder `temporary`.
  static StowLayout forRoots(const fs::path& home, const fs::path& temporary);

  /// The process-wide layout, built from the platform's roots on first use and never rebuilt.
  /// Throws StowFileError when the platform names no app container.
  static const StowLayout& shared();
};

/// Creates the work folder, with every missing parent, and when it is new marks it excluded from
/// the user's iCloud and computer backups: it holds copies of the app's data (Previous, Staged).
/// False, with errno set, when it is not there afterwards.
bool makeWorkFolder(const StowLayout& layout);

/// Top-level names of Library that no backup, survey or restore touches:
/// the work folder and two folders the system maintains.
const std::set<std::string>& excludedLibraryNames();

}  // namespace corvelstow
