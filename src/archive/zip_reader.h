#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/deflate_stream.h"
#include "archive/zip_format.h"
#include "base/unique_fd.h"

namespace corvelstow {

/// One entry as the central directory describes it.
struct StowZipItem {
  /// Where `path` comes from: the stored name as UTF-8 (the name's UTF-8 flag is set, or its
  /// bytes are UTF-8), the UTF-8 name of a current Info-ZIP Unicode Path field, or the stored
  /// name as code page 437 (bytes that are not UTF-8, unflagged).
  enum class NameEncoding : std::uint8_t { utf8, unicodePathField, cp437 };

  /// The name as text (U+FFFD for bytes of a flagged name that are not UTF-8). A folder's path,
  /// and only a folder's, ends in "/": a folder is an entry whose stored name ends in "/" or,
  /// made on DOS or Windows, whose attributes say so.
  std::string path;
  /// The name's bytes as the central directory holds them, kept apart only where they differ
  /// from `path`: a large archive's names are then held once, and its entries stay small.
  std::shared_ptr<const std::string> otherStoredName;
  NameEncoding nameEncoding = NameEncoding::utf8;
  std::uint16_t versionMadeBy = 0;  ///< its high byte names the system that made the entry
  std::uint16_t flags = 0;          ///< the general-purpose flags
  std::uint16_t method = 0;
  std::uint32_t crc = 0;
  std::uint64_t compressedSize = 0;
  std::uint64_t size = 0;
  std::uint64_t headerOffset = 0;  ///< of the entry's local header
  std::uint16_t mode = 0;  ///< Unix type and permission bits, when made on a Unix host; else 0

  /// The name's bytes as the central directory holds them.
  std::string_view storedName() const { return otherStoredName ? *otherStoredName : path; }
  /// Whether the entry is a folder, which holds no data: its declared sizes are not checked.
  bool isFolder() const { return !path.empty() && path.back() == '/'; }
  /// Whether a backslash in its name may be a separator: in an entry made on DOS or Windows (or
  /// any system but Unix and macOS, where it is a character like any other).
  bool backslashSeparates() const { return !zip::madeOnUnix(versionMadeBy); }
};

/// Whether an entry's path may be unpacked below a folder: not empty, not absolute, no ".."
/// piece, no NUL byte, where the system would end the name ("a.txt\0.exe" would be written as
/// a.txt), and no backslash when `backslashSeparates`: unpackers on the entry's own system read
/// it as a separator ("a\..\..\x").
bool isSafeEntryPath(std::string_view path, bool backslashSeparates);

/// Whether the entry's data could unpack to its declared size: a stored entry's two sizes are
/// equal, and DEFLATE gives at most 1,032 bytes for each byte (the most a two-bit match of 258
/// bytes gives). Entries of other methods are not judged.
bool declaresPossibleSize(const StowZipItem& item);

/// Reads a ZIP archive whose entries are stored or deflated, Zip64 records included, also behind
/// data in front of it (a self-extracting stub). Nothing is unpacked without its CRC-32 and its
/// declared size being checked. Move-only; the file is closed once the reader and every unpacker
/// made from it are gone.
///
/// Unpacking throws StowZipError (notAZip for a missing local header, encrypted,
/// unsupportedMethod, wrongSize, damaged) or StowFileError for a failed read or write; the reader
/// stays usable after a failure. A folder unpacks to nothing, whatever it declares.
class StowZipReader {
 public:
  class Unpacker;

  /// Opens the archive and reads its directory, as the end record nearest the end of the file
  /// places it, or when that directory does not hold together, as an earlier one does. Throws
  /// StowFileError when the file cannot be opened or read, and StowZipError::notAZip when it is
  /// not an archive: no end record, a directory that does not hold the records the end record
  /// counts or does not end where it should, or entries whose local data overlap.
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

  /// Streams the entry to `sink` in pieces of at most 1 MiB. Never hands on more than the
  /// entry's declared size: unpacking stops with StowZipError::wrongSize as soon as the data
  /// passes it, ends short of it, or does not end within the declared compressed bytes, and
  /// before anything is read when the size could not be reached at all. A sink that throws stops
  /// the unpacking and its exception is passed on.
  void extract(const StowZipItem& item, const ByteSink& sink);

  /// A new unpacker of this archive's entries, with buffers of its own: one for each thread that
  /// unpacks entries while others do.
  Unpacker unpacker() const;

 private:
  struct Source;
  struct EndRecord;
  struct DirectoryPlace;
  std::vector<EndRecord> findEndRecords();
  std::optional<std::pair<zip::Zip64EndOfCentralDirectory, std::uint64_t>> findZip64End(
      const zip::Zip64EndLocator& locator, std::uint64_t locatorAt);
  DirectoryPlace locateDirectory(const EndRecord& end);
  void readDirectory();
  void readDirectory(const EndRecord& end);
  void refuseOverlaps(std::uint64_t directoryStart);
  Unpacker& ownUnpacker();

  std::shared_ptr<Source> source_;
  std::vector<StowZipItem> items_;
  std::unique_ptr<Unpacker> unpacker_;  // for extract and data, made on first use
};

/// Unpacks entries of one archive, one at a time, through a buffer and a decompressor of its
/// own; unpackers of one reader may work at once on different threads. Move-only; it keeps the
/// archive open while it lives. Fails as StowZipReader's unpacking does.
class StowZipReader::Unpacker {
 public:
  ~Unpacker();
  Unpacker(Unpacker&&) noexcept;
  Unpacker& operator=(Unpacker&&) noexcept;

  /// As StowZipReader::extract.
  void extract(const StowZipItem& item, const ByteSink& sink);

  /// As extract, with the checksum and `sink` on a second thread while this one reads and
  /// decompresses ahead of it (by at most 1 MiB): for a large entry, whose checksum and writing
  /// then no longer hold up its decompression. `sink` is called on that thread, in order. The
  /// failure passed on is the one that unpacking on one thread would have met first; the second
  /// thread has ended when this returns or throws.
  void extractBeside(const StowZipItem& item, const ByteSink& sink);

 private:
  friend class StowZipReader;
  explicit Unpacker(std::shared_ptr<const Source> source);
  void unpack(const StowZipItem& item, const ByteSink& sink);
  void unpackStored(const StowZipItem& item, std::uint64_t start, const ByteSink& sink);
  void unpackDeflated(const StowZipItem& item, std::uint64_t start, const ByteSink& sink);
  char* buffer();

  std::shared_ptr<const Source> source_;
  std::unique_ptr<InflateStream> inflate_;  // made on the first deflated entry, then reset
  std::unique_ptr<char[]> buffer_;
};

}  // namespace corvelstow
