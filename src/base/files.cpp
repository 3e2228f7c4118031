#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/unique_fd.h"

namespace corvelstow::files {

std::optional<std::string> readWhole(const fs::path& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
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

bool writeAtomically(const fs::path& path, std::string_view bytes) {
  createFolders(path.parent_path());
  std::string temporary = join(
      path.parent_path(), "." + path.filename().string() + std::string(kUnfinishedMark) + "XXXXXX");
  UniqueFd fd(::mkstemp(temporary.data()));
  if (!fd) return false;
  bool written = ::fchmod(fd.get(), 0644) == 0 && writeAll(fd.get(), bytes) &&
                 ::fsync(fd.get()) == 0 && fd.close();
  if (written && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  int code = errno;
  ::unlink(temporary.c_str());
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
#ifdef __APPLE__
  if (::renamex_np(from.c_str(), to.c_str(), RENAME_EXCL) == 0) return true;
#else
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
#endif
  if (errno != EINVAL && errno != ENOTSUP && errno != ENOSYS) return false;
  // A file system without an exclusive rename: check, then rename. Callers hold the container
  // lock, so nothing of ours appears in between.
  if (files::exists(to)) {
    errno = EEXIST;
    return false;
  }
  return ::rename(from.c_str(), to.c_str()) == 0;
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

bool isLink(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

bool isFolder(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::vector<std::string> listNames(const fs::path& folder) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  ::closedir(dir);
  return names;
}

fs::path join(const fs::path& folder, std::string_view name) {
  std::string text = folder.string();
  if (text.empty() || text.back() != '/') text += '/';
  text += name;
  return text;
}

}  // namespace corvelstow::files
