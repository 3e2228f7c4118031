#include "backup/restore_error.h"

namespace corvelstow {

StowRestoreError StowRestoreError::incomplete(std::int64_t expected, std::int64_t found) {
  return {Kind::incomplete, "The backup should hold " + std::to_string(expected) +
                                " files but only " + std::to_string(found) + " came out of it."};
}

StowRestoreError StowRestoreError::noManifest() {
  return {Kind::noManifest, "That file is not an app data backup: it has no manifest."};
}

StowRestoreError StowRestoreError::nothingToRestore() {
  return {Kind::nothingToRestore, "That backup holds nothing for the part you chose."};
}

StowRestoreError StowRestoreError::heldTwice(const std::string& path) {
  return {Kind::heldTwice, "The backup holds " + path + " more than once."};
}

StowRestoreError StowRestoreError::fileAndFolder(const std::string& path) {
  return {Kind::fileAndFolder, "The backup holds both a file and a folder named " + path + "."};
}

StowRestoreError StowRestoreError::moreThanDeclared() {
  return {Kind::moreThanDeclared, "The backup holds more data than it declares."};
}

StowRestoreError StowRestoreError::noRoom(std::uint64_t needed, std::uint64_t available) {
  return {Kind::noRoom, "There isn't enough free space to prepare this restore: it needs " +
                            std::to_string(needed) + " bytes and " + std::to_string(available) +
                            " bytes are free."};
}

}  // namespace corvelstow
