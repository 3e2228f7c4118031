#include "archive/zip_error.h"

namespace corvelstow {

StowZipError StowZipError::cannotCreate(std::string name) {
  return {Kind::cannotCreate, "Could not create " + name + "."};
}

StowZipError StowZipError::tooLarge(std::string name) {
  return {Kind::tooLarge, name + " is over 4 GB, which this archive format can't hold."};
}

StowZipError StowZipError::unsupportedMethod(std::uint16_t method, std::string path) {
  return {Kind::unsupportedMethod,
          path + " uses compression method " + std::to_string(method) + ", which isn't supported."};
}

StowZipError StowZipError::encrypted(std::string path) {
  return {Kind::encrypted, path + " is encrypted, which isn't supported."};
}

StowZipError StowZipError::wrongSize(std::string path) {
  return {Kind::wrongSize, path + " is damaged: its size does not match what the archive says."};
}

StowZipError StowZipError::damaged(std::string path) {
  return {Kind::damaged, path + " is damaged: its checksum does not match."};
}

StowZipError StowZipError::unsafePath(std::string path) {
  return {Kind::unsafePath, "The archive holds an unsafe path: " + path};
}

StowZipError StowZipError::notAZip() { return {Kind::notAZip, "That file is not a zip archive."}; }

}  // namespace corvelstow
