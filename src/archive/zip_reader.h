#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/deflate_stream.h"
#include "base/unique_fd.h"

namespace corvelstow {

/// One entry as the central directory describes it.
struct StowZipItem {
  std::string path;  ///< the name decoded as UTF-8 (U+FFFD for bad bytes); folders end in "/"
  std::uint16_t method = 0;
  std::uint32_t crc = 0;
  std::uint64_t compressedSize = 0;
  std::uint64_t size = 0;
  std::uint64_t headerOffset = 0;  ///< of the entry's local header
  std::uint16_t mode = 0;  ///< Unix type and permission bits, when made on a Unix host; else 0
};

/// Whether an entry's path may be unpacked below a folder: not empty, not absolute, no ".."
/// piece, and no backslash, which some unpackers read as a separator.
bool isSafeEntryPath(std::string_view path);

/// Reads a ZIP archive whose entries are stored or deflated, Zip64 records included. Nothing is
/// unpacked without its CRC-32 being checked. Move-only; the destructor closes the file.
///
/// Unpacking throws StowZipError (notAZip for a missing local header, unsupportedMethod, damaged)
/// or StowFileError for a failed read or write; the reader stays usable after a failure.
class StowZipReader {
 public:
  /// Opens the archive and reads its directory. Throws StowFileError when the file cannot be
  /// opened or read, and StowZipError::notAZip when it is not an archive.
  explicit StowZipReader(const std::filesystem::path& location);
  ~StowZipReader();
  StowZipReader(StowZipReader&&) noexcept;
  StowZipReader& operator=(StowZipReader&&) noexcept;

  /// The entries in central-directory order, as listed: not filtered, sorted or de-duplicated.
  const std::vector<StowZipItem>& items() const { return items_; }

  /// The whole entry in memory. Meant for small entries such as a manifest.
  std::string data(const StowZipItem& item);

  /// Streams the entry into `destinationFd`, which the caller owns, as it is unpacked. What was
  /// written before a failure stays written.
  void extract(const StowZipItem& item, int destinationFd);

  /// Streams the entry to `sink` in pieces of at most 1 MiB. A sink that throws stops the
  /// unpacking and its exception is passed on.
  void extract(const StowZipItem& item, const ByteSink& sink);

 private:
  void readDirectory();
  std::size_t readAt(std::uint64_t offset, char* buffer, std::size_t count);
  std::uint64_t dataStart(const StowZipItem& item);
  void unpackStored(const StowZipItem& item, std::uint64_t start, const ByteSink& sink);
  void unpackDeflated(const StowZipItem& item, std::uint64_t start, const ByteSink& sink);
  char* buffer();

  std::filesystem::path location_;
  UniqueFd fd_;
  std::uint64_t length_ = 0;
  std::vector<StowZipItem> items_;
  std::unique_ptr<InflateStream> inflate_;  // made on the first deflated entry, then reset
  std::unique_ptr<char[]> buffer_;
  std::size_t bufferSize_ = 0;
};

}  // namespace corvelstow
