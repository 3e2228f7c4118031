#include "store/trash.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/files.h"
#include "store/records.h"

namespace corvelstow {

bool moveToTrash(int folder, const std::string& name, int trash) {
  for (int attempt = 0; attempt < 10; ++attempt) {
    // A fresh prefix, and as much of the name as fits, so that the trash tells what it holds.
    std::string unique = newStagingToken().substr(0, 12) + "-" + name;
    size_t end = std::min<size_t>(unique.size(), NAME_MAX);
    while (end < unique.size() && (static_cast<unsigned char>(unique[end]) & 0xC0) == 0x80) --end;
    unique.resize(end);  // cut between characters
    if (files::moveNoReplace(folder, name, trash, unique)) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

void emptyTrash(const StowLayout& layout) {
  try {
    UniqueFd trash = files::openFolder(files::openFolder(layout.workFolder).get(), "Trash");
    if (trash) files::removeContents(trash.get());
  } catch (...) {
  }
}

}  // namespace corvelstow
