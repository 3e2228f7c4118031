#include "archive/zip_error.h"

namespace corvelstow {

StowZipError StowZipError::cannotCreate(std::string name) {
  return {Kind::cannotCreate, "Could not create " + name + "."};
}

namespace {

// The first `count` bytes of `text`, or fewer, so as not to cut a UTF-8 sequence.
std::string_view headOf(std::string_view text, std::size_t count) {
  if (count >= text.size()) return text;
  while (count > 0 && (static_cast<unsigned char>(text[count]) & 0xC0) == 0x80) --count;
  return text.substr(0, count);
}

// The last `count` bytes of `text`, or fewer, as headOf.
std::string_view tailOf(std::string_view text, std::size_t count) {
  if (count >= text.size()) return text;
  std::size_t start = text.size() - count;
  while (start < text.size() && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) ++start;
  return text.substr(start);
}

}  // namespace

StowZipError StowZipError::nameTooLong(std::string_view name) {
  constexpr std::size_t kShown = 40;  // bytes at each end
  std::string shown(name);
  if (name.size() > 2 * kShown) {
    shown = std::string(headOf(name, kShown)) + "\xE2\x80\xA6" + std::string(tailOf(name, kShown));
  }
  return {Kind::nameTooLong,
          shown + " is a name over 65,535 bytes long, which this archive format can't hold."};
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
