#include "inject/library_ordinals.h"

#include <string>
#include <string_view>

#include "inject/inject_error.h"
#include "inject/macho_format.h"

namespace corvelstow::macho {
namespace {

// Bind opcodes (BIND_OPCODE_*): the high four bits; the low four are an immediate operand.
constexpr unsigned kOpcodeMask = 0xF0;
constexpr unsigned kImmediateMask = 0x0F;
constexpr unsigned kSetDylibOrdinalImm = 0x10;
constexpr unsigned kSetDylibOrdinalUleb = 0x20;
constexpr unsigned kSetSymbolTrailingFlagsImm = 0x40;  // then the symbol's name and its zero
constexpr unsigned kSetAddendSleb = 0x60;
constexpr unsigned kSetSegmentAndOffsetUleb = 0x70;
constexpr unsigned kAddAddrUleb = 0x80;
constexpr unsigned kDoBindAddAddrUleb = 0xA0;
constexpr unsigned kDoBindUlebTimesSkippingUleb = 0xC0;
constexpr unsigned kThreaded = 0xD0;
constexpr unsigned kThreadedSetBindOrdinalTableSizeUleb = 0x00;
constexpr unsigned kLastOpcode = kThreaded;

// The chained fixups' import formats (DYLD_CHAINED_IMPORT*): the size of one import, and the
// largest ordinal its field holds before the special values (self, main executable, flat and
// weak lookup) begin.
constexpr std::size_t kChainedHeaderSize = 28;
struct ImportFormat {
  std::size_t size;
  unsigned ordinalBits;
  std::uint64_t largestOrdinal;
};
std::optional<ImportFormat> importFormat(std::uint32_t format) {
  switch (format) {
    case 1:  // lib_ordinal:8 weak_import:1 name_offset:23
      return ImportFormat{4, 8, 0xF0};
    case 2:  // the same, and a 32-bit addend
      return ImportFormat{8, 8, 0xF0};
    case 3:  // lib_ordinal:16 weak_import:1 reserved:15 name_offset:32, and a 64-bit addend
      return ImportFormat{16, 16, 0xFFF0};
    default:
      return std::nullopt;
  }
}

// nlist_64: an undefined symbol of a two-level namespace image keeps its library's ordinal in
// the high byte of n_desc (GET_LIBRARY_ORDINAL).
constexpr unsigned kStabMask = 0xE0;
constexpr unsigned kTypeMask = 0x0E;
constexpr unsigned kUndefined = 0x0;
constexpr unsigned kPreboundUndefined = 0xC;
constexpr std::size_t kTypeAt = 4;
constexpr std::size_t kDescAt = 6;
constexpr std::uint64_t kLargestSymbolOrdinal = 0xFD;  // MAX_LIBRARY_ORDINAL

/// One table's bytes, renumbered in place.
class Renumbering {
 public:
  Renumbering(std::string bytes, std::uint32_t inserted, const std::string& name)
      : bytes_(std::move(bytes)), inserted_(inserted), name_(name) {}

  const std::string& bytes() const { return bytes_; }
  bool changed() const { return changed_; }

  // Every ordinal the bind opcodes set; false when one does not fit where it is written.
  bool bindOpcodes() {
    std::size_t at = 0;
    while (at < bytes_.size()) {
      const unsigned byte = static_cast<unsigned char>(bytes_[at++]);
      const unsigned opcode = byte & kOpcodeMask, immediate = byte & kImmediateMask;
      if (opcode > kLastOpcode) damaged("its binding information holds an unknown opcode");
      if (opcode == kSetDylibOrdinalImm && immediate >= inserted_) {
        if (immediate + 1 > kImmediateMask) return false;
        bytes_[at - 1] = static_cast<char>(kSetDylibOrdinalImm | (immediate + 1));
        changed_ = true;
      } else if (opcode == kSetDylibOrdinalUleb) {
        const std::size_t start = at;
        const std::uint64_t ordinal = readUleb(at);
        if (ordinal >= inserted_ && !writeUleb(start, at - start, ordinal + 1)) return false;
      } else if (opcode == kSetSymbolTrailingFlagsImm) {
        const std::size_t end = bytes_.find('\0', at);
        if (end == std::string::npos) damaged("its binding information is cut short");
        at = end + 1;
      } else if (opcode == kSetAddendSleb || opcode == kSetSegmentAndOffsetUleb ||
                 opcode == kAddAddrUleb || opcode == kDoBindAddAddrUleb ||
                 (opcode == kThreaded && immediate == kThreadedSetBindOrdinalTableSizeUleb)) {
        readUleb(at);  // a SLEB128 spans its bytes as a ULEB128 does
      } else if (opcode == kDoBindUlebTimesSkippingUleb) {
        readUleb(at);
        readUleb(at);
      }
    }
    return true;
  }

