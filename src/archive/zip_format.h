#pragma once

// The records of the ZIP format as this archive writes and reads them, and the little-endian
// helpers that serialise and parse them. All numbers in an archive are little-endian.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/dates.h"

namespace corvelstow::zip {

constexpr std::uint16_t kVersionNeeded = 20;       // 2.0: deflate and folders
constexpr std::uint16_t kVersionNeededZip64 = 45;  // 4.5: Zip64 extensions
constexpr std::uint16_t kVersionMadeBy = 0x031E;   // host 3 (Unix), format version 3.0
constexpr std::uint16_t kFlagEncrypted = 1u << 0;
constexpr std::uint16_t kFlagDataDescriptor = 1u << 3;
constexpr std::uint16_t kFlagUtf8 = 1u << 11;
constexpr std::uint8_t kHostUnix = 3;  // the high byte of "version made by" for a Unix tool
constexpr std::uint16_t kMethodStored = 0;
constexpr std::uint16_t kMethodDeflated = 8;
constexpr std::uint32_t kAttributesFolder = 0x41ED0000;  // Unix mode 040755 in the high half
constexpr std::uint16_t kPermissionsFile = 0644;         // a file's permissions unless told

/// The external attributes of a file entry with these permission bits: Unix mode 0100000 | bits
/// in the high half (0x81A40000 for 0644).
constexpr std::uint32_t fileAttributes(std::uint16_t permissions) {
  return (0100000u | (permissions & 07777u)) << 16;
}

/// Whether a central record's "version made by" names a host whose external attributes hold a
/// Unix mode in their high half: Unix (3) or macOS (19). Their names may hold a backslash as an
/// ordinary character; elsewhere it may be a separator.
constexpr bool madeOnUnix(std::uint16_t versionMadeBy) {
  return versionMadeBy >> 8 == 3 || versionMadeBy >> 8 == 19;
}

/// Whether a central record's "version made by" names a DOS or Windows file system (FAT, OS/2
/// HPFS, NTFS under both numbers tools give it, VFAT), whose external attributes hold the MS-DOS
/// attributes in their low byte.
constexpr bool madeOnDos(std::uint16_t versionMadeBy) {
  const int host = versionMadeBy >> 8;
  return host == 0 || host == 6 || host == 10 || host == 11 || host == 14;
}
constexpr std::uint32_t kDosAttributeFolder = 0x10;

constexpr std::uint16_t kZip64ExtraId = 0x0001;
constexpr std::uint16_t kUnicodePathExtraId = 0x7075;  // Info-ZIP's UTF-8 copy of a name
constexpr std::uint32_t kZip64Marker32 = 0xFFFFFFFF;   // "see the Zip64 record" in a 32-bit field
constexpr std::uint16_t kZip64Marker16 = 0xFFFF;
constexpr std::size_t kMaxCommentLength = 65535;

/// Written at the start of every entry, followed by the name and the extra field.
struct LocalFileHeader {
  static constexpr std::uint32_t kSignature = 0x04034B50;
  static constexpr std::size_t kFixedSize = 30;
  std::uint16_t versionNeeded = kVersionNeeded;
  std::uint16_t flags = 0;
  std::uint16_t method = 0;
  std::uint16_t time = 0;
  std::uint16_t date = 0;
  std::uint32_t crc = 0;
  std::uint32_t compressedSize = 0;
  std::uint32_t size = 0;
  std::uint16_t nameLength = 0;
  std::uint16_t extraLength = 0;
};

/// Follows the data of an entry whose sizes and CRC were unknown when its header was written.
struct DataDescriptor {
  static constexpr std::uint32_t kSignature = 0x08074B50;
  static constexpr std::size_t kFixedSize = 16;
  std::uint32_t crc = 0;
  std::uint32_t compressedSize = 0;
  std::uint32_t size = 0;
};

/// The same with 8-byte sizes: follows the data of an entry whose local header has a Zip64 field.
struct Zip64DataDescriptor {
  static constexpr std::uint32_t kSignature = DataDescriptor::kSignature;
  static constexpr std::size_t kFixedSize = 24;
  std::uint32_t crc = 0;
  std::uint64_t compressedSize = 0;
  std::uint64_t size = 0;
};

/// One entry of the central directory; the views point into the directory's bytes.
struct CentralDirectoryHeader {
  static constexpr std::uint32_t kSignature = 0x02014B50;
  static constexpr std::size_t kFixedSize = 46;
  std::uint16_t versionMadeBy = kVersionMadeBy;
  std::uint16_t versionNeeded = kVersionNeeded;
  std::uint16_t flags = 0;
  std::uint16_t method = 0;
  std::uint16_t time = 0;
  std::uint16_t date = 0;
  std::uint32_t crc = 0;
  std::uint32_t compressedSize = 0;
  std::uint32_t size = 0;
  std::uint16_t diskStart = 0;
  std::uint16_t internalAttributes = 0;
  std::uint32_t externalAttributes = 0;
  std::uint32_t localHeaderOffset = 0;
  std::string_view name;
  std::string_view extra;
  std::string_view comment;
};

/// The last record of an archive, followed only by its comment.
struct EndOfCentralDirectory {
  static constexpr std::uint32_t kSignature = 0x06054B50;
  static constexpr std::size_t kFixedSize = 22;
  std::uint16_t diskNumber = 0;
  std::uint16_t directoryDisk = 0;
  std::uint16_t entriesOnDisk = 0;
  std::uint16_t totalEntries = 0;
  std::uint32_t directorySize = 0;
  std::uint32_t directoryOffset = 0;
  std::uint16_t commentLength = 0;
};

/// Stands right before the end record of a Zip64 archive and points at the Zip64 end record.
struct Zip64EndLocator {
  static constexpr std::uint32_t kSignature = 0x07064B50;
  static constexpr std::size_t kFixedSize = 20;
  std::uint32_t directoryDisk = 0;
  std::uint64_t zip64EndOffset = 0;
  std::uint32_t totalDisks = 0;
};

/// The 64-bit counterpart of the end record (its fixed part; an extensible field may follow).
struct Zip64EndOfCentralDirectory {
  static constexpr std::uint32_t kSignature = 0x06064B50;
  static constexpr std::size_t kFixedSize = 56;
  std::uint64_t recordSize = 0;
  std::uint16_t versionMadeBy = 0;
  std::uint16_t versionNeeded = 0;
  std::uint32_t diskNumber = 0;
  std::uint32_t directoryDisk = 0;
  std::uint64_t entriesOnDisk = 0;
  std::uint64_t totalEntries = 0;
  std::uint64_t directorySize = 0;
  std::uint64_t directoryOffset = 0;
};

// Serialising: each appends the little-endian bytes to `out`.
void put16(std::string& out, std::uint16_t value);
void put32(std::string& out, std::uint32_t value);
void put64(std::string& out, std::uint64_t value);

/// Reads little-endian numbers and byte runs from a buffer, checking the bounds before every
/// read. A read past the end returns zero or an empty view and marks the cursor failed for good,
/// so a parser reads a whole record and then asks ok() once.
class ByteCursor {
 public:
  explicit ByteCursor(std::string_view bytes, std::size_t position = 0)
      : bytes_(bytes), position_(position <= bytes.size() ? position : bytes.size()) {}

