#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace corvelstow {

/// The failures of the archive writer and reader, each with the one sentence the user sees.
class StowZipError : public std::exception {
 public:
  enum class Kind {
    cannotCreate,
    nameTooLong,
    unsupportedMethod,
    encrypted,
    wrongSize,
    damaged,
    unsafePath,
    notAZip,
  };

  /// "Could not create {name}." The archive file could not be created or opened for writing.
  static StowZipError cannotCreate(std::string name);
  /// "{name} is a name over 65,535 bytes long, which this archive format can't hold." The name
  /// is shortened in the middle to its first and last few dozen bytes.
  static StowZipError nameTooLong(std::string_view name);
  /// "{path} uses compression method {method}, which isn't supported."
  static StowZipError unsupportedMethod(std::uint16_t method, std::string path);
  /// "{path} is encrypted, which isn't supported."
  static StowZipError encrypted(std::string path);
  /// "{path} is damaged: its size does not match what the archive says." Its data ends short of
  /// its declared size or goes past it, or does not fit where the archive places it.
  static StowZipError wrongSize(std::string path);
  /// "{path} is damaged: its checksum does not match."
  static StowZipError damaged(std::string path);
  /// "The archive holds an unsafe path: {path}" (no final full stop).
  static StowZipError unsafePath(std::string path);
  /// "That file is not a zip archive."
  static StowZipError notAZip();

  Kind kind() const noexcept { return kind_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  StowZipError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

}  // namespace corvelstow
