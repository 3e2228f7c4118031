#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/zip_format.h"
#include "base/dates.h"
#include "base/unique_fd.h"

namespace corvelstow {

/// Writes a classic (32-bit, no Zip64) ZIP archive front to back in one pass: one local entry
/// after another, then the central directory and the end record. In-memory entries are stored;
/// files are deflated and streamed. A name is flagged as UTF-8 only when it is; any other name is
/// written as its bytes, unflagged. Move-only; the destructor closes the file (errors ignored).
///
/// Files are compressed in blocks of kBlockSize by a pool of threads while the calling thread
/// reads the next ones and writes what is compressed, strictly in order: the archive is the same
/// byte for byte whatever the number of threads. Each block is compressed on its own, primed
/// with the 32 KiB before it, and flushed to a byte boundary, so that the blocks of a file join
/// into one DEFLATE stream. Everything is written by the thread that calls the writer; at most
/// a few blocks per thread wait in memory.
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

  /// Told on the calling thread of each file added with addFile once its entry is written in
  /// full, in the order the files were added.
  using FileWritten = std::function<void(const Written& entry)>;

  /// The bytes of a file compressed as one piece; a larger file is cut into blocks this long.
  static constexpr std::size_t kBlockSize = 128 << 10;
  /// The most threads a writer uses, whatever it is asked for: each costs about 1 MiB.
  static constexpr unsigned kMaxThreads = 8;

  /// Creates (or empties) the file at `location`; files will be compressed by `threads`
  /// threads (at most kMaxThreads), with 1 on the calling thread as each is added. Throws
  /// StowZipError::cannotCreate with the file's name when it cannot be opened for writing.
  explicit StowZipWriter(const std::filesystem::path& location, unsigned threads = 1);
  ~StowZipWriter();
  StowZipWriter(StowZipWriter&&) noexcept;
  StowZipWriter& operator=(StowZipWriter&&) noexcept;

  /// Adds a stored entry holding `data`, after every file added before it. Throws
  /// tooLarge(name) when the entry would start at or past 4 GiB − 1, and std::length_error for
  /// a name over 65,535 bytes or data over 4 GiB − 1.
  void add(std::string_view data, std::string_view name, StowDate date);

  /// Adds a folder entry; a "/" is appended to `name` when it lacks one.
  void addDirectory(std::string_view name, StowDate date);

  /// Adds the file at `file`, deflated, its CRC and sizes in a data descriptor after the data.
  /// The file is opened without following a link (a link there is refused: ELOOP); its size and
  /// modification time come from the opened file's status; an empty file becomes a stored
  /// entry. The file is read to its end during the call, so it may be closed afterwards: the
  /// entry holds what was read, whatever the size said. It is written once its blocks are
  /// compressed, during this call or a later one (with one thread, before this one returns).
  /// Throws tooLarge(name) for a file of 4 GiB − 1 bytes or more (before anything is written),
  /// one that grows that large while it is read, or compressed data that large. `permissions` are
  /// the Unix permission bits the central directory gives the entry (0644 unless told). A failure
  /// of this file is raised after the files before it are written, so that one of theirs, which
  /// came first, is raised instead.
  void addFile(const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// The same for a file already open as `source`, read from where it stands; `file` names it
  /// in error sentences.
  void addFile(int source, const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// Makes room in written() for `entries` entries in all, so that a long list does not grow
  /// by copying.
  void reserve(std::size_t entries) { written_.reserve(entries); }

  /// Writes every file added so far, waiting for its compression; throws the first failure.
  void writePending();

  /// Writes the central directory and the end record and flushes the file to storage. Throws
  /// tooLarge("the archive") when the directory would start past 4 GiB − 2, and
  /// tooLarge("the file list") for more than 65,534 entries (after writing the directory).
  void finish();

  /// Calls `written` as each file's entry is complete (see FileWritten).
  void onFileWritten(FileWritten written) { fileWritten_ = std::move(written); }

  /// The entries written so far, in order.
  const std::vector<Written>& written() const { return written_; }
  /// The number of bytes written so far: where the next byte goes.
  std::uint64_t offset() const { return offset_; }

  /// Test seam: leaves a hole of `bytes` zero bytes (sparse on disk) before the next entry, so
  /// that the 4 GiB limits can be reached without writing 4 GiB.
  void skipForTesting(std::uint64_t bytes);

 private:
  struct Block;
  struct Pending;
  struct Compression;

  void queueFile(int source, const std::filesystem::path& file, std::string_view name,
                 std::uint16_t permissions);
  std::unique_ptr<Block> readBlock(int source, const std::filesystem::path& file,
                                   std::string_view preceding);
  void submit(Pending& entry, std::unique_ptr<Block> block);
  bool writeFront(bool wait);
  void completeEntry(Pending& entry);
  void writeReady();
  void throwIfFailed();
  void dropUnfinished();
  void abandon() noexcept;
  void writeLocalHeader(const Written& entry);
  void writeBytes(std::string_view bytes);
  void checkStart(std::string_view name) const;

  std::filesystem::path location_;
  UniqueFd fd_;
  std::vector<Written> written_;
  std::uint64_t offset_ = 0;
  unsigned threads_;
  FileWritten fileWritten_;
  std::deque<std::unique_ptr<Pending>> pending_;  // files added and not yet written, in order
  std::size_t blocksPending_ = 0;
  std::exception_ptr failure_;  // of writing the pending files, raised once
  std::unique_ptr<char[]> readBuffer_;
  // Declared last, so destroyed first: its threads stop before the blocks they work on go.
  std::unique_ptr<Compression> compression_;
};

}  // namespace corvelstow
