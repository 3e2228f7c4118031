#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/deflate_stream.h"
#include "archive/zip_format.h"
#include "base/dates.h"
#include "base/unique_fd.h"

namespace corvelstow {

/// Writes a classic (32-bit, no Zip64) ZIP archive front to back in one pass: one local entry
/// after another, then the central directory and the end record. In-memory entries are stored;
/// files are deflated and streamed. A name is flagged as UTF-8 only when it is; any other name is
/// written as its bytes, unflagged. Move-only; the destructor closes the file (errors ignored).
///
/// Every operation throws StowZipError (cannotCreate, tooLarge) or StowFileError for a failed
/// file operation. After a failure the file stays as far as it was written: the caller discards it.
class StowZipWriter {
 public:
  /// One entry, as the central directory will describe it.
  struct Written {
    std::string name;  ///< the name's bytes, as in the local header
    std::uint16_t method = 0;
    std::uint16_t flags = 0;
    std::uint16_t time = 0;  ///< DOS time, local
    std::uint16_t date = 0;  ///< DOS date, local
    std::uint32_t crc = 0;
    std::uint32_t compressed = 0;
    std::uint32_t size = 0;
    std::uint32_t offset = 0;  ///< of the local header
    bool isDirectory = false;
    std::uint16_t permissions = zip::kPermissionsFile;  ///< a file's Unix permission bits
  };

  /// Creates (or empties) the file at `location`. Throws StowZipError::cannotCreate with the
  /// file's name when it cannot be opened for writing.
  explicit StowZipWriter(const std::filesystem::path& location);
  ~StowZipWriter();
  StowZipWriter(StowZipWriter&&) noexcept;
  StowZipWriter& operator=(StowZipWriter&&) noexcept;

  /// Adds a stored entry holding `data`. Throws tooLarge(name) when the entry would start at or
  /// past 4 GiB − 1, and std::length_error for a name over 65,535 bytes or data over 4 GiB − 1.
  void add(std::string_view data, std::string_view name, StowDate date);

  /// Adds a folder entry; a "/" is appended to `name` when it lacks one.
  void addDirectory(std::string_view name, StowDate date);

  /// Adds the file at `file`, deflated, read in 1 MiB pieces, its CRC and sizes in a data
  /// descriptor after the data. The file is opened without following a link (a link there is
  /// refused: ELOOP); its size and modification time come from the opened file's status; an
  /// empty file becomes a stored entry. Throws tooLarge(name) for a file of 4 GiB − 1 bytes or
  /// more (before anything is written) or compressed data that large. `permissions` are the
  /// Unix permission bits the central directory gives the entry (0644 unless told).
  void addFile(const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// The same for a file already open as `source`, read from where it stands; `file` names it
  /// in error sentences.
  void addFile(int source, const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// Writes the central directory and the end record and flushes the file to storage. Throws
  /// tooLarge("the archive") when the directory would start past 4 GiB − 2, and
  /// tooLarge("the file list") for more than 65,534 entries (after writing the directory).
  void finish();

  /// The entries added so far, in order.
  const std::vector<Written>& written() const { return written_; }
  /// The number of bytes written so far: where the next byte goes.
  std::uint64_t offset() const { return offset_; }

  /// Test seam: leaves a hole of `bytes` zero bytes (sparse on disk) before the next entry, so
  /// that the 4 GiB limits can be reached without writing 4 GiB.
  void skipForTesting(std::uint64_t bytes);

 private:
  void writeLocalHeader(const Written& entry);
  void writeBytes(std::string_view bytes);
  void checkStart(std::string_view name) const;

  std::filesystem::path location_;
  UniqueFd fd_;
  std::vector<Written> written_;
  std::uint64_t offset_ = 0;
  std::unique_ptr<DeflateStream> deflate_;   // made on the first file, reset for each later one
  std::unique_ptr<CompressionProbe> probe_;  // made with it
  std::unique_ptr<char[]> readBuffer_;
};

}  // namespace corvelstow
