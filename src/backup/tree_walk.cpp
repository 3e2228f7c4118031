#include "backup/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "base/unique_fd.h"

namespace corvelstow {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirCloser>;

TreeEntry::Kind kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return TreeEntry::Kind::folder;
  if (S_ISREG(mode)) return TreeEntry::Kind::file;
  if (S_ISLNK(mode)) return TreeEntry::Kind::link;
  return TreeEntry::Kind::other;
}

// Lists one open folder, reading each entry's attributes relative to it (no path building).
template <typename Visit>
void forEachEntry(int folderFd, const std::string& prefix, Visit&& visit) {
  Directory dir(::fdopendir(folderFd));
  if (!dir) {
    ::close(folderFd);
    return;
  }
  while (const dirent* item = ::readdir(dir.get())) {
    if (std::strcmp(item->d_name, ".") == 0 || std::strcmp(item->d_name, "..") == 0) continue;
    TreeEntry entry;
    entry.name = item->d_name;
    entry.relative = prefix.empty() ? entry.name : prefix + "/" + entry.name;
    struct stat info {};
    if (::fstatat(::dirfd(dir.get()), item->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      entry.kind = kindOf(info.st_mode);
      if (entry.kind == TreeEntry::Kind::file || entry.kind == TreeEntry::Kind::link) {
        entry.size = info.st_size;  // a link's own size: the length of its target
      }
    }
    visit(::dirfd(dir.get()), entry);
  }
}

void walkBelow(int folderFd, const std::string& prefix,
               const std::function<void(const TreeEntry&)>& visit) {
  forEachEntry(folderFd, prefix, [&](int parentFd, const TreeEntry& entry) {
    visit(entry);
    if (entry.kind != TreeEntry::Kind::folder) return;
    int child = ::openat(parentFd, entry.name.c_str(),
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (child >= 0) walkBelow(child, entry.relative, visit);
  });
}

}  // namespace

std::vector<TreeEntry> listFolder(const std::filesystem::path& folder) {
  std::vector<TreeEntry> entries;
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return entries;
  forEachEntry(fd, "", [&](int, const TreeEntry& entry) { entries.push_back(entry); });
  return entries;
}

void walkTree(const std::filesystem::path& folder, const std::string& prefix,
              const std::function<void(const TreeEntry&)>& visit) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) walkBelow(fd, prefix, visit);
}

}  // namespace corvelstow