  // Every ordinal of the chained fixups' imports.
  bool chainedImports() {
    MachCursor header(bytes_, ByteOrder::little);
    header.get32();  // fixups_version
    header.get32();  // starts_offset
    const std::uint32_t importsOffset = header.get32();
    header.get32();  // symbols_offset
    const std::uint32_t count = header.get32();
    const std::uint32_t formatNumber = header.get32();
    if (!header.ok() || bytes_.size() < kChainedHeaderSize) {
      damaged("its chained fixups are cut short");
    }
    const std::optional<ImportFormat> format = importFormat(formatNumber);
    if (!format) damaged("its chained fixups' imports are of an unknown format");
    if (importsOffset > bytes_.size() || count > (bytes_.size() - importsOffset) / format->size) {
      damaged("its chained fixups' imports run past their end");
    }
    const std::uint64_t mask = (std::uint64_t{1} << format->ordinalBits) - 1;
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::size_t at = importsOffset + std::size_t{i} * format->size;
      const std::size_t width = format->ordinalBits == 8 ? 4 : 8;
      std::uint64_t word = number(at, width);
      const std::uint64_t ordinal = word & mask;
      if (ordinal < inserted_ || ordinal > format->largestOrdinal) continue;
      if (ordinal + 1 > format->largestOrdinal) return false;
      setNumber(at, width, (word & ~mask) | (ordinal + 1));
    }
    return true;
  }

  // Every ordinal in the n_desc of the undefined symbols.
  bool symbols() {
    for (std::size_t at = 0; at + SymtabCommand::kNlistSize <= bytes_.size();
         at += SymtabCommand::kNlistSize) {
      const unsigned type = static_cast<unsigned char>(bytes_[at + kTypeAt]);
      if ((type & kStabMask) != 0) continue;
      if ((type & kTypeMask) != kUndefined && (type & kTypeMask) != kPreboundUndefined) continue;
      const std::uint64_t desc = number(at + kDescAt, 2);
      const std::uint64_t ordinal = desc >> 8;
      if (ordinal < inserted_ || ordinal > kLargestSymbolOrdinal) continue;
      if (ordinal + 1 > kLargestSymbolOrdinal) return false;
      setNumber(at + kDescAt, 2, (desc & 0xFF) | (ordinal + 1) << 8);
    }
    return true;
  }

 private:
  [[noreturn]] void damaged(const std::string& reason) const {
    throw StowInjectError::damaged(name_, reason);
  }

  // The ULEB128 at `at`, moving past it.
  std::uint64_t readUleb(std::size_t& at) {
    std::uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
      if (at >= bytes_.size() || shift > 63) damaged("its binding information is cut short");
      const unsigned byte = static_cast<unsigned char>(bytes_[at++]);
      value |= std::uint64_t{byte & 0x7F} << shift;
      if ((byte & 0x80) == 0) return value;
    }
  }

  // `value` as a ULEB128 of exactly `length` bytes at `at`: false when it needs more.
  bool writeUleb(std::size_t at, std::size_t length, std::uint64_t value) {
    if (length < 10 && value >> (7 * length) != 0) return false;
    for (std::size_t i = 0; i < length; ++i) {
      const unsigned more = i + 1 < length ? 0x80 : 0;
      bytes_[at + i] = static_cast<char>((value & 0x7F) | more);
      value >>= 7;
    }
    changed_ = true;
    return true;
  }

  std::uint64_t number(std::size_t at, std::size_t width) const {
    MachCursor cursor(bytes_, ByteOrder::little, at);
    return width == 2 ? cursor.get32() & 0xFFFF : width == 4 ? cursor.get32() : cursor.get64();
  }

  void setNumber(std::size_t at, std::size_t width, std::uint64_t value) {
    for (std::size_t i = 0; i < width; ++i) bytes_[at + i] = static_cast<char>(value >> (8 * i));
    changed_ = true;
  }

  std::string bytes_;
  std::uint32_t inserted_;
  const std::string& name_;
  bool changed_ = false;
};

}  // namespace

std::optional<std::vector<FilePatch>> renumberLibraryOrdinals(const MachFile& file,
                                                              std::uint64_t sliceOffset,
                                                              std::uint64_t sliceSize,
                                                              const OrdinalTables& tables,
                                                              std::uint32_t inserted) {
  std::vector<FilePatch> patches;
  auto renumber = [&](const std::optional<SliceRange>& range, bool (Renumbering::*how)()) {
    if (!range || range->size == 0) return true;
    if (range->offset > sliceSize || range->size > sliceSize - range->offset) {
      throw StowInjectError::damaged(file.name, "its binding information lies past its end");
    }
    std::string bytes = file.read(sliceOffset + range->offset, range->size);
    if (bytes.size() != range->size) {
      throw StowInjectError::damaged(file.name, "its binding information lies past its end");
    }
    Renumbering table(std::move(bytes), inserted, file.name);
    if (!(table.*how)()) return false;
    if (table.changed()) patches.push_back({sliceOffset + range->offset, table.bytes()});
    return true;
  };
  if (renumber(tables.bind, &Renumbering::bindOpcodes) &&
      renumber(tables.lazyBind, &Renumbering::bindOpcodes) &&
      renumber(tables.chainedFixups, &Renumbering::chainedImports) &&
      renumber(tables.symbols, &Renumbering::symbols)) {
    return patches;
  }
  return std::nullopt;
}

}  // namespace corvelstow::macho