  std::size_t position() const { return position_; }
  std::size_t remaining() const { return bytes_.size() - position_; }
  bool has(std::size_t count) const { return ok_ && count <= remaining(); }
  bool ok() const { return ok_; }

  std::uint16_t get16() { return static_cast<std::uint16_t>(getLittle(2)); }
  std::uint32_t get32() { return static_cast<std::uint32_t>(getLittle(4)); }
  std::uint64_t get64() { return getLittle(8); }
  std::string_view getBytes(std::size_t count);
  void skip(std::size_t count) { getBytes(count); }

 private:
  std::uint64_t getLittle(std::size_t width);

  std::string_view bytes_;
  std::size_t position_;
  bool ok_ = true;
};

// One write function per record: the fixed part only; the caller appends the name.
void write(std::string& out, const LocalFileHeader& header);
void write(std::string& out, const DataDescriptor& descriptor);
void write(std::string& out, const Zip64DataDescriptor& descriptor);
void write(std::string& out, const CentralDirectoryHeader& header);  // with name, extra, comment
void write(std::string& out, const EndOfCentralDirectory& end);
void write(std::string& out, const Zip64EndOfCentralDirectory& end);  // its fixed part alone
void write(std::string& out, const Zip64EndLocator& locator);

/// A Zip64 extended-information block holding `values` (each 8 bytes), in the order the format
/// fixes: size, compressed size, local header offset, as far as their fields are marked.
std::string zip64Extra(const std::vector<std::uint64_t>& values);

// One read function per record. Each checks the signature and the length, and gives nothing
// when either is wrong.
std::optional<LocalFileHeader> readLocalFileHeader(ByteCursor& cursor);
/// With its name, extra field and comment, all of which must lie inside the cursor's bytes.
std::optional<CentralDirectoryHeader> readCentralDirectoryHeader(ByteCursor& cursor);
std::optional<EndOfCentralDirectory> readEndOfCentralDirectory(ByteCursor& cursor);
std::optional<Zip64EndLocator> readZip64EndLocator(ByteCursor& cursor);
std::optional<Zip64EndOfCentralDirectory> readZip64EndOfCentralDirectory(ByteCursor& cursor);

/// The 64-bit sizes and offset of a central record: its 32-bit fields, each replaced from the
/// Zip64 extended information of `extra` when the field holds 0xFFFFFFFF.
struct EntryExtent {
  std::uint64_t size = 0;
  std::uint64_t compressedSize = 0;
  std::uint64_t localHeaderOffset = 0;
};
EntryExtent entryExtent(const CentralDirectoryHeader& header);

/// The UTF-8 name of a central record's Info-ZIP Unicode Path field, when it has one that is
/// current: version 1, made for the record's name as it stands (the CRC-32 of the name matches),
/// well-formed UTF-8 and not empty. The first such field counts.
std::optional<std::string_view> unicodePath(const CentralDirectoryHeader& header);

/// Whether `bytes` are well-formed UTF-8.
bool isUtf8(std::string_view bytes);

/// An entry name as text: the bytes decoded as UTF-8, each ill-formed sequence replaced by
/// U+FFFD (one per maximal ill-formed subpart, as Unicode recommends).
std::string decodeName(std::string_view bytes);

/// An entry name stored without the UTF-8 flag, as text: the bytes decoded as code page 437, the
/// IBM PC character set that the format names for such names. Every byte maps to a character.
std::string decodeCp437(std::string_view bytes);

/// A moment as the DOS time and date of the format, in the device's local time zone.
struct DosDateTime {
  std::uint16_t time = 0;
  std::uint16_t date = 0;
};
DosDateTime dosDateTime(StowDate date);

}  // namespace corvelstow::zip
