#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace corvelstow::testing {

namespace fs = std::filesystem;

/// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const fs::path& path() const { return path_; }
  fs::path operator/(const fs::path& relative) const { return path_ / relative; }

 private:
  fs::path path_;
};

/// Writes `bytes` to `path`, creating its parent folders.
void writeFile(const fs::path& path, std::string_view bytes);

/// The whole contents of `path` (empty when it cannot be read).
std::string readFile(const fs::path& path);

}  // namespace corvelstow::testing

namespace corvelstow::testing {

/// Everything below `root` by relative path: a file maps to its contents, a folder to "/",
/// a symbolic link to "-> target". A missing root gives an empty map.
std::map<std::string, std::string> readTree(const fs::path& root);

/// readTree of a staging folder without the file that marks which staging it is.
std::map<std::string, std::string> readStagedTree(const fs::path& staged);

}  // namespace corvelstow::testing
