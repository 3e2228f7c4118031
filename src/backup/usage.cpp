#include "backup/usage.h"

#include "backup/tree_walk.h"
#include "base/checked.h"
#include "base/file_error.h"

namespace corvelstow {

StowFolderSize measureFolder(const fs::path& home, const std::string& relative,
                             const std::set<std::string>& excluded) {
  StowFolderSize total;
  auto count = [&](std::int64_t size) {
    total.bytes = checkedAdd(total.bytes, size);
    total.files = checkedAdd(total.files, std::int64_t{1});
  };
  FolderChain chain(home);
  if (!chain.moveTo(relative)) return total;
  std::vector<TreeEntry> children;
  try {
    children = listFolder(chain, relative);
  } catch (const StowFileError&) {
  }
  for (const TreeEntry& child : children) {
    if (excluded.count(child.name)) continue;
    if (child.kind != TreeEntry::Kind::folder) {
      // At the top level anything that is not a folder counts, links and unknowns included.
      count(child.size);
      continue;
    }
    // The survey never fails: a folder that cannot be read counts as empty.
    walkTree(
        chain, child.name, child.relative,
        [&](const TreeEntry& entry) {
          if (entry.kind == TreeEntry::Kind::file) count(entry.size);
        },
        FolderFailures::passOver);
  }
  return total;
}

StowUsage surveyUsage(const StowLayout& layout) {
  std::set<std::string> libraryExcluded = excludedLibraryNames();
  libraryExcluded.insert("Caches");
  StowFolderSize documents = measureFolder(layout.home, "Documents", {});
  StowFolderSize library = measureFolder(layout.home, "Library", libraryExcluded);
  StowFolderSize caches = measureFolder(layout.home, "Library/Caches", {});
  return {documents.bytes, library.bytes, caches.bytes, checkedAdd(documents.files, library.files)};
}

}  // namespace corvelstow
