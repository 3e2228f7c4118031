#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/zip_format.h"
#include "base/dates.h"
#include "base/unique_fd.h"

namespace corvelstow {

/// Writes a ZIP archive front to back in one pass: one local entry after another, then the
/// central directory and the end record. In-memory entries are stored; files are deflated and
/// streamed. A name is flagged as UTF-8 only when it is; any other name is written as its bytes,
/// unflagged. The archive is a classic (32-bit) one as long as it fits: Zip64 records are added
/// exactly where a size, an offset or the number of entries would not fit (a file of
/// kZip64FileSize bytes or more, an entry or directory starting at 4 GiB − 1 or later, 65,535
/// entries or more). Move-only; the destructor closes the file (errors ignored).
///
/// Files are compressed in blocks of kBlockSize by a pool of threads while the calling thread
/// writes what is compressed, strictly in order: the archive is the same byte for byte whatever
/// the number of threads. Each block is compressed on its own, primed with the 32 KiB before it,
/// and flushed to a byte boundary, so that the blocks of a file join into one DEFLATE stream.
/// Small files given to addFiles are opened, read and compressed several to a task by the pool.
/// Everything is written by the thread that calls the writer; at most a few blocks or groups
/// of small files per thread wait in memory.
///
/// A file is read up to the size it had when it was opened: a file that grows meanwhile is
/// archived as it was then, one that shrinks as far as it goes; either way its entry holds what
/// was read, with its CRC.
///
/// Every operation throws StowZipError::cannotCreate or nameTooLong, or StowFileError for a
/// failed file operation. After a failure the file stays as far as it was written: the caller
/// discards it.
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
    std::uint16_t permissions = zip::kPermissionsFile;  ///< a file's Unix permission bits
    bool isDirectory = false;
    bool zip64Sizes = false;  ///< its sizes are in Zip64 fields, the descriptor's 8 bytes each
    std::uint64_t compressed = 0;
    std::uint64_t size = 0;
    std::uint64_t offset = 0;  ///< of the local header
  };

  /// Opens a file of addFiles when its turn comes, on whichever thread reads it: its descriptor,
  /// or none when the file is to be left out after all (it is gone). It may throw, which fails
  /// the archive once the files before it are written.
  using Opener = std::function<UniqueFd()>;

  /// A file for addFiles.
  struct DeferredFile {
    std::string name;                ///< its entry name
    std::uint64_t expectedSize = 0;  ///< as last seen; kBlockSize or less goes with others
    Opener open;
  };

  /// Told on the calling thread of each file added with addFile or addFiles once its entry is
  /// written in full, in the order the files were added.
  using FileWritten = std::function<void(const Written& entry)>;
  /// Told on the calling thread, in the same order, of each file of addFiles left out.
  using FileLeftOut = std::function<void(const std::string& name)>;

  /// The bytes of a file compressed as one piece; a larger file is cut into blocks this long.
  static constexpr std::size_t kBlockSize = 128 << 10;
  /// The most threads a writer uses, whatever it is asked for: each costs about 1 MiB.
  static constexpr unsigned kMaxThreads = 8;
  /// The longest entry name the format holds.
  static constexpr std::size_t kMaxNameLength = 0xFFFF;
  /// Files of this size or more have their sizes in Zip64 fields: their header is written before
  /// their compressed size is known, and DEFLATE may add up to a few bytes in ten thousand.
  static constexpr std::uint64_t kZip64FileSize = 0xFF000000;

  /// Creates (or empties) the file at `location`; files will be compressed by `threads`
  /// threads (at most kMaxThreads), with 1 on the calling thread as each is added. Throws
  /// StowZipError::cannotCreate with the file's name when it cannot be opened for writing.
  explicit StowZipWriter(const std::filesystem::path& location, unsigned threads = 1);
  ~StowZipWriter();
  StowZipWriter(StowZipWriter&&) noexcept;
  StowZipWriter& operator=(StowZipWriter&&) noexcept;

  /// Adds a stored entry holding `data`, after every file added before it. Throws nameTooLong
  /// for a name over kMaxNameLength bytes.
  void add(std::string_view data, std::string_view name, StowDate date);

  /// As add, with the entry's record first in the central directory wherever its local entry
  /// stands: for an entry that describes the others, written once they are.
  void addListedFirst(std::string_view data, std::string_view name, StowDate date);

  /// Adds a folder entry; a "/" is appended to `name` when it lacks one.
  void addDirectory(std::string_view name, StowDate date);

  /// Adds the file at `file`, deflated, its CRC and sizes in a data descriptor after the data.
  /// The file is opened without following a link (a link there is refused: ELOOP); its size and
  /// modification time come from the opened file's status; an empty file becomes a stored
  /// entry. The file is read during the call, so it may be closed afterwards. It is written once
  /// its blocks are compressed, during this call or a later one (with one thread, before this
  /// one returns). `permissions` are the Unix permission bits the central directory gives the
  /// entry (0644 unless told). A failure of this file is raised after the files before it are
  /// written, so that one of theirs, which came first, is raised instead.
  void addFile(const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// The same for a file already open as `source`, read from where it stands; `file` names it
  /// in error sentences.
  void addFile(int source, const std::filesystem::path& file, std::string_view name,
               std::uint16_t permissions = zip::kPermissionsFile);

  /// Adds files in this order, each opened only when its turn comes, as addFile would add it.
  /// Those expected to be small are opened, read and compressed by the pool, several to a task;
  /// the others are opened on the calling thread. A file whose opener gives no descriptor is
  /// left out (onFileLeftOut hears of it); a failure, of the opener or of reading, is raised
  /// once the files before it are written, by this call or a later one.
  void addFiles(std::vector<DeferredFile> files);

  /// Makes room in written() for `entries` entries in all, so that a long list does not grow
  /// by copying.
  void reserve(std::size_t entries) { written_.reserve(entries); }

  /// Writes every file added so far, waiting for its compression; throws the first failure.
  void writePending();

  /// Writes the central directory and the end record (with the Zip64 end record and its locator
  /// before it where needed) and flushes the file to storage.
  void finish();

  /// Calls `written` as each file's entry is complete (see FileWritten).
  void onFileWritten(FileWritten written) { fileWritten_ = std::move(written); }
  /// Calls `leftOut` for each file of addFiles left out (see FileLeftOut).
  void onFileLeftOut(FileLeftOut leftOut) { fileLeftOut_ = std::move(leftOut); }

  /// The entries written so far, in the order of the central directory.
  const std::vector<Written>& written() const { return written_; }
  /// The number of bytes written so far: where the next byte goes.
  std::uint64_t offset() const { return offset_; }

  /// Test seam: leaves a hole of `bytes` zero bytes (sparse on disk) before the next entry, so
  /// that offsets past 4 GiB can be reached without writing 4 GiB.
  void skipForTesting(std::uint64_t bytes);

 private:
  struct Block;
  struct Batch;
  struct Pending;
  struct Compression;
  struct Compressor;

  void queueFile(int source, const std::filesystem::path& file, std::string_view name,
                 std::uint16_t permissions);
  void queueBatch(std::vector<DeferredFile>& files, std::size_t& next);
  void queueOpened(DeferredFile& file);
  void readBlocks(int source, const std::filesystem::path& file, std::uint64_t size,
                  const std::function<void(std::unique_ptr<Block>)>& take);
  std::unique_ptr<Block> readBlock(int source, const std::filesystem::path& file,
                                   std::uint64_t& remaining, std::string_view preceding);
  void queue(std::function<void(Compressor&)> work, std::future<void>& done);
  bool writeFront(bool wait);
  bool writeStreamed(Pending& front, bool wait);
  bool writeBatch(Batch& batch, bool wait);
  void writeNow(DeferredFile& file);
  void completeEntry(Written entry, std::uint64_t compressed, std::uint64_t size);
  void record(Written entry);
  void writeReady();
  void throwIfFailed();
  void dropUnfinished();
  void abandon() noexcept;
  void writeLocalHeader(const Written& entry);
  void writeBytes(std::string_view bytes);

  std::filesystem::path location_;
  UniqueFd fd_;
  std::vector<Written> written_;
  std::uint64_t offset_ = 0;
  unsigned threads_;
  FileWritten fileWritten_;
  FileLeftOut fileLeftOut_;
  std::deque<std::unique_ptr<Pending>> pending_;  // files added and not yet written, in order
  std::size_t tasksPending_ = 0;                  // blocks and batches queued and not yet written
  std::exception_ptr failure_;                    // of writing the pending files, raised once
  std::unique_ptr<char[]> readBuffer_;
  // Declared last, so destroyed first: its threads stop before the blocks they work on go.
  std::unique_ptr<Compression> compression_;
};

}  // namespace corvelstow
