#include "store/layout.h"

#include <zlib.h>

#include <cerrno>
#include <cstdio>

#include "base/file_error.h"
#include "base/files.h"
#include "platform/platform.h"

namespace corvelstow {

namespace {

// The folder of one container's exports inside "CorvelStow Exports": the container folder's
// name, for the reader, and a hash of its real path, so that two containers sharing a temporary
// folder never touch each other's exports ("home-3fa2c1d4").
std::string exportsKey(const fs::path& home) {
  std::error_code error;
  const fs::path absolute = fs::absolute(home, error).lexically_normal();
  fs::path resolved = fs::weakly_canonical(absolute, error);
  std::string real = (error ? absolute : resolved).string();
  while (real.size() > 1 && real.back() == '/') real.pop_back();
  std::string name = fs::path(real).filename().string();
  // Kept short, and cut between characters rather than inside one.
  constexpr std::size_t kLongest = 64;
  if (name.size() > kLongest) {
    std::size_t end = kLongest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
    name.resize(end);
  }
  const auto hash =
      ::crc32(0, reinterpret_cast<const Bytef*>(real.data()), static_cast<uInt>(real.size()));
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08lx", static_cast<unsigned long>(hash));
  return name.empty() ? hex : name + "-" + hex;
}

}  // namespace

StowLayout StowLayout::forRoots(const fs::path& home, const fs::path& temporary) {
  StowLayout layout;
  layout.home = home;
  layout.documents = home / "Documents";
  layout.library = home / "Library";
  layout.preferences = layout.library / "Preferences";
  layout.workFolder = layout.library / "CorvelStow";
  layout.staged = layout.workFolder / "Staged";
  layout.stagedNew = layout.workFolder / "Staged-new";
  layout.stagedRecord = layout.workFolder / "staged.json";
  layout.previous = layout.workFolder / "Previous";
  layout.previousRecord = layout.workFolder / "previous.json";
  layout.previousNew = layout.workFolder / "Previous-new";
  layout.trash = layout.workFolder / "Trash";
  layout.swapJournal = layout.workFolder / "swap.json";
  layout.settingsRecord = layout.workFolder / "settings.json";
  layout.outcomeRecord = layout.workFolder / "outcome.json";
  layout.undoRequest = layout.workFolder / "undo.request";
  layout.lockFile = layout.workFolder / "operation.lock";
  layout.exports = temporary / "CorvelStow Exports" / exportsKey(home);
  return layout;
}

const StowLayout& StowLayout::shared() {
  static const StowLayout layout = [] {
    auto home = platform::containerFolder();
    if (!home) {
      throwFileError(ENOENT, "No app container is set: name one with --home or CORVELSTOW_HOME.");
    }
    return forRoots(*home, platform::temporaryFolder());
  }();
  return layout;
}

bool makeWorkFolder(const StowLayout& layout) {
  if (files::isFolder(layout.workFolder)) return true;
  if (!files::createFolders(layout.workFolder)) return false;
  platform::excludeFromBackup(layout.workFolder);
  return true;
}

const std::set<std::string>& excludedLibraryNames() {
  static const std::set<std::string> names{"CorvelStow", "SplashBoard", "Saved Application State"};
  return names;
}

}  // namespace corvelstow
