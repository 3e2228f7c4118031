#include "support/temp_folder.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace corvelstow::testing {

TempFolder::TempFolder() {
  std::string pattern = (fs::temp_directory_path() / "corvelstow-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
  fs::remove_all(path_, ignored);
}

void writeFile(const fs::path& path, std::string_view bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

}  // namespace corvelstow::testing

namespace corvelstow::testing {

std::map<std::string, std::string> readTree(const fs::path& root) {
  std::map<std::string, std::string> tree;
  std::error_code error;
  for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    std::string relative = fs::relative(it->path(), root).string();
    if (it->is_symlink()) {
      tree[relative] = "-> " + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      tree[relative] = "/";
    } else {
      tree[relative] = readFile(it->path());
    }
  }
  return tree;
}

std::map<std::string, std::string> readStagedTree(const fs::path& staged) {
  auto tree = readTree(staged);
  std::erase_if(tree, [](const auto& entry) { return entry.first.starts_with(".staging-"); });
  return tree;
}

}  // namespace corvelstow::testing
