#include "base/file_error.h"

#include <cerrno>
#include <cstring>

namespace corvelstow {

void throwFileError(const std::string& action, const std::filesystem::path& path) {
  int code = errno;
  std::string name = path.filename().empty() ? path.string() : path.filename().string();
  throw StowFileError(code, "Could not " + action + " " + name + ": " + std::strerror(code) + ".");
}

void throwFileError(int code, const std::string& sentence) { throw StowFileError(code, sentence); }

}  // namespace corvelstow
