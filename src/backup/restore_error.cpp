#include "backup/restore_error.h"

namespace corvelstow {

StowRestoreError StowRestoreError::incomplete(std::int64_t expected, std::int64_t found) {
  return {Kind::incomplete, "The backup should hold " + std::to_string(expected) +
                                " files but only " + std::to_string(found) +
                                " came out of it."};
}

StowRestoreError StowRestoreError::noManifest() {
  return {Kind::noManifest, "That file is not an app data backup: it has no manifest."};
}

StowRestoreError StowRestoreError::nothingToRestore() {
  return {Kind::nothingToRestore, "That backup holds nothing for the part you chose."};
}

}  // namespace corvelstow
