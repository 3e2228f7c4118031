#include "backup/usage.h"

#include "backup/tree_walk.h"
#include "base/checked.h"

namespace corvelstow {

StowFolderSize measureFolder(const fs::path& folder, const std::set<std::string>& excluded) {
  StowFolderSize total;
  for (const TreeEntry& child : listFolder(folder)) {
    if (excluded.count(child.name)) continue;
    if (child.kind != TreeEntry::Kind::folder) {
      // At the top level anything that is not a folder counts, links and unknowns included.
      total.bytes = checkedAdd(total.bytes, child.size);
      total.files = checkedAdd(total.files, std::int64_t{1});
      continue;
    }
    walkTree(folder / child.name, child.name, [&](const TreeEntry& entry) {
      if (entry.kind != TreeEntry::Kind::file) return;
      total.bytes = checkedAdd(total.bytes, entry.size);
      total.files = checkedAdd(total.files, std::int64_t{1});
    });
  }
  return total;
}

StowUsage surveyUsage(const StowLayout& layout) {
  std::set<std::string> libraryExcluded = excludedLibraryNames();
  libraryExcluded.insert("Caches");
  StowFolderSize documents = measureFolder(layout.documents, {});
  StowFolderSize library = measureFolder(layout.library, libraryExcluded);
  StowFolderSize caches = measureFolder(layout.library / "Caches", {});
  return {documents.bytes, library.bytes, caches.bytes, checkedAdd(documents.files, library.files)};
}

}  // namespace corvelstow
