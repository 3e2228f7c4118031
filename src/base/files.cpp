#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>

namespace corvelstow::files {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::optional<std::string> readAll(UniqueFd fd) {
  if (!fd) return std::nullopt;
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) return bytes;
    bytes.append(buffer, static_cast<size_t>(n));
  }
}

// Six letters or digits, for a temporary name that no other writer picks.
std::string randomSuffix() {
  static constexpr char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 generator{std::random_device{}()};
  std::string suffix(6, 'x');
  for (char& c : suffix) c = kLetters[generator() % (sizeof kLetters - 1)];
  return suffix;
}

}  // namespace

std::optional<std::string> readWhole(const fs::path& path) {
  return readAll(UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

std::optional<std::string> readWhole(int folder, const std::string& name) {
  return readAll(UniqueFd(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)));
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// An unfinished write is a hidden file beside its target: ".{name}.unfinished-" and six
// characters that mkstemp chooses.
constexpr std::string_view kUnfinishedMark = ".unfinished-";
constexpr size_t kUnfinishedSuffix = 6;

// ".{name}.unfinished-XXXXXX", with the name cut short (between characters) where the whole
// would pass the longest name a file system takes.
std::string unfinishedName(const std::string& name) {
  const size_t room = NAME_MAX - 1 - kUnfinishedMark.size() - kUnfinishedSuffix;
  size_t end = std::min(name.size(), room);
  while (end > 0 && end < name.size() && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) {
    --end;
  }
  return "." + name.substr(0, end) + std::string(kUnfinishedMark) + randomSuffix();
}

bool writeAtomically(const fs::path& path, std::string_view bytes) {
  createFolders(path.parent_path());
  UniqueFd folder(::open(path.parent_path().empty() ? "." : path.parent_path().c_str(),
                         O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder && writeAtomically(folder.get(), path.filename().string(), bytes);
}

bool writeAtomically(int folder, const std::string& name, std::string_view bytes) {
  std::string temporary;
  UniqueFd fd;
  for (int attempt = 0; !fd && attempt < 100; ++attempt) {
    temporary = unfinishedName(name);
    fd.reset(::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd && errno != EEXIST) return false;
  }
  if (!fd) return false;
  bool written = writeAll(fd.get(), bytes) && syncFile(fd.get()) && fd.close();
  if (written && ::renameat(folder, temporary.c_str(), folder, name.c_str()) == 0) return true;
  int code = errno;
  ::unlinkat(folder, temporary.c_str(), 0);
  errno = code;
  return false;
}

static bool isUnfinishedWrite(std::string_view name) {
  const size_t tail = kUnfinishedMark.size() + kUnfinishedSuffix;
  return name.size() > tail + 1 && name.front() == '.' &&
         name.substr(name.size() - tail, kUnfinishedMark.size()) == kUnfinishedMark;
}

void removeUnfinishedWrites(const fs::path& folder) {
  for (const auto& name : listNames(folder)) {
    if (isUnfinishedWrite(name)) ::unlink(join(folder, name).c_str());
  }
}

bool moveNoReplace(const fs::path& from, const fs::path& to) {
  return moveNoReplace(AT_FDCWD, from.string(), AT_FDCWD, to.string());
}

bool moveNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
#ifdef __APPLE__
  if (::renameatx_np(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_EXCL) == 0) {
    return true;
  }
#else
  if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
#endif
  if (errno != EINVAL && errno != ENOTSUP && errno != ENOSYS) return false;
  // A file system without an exclusive rename: check, then rename. Callers hold the container
  // lock, so nothing of ours appears in between.
  if (exists(toFolder, to)) {
    errno = EEXIST;
    return false;
  }
  return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0;
}

UniqueFd openFolder(int parent, const std::string& name) {
  UniqueFd folder(::openat(parent, name.c_str(), kFolderFlags));
  // Linux refuses a link with ENOTDIR when a folder is asked for.
  if (!folder && errno == ENOTDIR && isLink(parent, name)) errno = ELOOP;
  return folder;
}

UniqueFd openFolder(const fs::path& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd makeFolder(int parent, const std::string& name) {
  if (::mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST) return UniqueFd();
  return openFolder(parent, name);
}

bool syncFile(int fd) {
#ifdef __APPLE__
  if (::fcntl(fd, F_FULLFSYNC) == 0) return true;
#endif
  return ::fsync(fd) == 0;
}

bool syncFolder(int folder) { return syncFile(folder); }

void startSync(int fd) {
#ifdef __APPLE__
  ::fsync(fd);
#else
  (void)fd;
#endif
}

bool syncVolume(int folder) {
#ifdef __APPLE__
  return syncFile(folder);
#else
  return ::syncfs(folder) == 0;
#endif
}

bool createFolders(const fs::path& path) {
  if (path.empty()) return false;
  if (::mkdir(path.c_str(), 0755) == 0) return true;
  if (errno == EEXIST) return isFolder(path);
  if (errno != ENOENT) return false;
  fs::path parent = path.parent_path();
  if (parent == path || !createFolders(parent)) return false;
  return ::mkdir(path.c_str(), 0755) == 0 || (errno == EEXIST && isFolder(path));
}

void removeAll(const fs::path& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

bool exists(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

bool exists(int folder, const std::string& name) {
  struct stat info {};
  return ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

bool isLink(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

bool isLink(int folder, const std::string& name) {
  struct stat info {};
  return ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
}

bool isFolder(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

namespace {

std::vector<std::string> namesIn(DIR* dir) {
  std::vector<std::string> names;
  if (dir == nullptr) return names;
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  ::closedir(dir);
  return names;
}

}  // namespace

std::vector<std::string> listNames(const fs::path& folder) {
  return namesIn(::opendir(folder.c_str()));
}

std::vector<std::string> listNames(int folder) {
  if (folder < 0) return {};
  int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
  DIR* dir = copy < 0 ? nullptr : ::fdopendir(copy);
  if (dir == nullptr) {
    if (copy >= 0) ::close(copy);
    return {};
  }
  ::rewinddir(dir);  // the copy shares its position with `folder`
  return namesIn(dir);
}

// Depth first, one descriptor per level: a tree as deep as any path may go is removed with as
// many descriptors as it has levels, and no path is ever longer than one name.
void removeContents(int folder) {
  for (const std::string& name : listNames(folder)) {
    if (::unlinkat(folder, name.c_str(), 0) == 0) continue;
    if (UniqueFd inside = openFolder(folder, name)) {
      removeContents(inside.get());
      ::unlinkat(folder, name.c_str(), AT_REMOVEDIR);
    }
  }
}

fs::path join(const fs::path& folder, std::string_view name) {
  std::string text = folder.string();
  if (text.empty() || text.back() != '/') text += '/';
  text += name;
  return text;
}

}  // namespace corvelstow::files
