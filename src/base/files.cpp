#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

bool writeAtomically(const fs::path& path, std::string_view bytes) {
  createFolders(path.parent_path());
  std::string temporary = path.string() + ".XXXXXX";
  UniqueFd fd(::mkstemp(temporary.data()));
  if (!fd) return false;
  bool written = ::fchmod(fd.get(), 0644) == 0 && writeAll(fd.get(), bytes) &&
                 ::fsync(fd.get()) == 0 && fd.close();
  if (written && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  ::unlink(temporary.c_str());
  return false;
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
