#pragma once

// The records of the Mach-O format that adding a library to an executable reads and writes, and
// a cursor that parses them. A 64-bit Arm slice is little-endian; the fat header and its table
// of slices are big-endian. The constants are the format's own values, named after them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvelstow::macho {

enum class ByteOrder { little, big };

constexpr std::uint32_t kMagic64 = 0xFEEDFACF;       // MH_MAGIC_64
constexpr std::uint32_t kMagic32 = 0xFEEDFACE;       // MH_MAGIC: 32-bit code, never arm64
constexpr std::uint32_t kFatMagic = 0xCAFEBABE;      // FAT_MAGIC
constexpr std::uint32_t kFatMagic64 = 0xCAFEBABF;    // FAT_MAGIC_64
constexpr std::uint32_t kCpuTypeArm64 = 0x0100000C;  // CPU_TYPE_ARM | CPU_ARCH_ABI64
constexpr std::uint32_t kFileTypeExecute = 0x2;      // MH_EXECUTE
constexpr std::uint32_t kFileTypeDylib = 0x6;        // MH_DYLIB

constexpr std::uint32_t kRequiredByDyld = 0x80000000;  // LC_REQ_DYLD
constexpr std::uint32_t kSymtab = 0x2;                 // LC_SYMTAB
constexpr std::uint32_t kLoadDylib = 0xC;              // LC_LOAD_DYLIB
constexpr std::uint32_t kIdDylib = 0xD;                // LC_ID_DYLIB
constexpr std::uint32_t kLoadWeakDylib = 0x18 | kRequiredByDyld;
constexpr std::uint32_t kSegment64 = 0x19;  // LC_SEGMENT_64
constexpr std::uint32_t kRpath = 0x1C | kRequiredByDyld;
constexpr std::uint32_t kCodeSignature = 0x1D;
constexpr std::uint32_t kReexportDylib = 0x1F | kRequiredByDyld;
constexpr std::uint32_t kLazyLoadDylib = 0x20;
constexpr std::uint32_t kEncryptionInfo = 0x21;
constexpr std::uint32_t kLoadUpwardDylib = 0x23 | kRequiredByDyld;
constexpr std::uint32_t kEncryptionInfo64 = 0x2C;
constexpr std::uint32_t kDyldInfo = 0x22;  // LC_DYLD_INFO
constexpr std::uint32_t kDyldInfoOnly = 0x22 | kRequiredByDyld;
constexpr std::uint32_t kDyldChainedFixups = 0x34 | kRequiredByDyld;

constexpr std::uint32_t kSectionTypeMask = 0xFF;      // SECTION_TYPE
constexpr std::uint32_t kZeroFill = 0x1;              // S_ZEROFILL: no bytes in the file
constexpr std::uint32_t kGigabyteZeroFill = 0xC;      // S_GB_ZEROFILL
constexpr std::uint32_t kThreadLocalZeroFill = 0x12;  // S_THREAD_LOCAL_ZEROFILL

/// The first bytes of a fat file: how many slices its table lists.
struct FatHeader {
  static constexpr std::size_t kSize = 8;
  std::uint32_t magic = kFatMagic;
  std::uint32_t nfatArch = 0;
};

/// One slice of a fat file (fat_arch, or fat_arch_64 after FAT_MAGIC_64).
struct FatArch {
  static constexpr std::size_t kSize = 20;
  static constexpr std::size_t kSize64 = 32;
  std::uint32_t cputype = 0;
  std::uint32_t cpusubtype = 0;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::uint32_t align = 0;
};

/// The header of a 64-bit slice (mach_header_64); its load commands follow it.
struct MachHeader64 {
  static constexpr std::size_t kSize = 32;
  std::uint32_t magic = kMagic64;
  std::uint32_t cputype = 0;
  std::uint32_t cpusubtype = 0;
  std::uint32_t filetype = 0;
  std::uint32_t ncmds = 0;
  std::uint32_t sizeofcmds = 0;
  std::uint32_t flags = 0;
  std::uint32_t reserved = 0;
};

/// What every load command starts with (load_command).
struct LoadCommand {
  static constexpr std::size_t kSize = 8;
  std::uint32_t cmd = 0;
  std::uint32_t cmdsize = 0;
};

/// A segment (segment_command_64); `nsects` section records follow it inside the command.
struct SegmentCommand64 {
  static constexpr std::size_t kSize = 72;
  std::uint32_t cmd = kSegment64;
  std::uint32_t cmdsize = 0;
  std::string segname;  ///< up to 16 bytes, without the padding zeros
  std::uint64_t vmaddr = 0;
  std::uint64_t vmsize = 0;
  std::uint64_t fileoff = 0;
  std::uint64_t filesize = 0;
  std::uint32_t maxprot = 0;
  std::uint32_t initprot = 0;
  std::uint32_t nsects = 0;
  std::uint32_t flags = 0;
};

/// One section of a segment (section_64).
struct Section64 {
  static constexpr std::size_t kSize = 80;
  std::string sectname;
  std::string segname;
  std::uint64_t addr = 0;
  std::uint64_t size = 0;
  std::uint32_t offset = 0;
  std::uint32_t flags = 0;

  /// Whether the section's bytes are in the file: not a zero-fill section, and not empty.
  bool hasFileBytes() const;
};

/// A library to load, or a library's own name (dylib_command); the name follows the fixed part.
struct DylibCommand {
  static constexpr std::size_t kSize = 24;
  std::uint32_t cmd = kLoadDylib;
  std::uint32_t cmdsize = 0;
  std::string name;
  std::uint32_t timestamp = 0;
  std::uint32_t currentVersion = 0;
  std::uint32_t compatibilityVersion = 0;
};

