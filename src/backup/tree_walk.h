#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace corvelstow {

/// What a walk finds at one path, read without following a symbolic link.
struct TreeEntry {
  enum class Kind { folder, file, link, other, unknown };
  std::string name;      ///< the last path component
  std::string relative;  ///< the path below the folder walked, "/"-separated
  Kind kind = Kind::unknown;
  std::int64_t size = 0;  ///< logical size of a file or link; 0 otherwise or when unknown
};

/// The entries directly in `folder`, in the order the directory yields them. A folder that
/// cannot be read lists as empty; an entry whose attributes cannot be read is `unknown`.
std::vector<TreeEntry> listFolder(const std::filesystem::path& folder);

/// Visits everything below `folder` (not `folder` itself) depth first, a folder before its
/// contents, in directory order, without following symbolic links. `relative` of each entry
/// starts with `prefix` + "/". Unreadable folders contribute nothing below themselves.
void walkTree(const std::filesystem::path& folder, const std::string& prefix,
              const std::function<void(const TreeEntry&)>& visit);

}  // namespace corvelstow
