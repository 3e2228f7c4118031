#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace corvelstow {

/// Why a file cannot be restored, with the one text the user sees.
class StowRestoreError : public std::exception {
 public:
  enum class Kind {
    incomplete,
    noManifest,
    nothingToRestore,
    heldTwice,
    fileAndFolder,
    moreThanDeclared,
    noRoom,
  };

  /// "The backup should hold {expected} files but only {found} came out of it."
  static StowRestoreError incomplete(std::int64_t expected, std::int64_t found);
  /// "That file is not an app data backup: it has no manifest."
  static StowRestoreError noManifest();
  /// "That backup holds nothing for the part you chose."
  static StowRestoreError nothingToRestore();
  /// "The backup holds {path} more than once." Two entries would be restored as one file.
  static StowRestoreError heldTwice(const std::string& path);
  /// "The backup holds both a file and a folder named {path}." A file entry where another entry
  /// is, or implies, a folder.
  static StowRestoreError fileAndFolder(const std::string& path);
  /// "The backup holds more data than it declares."
  static StowRestoreError moreThanDeclared();
  /// "There isn't enough free space to prepare this restore: it needs {needed} bytes and
  /// {available} bytes are free."
  static StowRestoreError noRoom(std::uint64_t needed, std::uint64_t available);

  Kind kind() const noexcept { return kind_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  StowRestoreError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

}  // namespace corvelstow