/// A folder that @rpath stands for (rpath_command); the path follows the fixed part.
struct RpathCommand {
  static constexpr std::size_t kSize = 12;
  std::uint32_t cmd = kRpath;
  std::uint32_t cmdsize = 0;
  std::string path;
};

/// The symbol table and its strings (symtab_command); each symbol is an nlist_64 of kNlistSize.
struct SymtabCommand {
  static constexpr std::size_t kSize = 24;
  static constexpr std::size_t kNlistSize = 16;
  std::uint32_t cmd = kSymtab;
  std::uint32_t cmdsize = 0;
  std::uint32_t symoff = 0;
  std::uint32_t nsyms = 0;
  std::uint32_t stroff = 0;
  std::uint32_t strsize = 0;
};

/// Where dyld's compressed information lies (dyld_info_command): rebasing, binding, weak and
/// lazy binding, and the exports.
struct DyldInfoCommand {
  static constexpr std::size_t kSize = 48;
  std::uint32_t cmd = kDyldInfoOnly;
  std::uint32_t cmdsize = 0;
  std::uint32_t rebaseOff = 0;
  std::uint32_t rebaseSize = 0;
  std::uint32_t bindOff = 0;
  std::uint32_t bindSize = 0;
  std::uint32_t weakBindOff = 0;
  std::uint32_t weakBindSize = 0;
  std::uint32_t lazyBindOff = 0;
  std::uint32_t lazyBindSize = 0;
  std::uint32_t exportOff = 0;
  std::uint32_t exportSize = 0;
};

/// Where a blob of __LINKEDIT lies, such as the code signature (linkedit_data_command).
struct LinkeditDataCommand {
  static constexpr std::size_t kSize = 16;
  std::uint32_t cmd = 0;
  std::uint32_t cmdsize = 0;
  std::uint32_t dataoff = 0;
  std::uint32_t datasize = 0;
};

/// The encrypted range of an App Store binary (encryption_info_command_64); cryptid 0 means the
/// range is in the clear.
struct EncryptionInfoCommand64 {
  static constexpr std::size_t kSize = 24;
  std::uint32_t cmd = kEncryptionInfo64;
  std::uint32_t cmdsize = 0;
  std::uint32_t cryptoff = 0;
  std::uint32_t cryptsize = 0;
  std::uint32_t cryptid = 0;
  std::uint32_t pad = 0;
};

/// Reads numbers and byte runs in one byte order, checking the bounds before every read. A read
/// past the end gives zero or an empty view and marks the cursor failed for good, so a parser
/// reads a whole record and then asks ok() once.
class MachCursor {
 public:
  MachCursor(std::string_view bytes, ByteOrder order, std::size_t position = 0)
      : bytes_(bytes), order_(order), position_(std::min(position, bytes.size())) {}

  std::size_t position() const { return position_; }
  std::size_t remaining() const { return bytes_.size() - position_; }
  bool ok() const { return ok_; }

  std::uint32_t get32() { return static_cast<std::uint32_t>(getNumber(4)); }
  std::uint64_t get64() { return getNumber(8); }
  std::string_view getBytes(std::size_t count);

 private:
  std::uint64_t getNumber(std::size_t width);

  std::string_view bytes_;
  ByteOrder order_;
  std::size_t position_;
  bool ok_ = true;
};

/// Appends `value` in the given byte order.
void put32(std::string& out, std::uint32_t value, ByteOrder order);
void put64(std::string& out, std::uint64_t value, ByteOrder order);

/// The size of a load command holding `fixedSize` bytes and a string with its terminating zero,
/// rounded up to the 8 bytes every 64-bit load command is a multiple of.
std::uint32_t paddedCommandSize(std::size_t fixedSize, std::string_view text);

// One read function per record, from a cursor in the record's byte order. Each gives nothing when
// the bytes are too short; one with a string also when the string's offset lies outside the
// command.
std::optional<FatHeader> readFatHeader(MachCursor& cursor);
std::optional<FatArch> readFatArch(MachCursor& cursor, bool is64);
std::optional<MachHeader64> readMachHeader64(MachCursor& cursor);
std::optional<LoadCommand> readLoadCommand(MachCursor& cursor);
std::optional<SegmentCommand64> readSegmentCommand64(MachCursor& cursor);
std::optional<Section64> readSection64(MachCursor& cursor);
/// `command` holds the whole load command, `cmdsize` bytes.
std::optional<DylibCommand> readDylibCommand(std::string_view command);
std::optional<RpathCommand> readRpathCommand(std::string_view command);
std::optional<LinkeditDataCommand> readLinkeditDataCommand(std::string_view command);
std::optional<SymtabCommand> readSymtabCommand(std::string_view command);
std::optional<DyldInfoCommand> readDyldInfoCommand(std::string_view command);
std::optional<EncryptionInfoCommand64> readEncryptionInfoCommand64(std::string_view command);

// One write function per record that is written back: the fat table big-endian, the rest
// little-endian. A command with a string is written whole, padded with zeros to its cmdsize.
void write(std::string& out, const FatArch& arch, bool is64);
void write(std::string& out, const MachHeader64& header);
void write(std::string& out, const SegmentCommand64& segment);  // the fixed part only
void write(std::string& out, const DylibCommand& command);
void write(std::string& out, const RpathCommand& command);

}  // namespace corvelstow::macho
