#include "store/layout.h"

#include <cerrno>

#include "base/file_error.h"
#include "platform/platform.h"

namespace corvelstow {

StowLayout StowLayout::forRoots(const fs::path& home, const fs::path& temporary) {
  StowLayout layout;
  layout.home = home;
  layout.documents = home / "Documents";
  layout.library = home / "Library";
  layout.preferences = layout.library / "Preferences";
  layout.workFolder = layout.library / "CorvelStow";
  layout.staged = layout.workFolder / "Staged";
  layout.stagedRecord = layout.workFolder / "staged.json";
  layout.previous = layout.workFolder / "Previous";
  layout.previousRecord = layout.workFolder / "previous.json";
  layout.previousNew = layout.workFolder / "Previous-new";
  layout.previousOld = layout.workFolder / "Previous-old";
  layout.swapJournal = layout.workFolder / "swap.json";
  layout.settingsRecord = layout.workFolder / "settings.json";
  layout.outcomeRecord = layout.workFolder / "outcome.json";
  layout.undoRequest = layout.workFolder / "undo.request";
  layout.lockFile = layout.workFolder / "operation.lock";
  layout.exports = temporary / "CorvelStow Exports";
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

const std::set<std::string>& excludedLibraryNames() {
  static const std::set<std::string> names{"CorvelStow", "SplashBoard", "Saved Application State"};
  return names;
}

}  // namespace corvelstow
