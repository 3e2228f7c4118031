#include "backup/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/file_error.h"
#include "base/scope_guard.h"

namespace corvelstow {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

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

[[noreturn]] void throwFolderError(const std::string& action, const std::string& relative,
                                   int code) {
  throwFileError(
      code, "Could not " + action + " the folder " + relative + ": " + std::strerror(code) + ".");
}

}  // namespace

FolderChain::FolderChain(const std::filesystem::path& root)
    : root_(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), rootError_(errno) {}

int FolderChain::current() {
  if (levels_.empty()) {
    if (!root_) errno = rootError_;
    return root_.get();
  }
  if (!levels_.back().fd && !reopen()) return -1;
  return levels_.back().fd.get();
}

bool FolderChain::enter(const std::string& name) {
  int parent = current();
  if (parent < 0) return false;
  UniqueFd folder(::openat(parent, name.c_str(), kFolderFlags));
  if (!folder) return false;
  levels_.push_back({name, std::move(folder)});
  if (levels_.size() - firstOpen_ > kMaxOpen) levels_[firstOpen_++].fd.reset();
  return true;
}

void FolderChain::leave() {
  levels_.pop_back();
  firstOpen_ = std::min(firstOpen_, levels_.size());
}

bool FolderChain::moveTo(std::string_view path) {
  std::vector<std::string> names;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start) names.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  std::size_t common = 0;
  while (common < std::min(names.size(), levels_.size()) && levels_[common].name == names[common]) {
    ++common;
  }
  while (levels_.size() > common) leave();
  for (std::size_t i = common; i < names.size(); ++i) {
    if (!enter(names[i])) return false;
  }
  return true;
}

// Opens every level again from the root, one name at a time, keeping the deepest kMaxOpen.
bool FolderChain::reopen() {
  if (!root_) {
    errno = rootError_;
    return false;
  }
  int parent = root_.get();
  for (std::size_t i = 0; i < levels_.size(); ++i) {
    levels_[i].fd.reset(::openat(parent, levels_[i].name.c_str(), kFolderFlags));
    if (!levels_[i].fd) {
      int code = errno;
      for (Level& level : levels_) level.fd.reset();
      firstOpen_ = levels_.size();
      errno = code;
      return false;
    }
    parent = levels_[i].fd.get();
    if (i >= kMaxOpen) levels_[i - kMaxOpen].fd.reset();
  }
  firstOpen_ = levels_.size() - std::min(levels_.size(), kMaxOpen);
  return true;
}

bool enterFolder(FolderChain& chain, const std::string& name, const std::string& relative,
                 FolderFailures failures) {
  if (chain.enter(name)) return true;
  int code = errno;
  // Gone, or replaced since it was listed: left out, as a link is.
  if (code == ENOENT || code == ENOTDIR || code == ELOOP) return false;
  if (failures == FolderFailures::passOver) return false;
  throwFolderError("open", relative, code);
}

// Reads the whole folder before anything below it is opened, so that no descriptor stays open
// for it while its subfolders are walked.
std::vector<TreeEntry> listFolder(FolderChain& chain, const std::string& relative) {
  int folder = chain.current();
  if (folder < 0) throwFolderError("open", relative, errno);
  int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
  Directory dir(copy < 0 ? nullptr : ::fdopendir(copy));
  if (!dir) {
    int code = errno;
    if (copy >= 0) ::close(copy);
    throwFolderError("read", relative, code);
  }
  ::rewinddir(dir.get());  // the copy shares its position with the chain's descriptor
  std::vector<TreeEntry> entries;
  for (;;) {
    errno = 0;
    const dirent* item = ::readdir(dir.get());
    if (item == nullptr) break;
    if (std::strcmp(item->d_name, ".") == 0 || std::strcmp(item->d_name, "..") == 0) continue;
    TreeEntry entry;
    entry.name = item->d_name;
    entry.relative = relative + "/" + entry.name;
    struct stat info {};
    if (::fstatat(folder, item->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      entry.kind = kindOf(info.st_mode);
      if (entry.kind == TreeEntry::Kind::file || entry.kind == TreeEntry::Kind::link) {
        entry.size = info.st_size;  // a link's own size: the length of its target
      }
    }
    entries.push_back(std::move(entry));
  }
  if (errno != 0) throwFolderError("read", relative, errno);
  return entries;
}

// Depth first with a stack of listings rather than recursion, so that a deep tree needs
// neither a descriptor nor a stack frame per level.
void walkTree(FolderChain& chain, const std::string& name, const std::string& relative,
              const std::function<void(const TreeEntry&)>& visit, FolderFailures failures) {
  const std::size_t depth = chain.depth();
  ScopeGuard standBack([&] {
    while (chain.depth() > depth) chain.leave();
  });
  struct Listing {
    std::vector<TreeEntry> entries;
    std::size_t next = 0;
  };
  std::vector<Listing> listings;
  // Enters the folder and lists it, unless it is passed over.
  const auto descend = [&](const std::string& folder, const std::string& folderRelative) {
    if (!enterFolder(chain, folder, folderRelative, failures)) return;
    try {
      listings.push_back({listFolder(chain, folderRelative)});
    } catch (const StowFileError&) {
      chain.leave();
      if (failures == FolderFailures::fail) throw;
    }
  };
  descend(name, relative);
  while (!listings.empty()) {
    Listing& listing = listings.back();
    if (listing.next == listing.entries.size()) {
      listings.pop_back();
      chain.leave();
      continue;
    }
    const TreeEntry entry = std::move(listing.entries[listing.next++]);
    visit(entry);
    if (entry.kind == TreeEntry::Kind::folder) descend(entry.name, entry.relative);
  }
}

}  // namespace corvelstow
