#include "command_context.h"

#include <cerrno>
#include <iostream>

#include "base/file_error.h"
#include "base/files.h"

namespace corvelstow::cli {

const StowLayout& CommandContext::container() const {
  const StowLayout& layout = StowLayout::shared();
  if (!files::isFolder(layout.home)) {
    throwFileError(ENOENT, "There is no app container at " + layout.home.string() + ".");
  }
  containerUsed = true;
  return layout;
}

std::optional<fs::path> besideCommand(std::initializer_list<fs::path> candidates) {
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& candidate : candidates) {
    if (files::exists(folder / candidate)) return fs::absolute(folder / candidate);
  }
  return std::nullopt;
}

void CommandContext::printJson(const nlohmann::json& document) const {
  out << document.dump(2) << '\n';
}

}  // namespace corvelstow::cli
