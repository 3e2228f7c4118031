#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace corvelstow {

/// The reasons a library cannot be added to a Mach-O file, each with the one sentence the user
/// sees. `name` is the file as the user knows it (the app's executable, the library).
class StowInjectError : public std::exception {
 public:
  enum class Kind { notMachO, damaged, noArm64, wrongFileType, encrypted, noRoom };

  /// "{name} is not a Mach-O file."
  static StowInjectError notMachO(const std::string& name);
  /// "{name} is a damaged Mach-O file: {reason}."
  static StowInjectError damaged(const std::string& name, const std::string& reason);
  /// "{name} holds no arm64 code."
  static StowInjectError noArm64(const std::string& name);
  /// "{name} is not {kind}." with kind "an executable" or "a dynamic library".
  static StowInjectError wrongFileType(const std::string& name, const std::string& kind);
  /// "This app is encrypted; use a decrypted copy."
  static StowInjectError encrypted();
  /// "{name} has no room for the new load commands: they need {needed} bytes after its load
  /// commands, and {available} are free."
  static StowInjectError noRoom(const std::string& name, std::uint64_t needed,
                                std::uint64_t available);

  Kind kind() const noexcept { return kind_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  StowInjectError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

}  // namespace corvelstow
