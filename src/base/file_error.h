#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace corvelstow {

/// A failed file operation: the system error number and the one sentence the user sees.
class StowFileError : public std::runtime_error {
 public:
  StowFileError(int code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}

  /// The errno value that caused the failure.
  int code() const noexcept { return code_; }

 private:
  int code_;
};

/// Throws a StowFileError for the current errno: "{verb} {file name}: {system reason}."
[[noreturn]] void throwFileError(const std::string& action, const std::filesystem::path& path);

/// Throws a StowFileError with the given errno and sentence.
[[noreturn]] void throwFileError(int code, const std::string& sentence);

}  // namespace corvelstow
