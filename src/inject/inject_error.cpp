#include "inject/inject_error.h"

namespace corvelstow {

StowInjectError StowInjectError::notMachO(const std::string& name) {
  return {Kind::notMachO, name + " is not a Mach-O file."};
}

StowInjectError StowInjectError::damaged(const std::string& name, const std::string& reason) {
  return {Kind::damaged, name + " is a damaged Mach-O file: " + reason + "."};
}

StowInjectError StowInjectError::noArm64(const std::string& name) {
  return {Kind::noArm64, name + " holds no arm64 code."};
}

StowInjectError StowInjectError::wrongFileType(const std::string& name, const std::string& kind) {
  return {Kind::wrongFileType, name + " is not " + kind + "."};
}

StowInjectError StowInjectError::encrypted() {
  return {Kind::encrypted, "This app is encrypted; use a decrypted copy."};
}

StowInjectError StowInjectError::noRoom(const std::string& name, std::uint64_t needed,
                                        std::uint64_t available) {
  return {Kind::noRoom, name + " has no room for the new load commands: they need " +
                            std::to_string(needed) + " bytes after its load commands, and " +
                            std::to_string(available) + " are free."};
}

}  // namespace corvelstow
