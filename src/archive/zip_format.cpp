#include "archive/zip_format.h"

#include <algorithm>

#include "archive/crc32.h"

namespace corvelstow::zip {

void put16(std::string& out, std::uint16_t value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>(value >> 8);
}

void put32(std::string& out, std::uint32_t value) {
  put16(out, static_cast<std::uint16_t>(value & 0xFFFF));
  put16(out, static_cast<std::uint16_t>(value >> 16));
}

void put64(std::string& out, std::uint64_t value) {
  put32(out, static_cast<std::uint32_t>(value & 0xFFFFFFFF));
  put32(out, static_cast<std::uint32_t>(value >> 32));
}

std::uint64_t ByteCursor::getLittle(std::size_t width) {
  std::string_view bytes = getBytes(width);
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

std::string_view ByteCursor::getBytes(std::size_t count) {
  if (!has(count)) {
    ok_ = false;
    return {};
  }
  std::string_view piece = bytes_.substr(position_, count);
  position_ += count;
  return piece;
}

// Writing

void write(std::string& out, const LocalFileHeader& header) {
  put32(out, LocalFileHeader::kSignature);
  put16(out, header.versionNeeded);
  put16(out, header.flags);
  put16(out, header.method);
  put16(out, header.time);
  put16(out, header.date);
  put32(out, header.crc);
  put32(out, header.compressedSize);
  put32(out, header.size);
  put16(out, header.nameLength);
  put16(out, header.extraLength);
}

void write(std::string& out, const DataDescriptor& descriptor) {
  put32(out, DataDescriptor::kSignature);
  put32(out, descriptor.crc);
  put32(out, descriptor.compressedSize);
  put32(out, descriptor.size);
}

void write(std::string& out, const Zip64DataDescriptor& descriptor) {
  put32(out, Zip64DataDescriptor::kSignature);
  put32(out, descriptor.crc);
  put64(out, descriptor.compressedSize);
  put64(out, descriptor.size);
}

void write(std::string& out, const CentralDirectoryHeader& header) {
  put32(out, CentralDirectoryHeader::kSignature);
  put16(out, header.versionMadeBy);
  put16(out, header.versionNeeded);
  put16(out, header.flags);
  put16(out, header.method);
  put16(out, header.time);
  put16(out, header.date);
  put32(out, header.crc);
  put32(out, header.compressedSize);
  put32(out, header.size);
  put16(out, static_cast<std::uint16_t>(header.name.size()));
  put16(out, static_cast<std::uint16_t>(header.extra.size()));
  put16(out, static_cast<std::uint16_t>(header.comment.size()));
  put16(out, header.diskStart);
  put16(out, header.internalAttributes);
  put32(out, header.externalAttributes);
  put32(out, header.localHeaderOffset);
  out += header.name;
  out += header.extra;
  out += header.comment;
}

void write(std::string& out, const EndOfCentralDirectory& end) {
  put32(out, EndOfCentralDirectory::kSignature);
  put16(out, end.diskNumber);
  put16(out, end.directoryDisk);
  put16(out, end.entriesOnDisk);
  put16(out, end.totalEntries);
  put32(out, end.directorySize);
  put32(out, end.directoryOffset);
  put16(out, end.commentLength);
}

void write(std::string& out, const Zip64EndOfCentralDirectory& end) {
  put32(out, Zip64EndOfCentralDirectory::kSignature);
  put64(out, end.recordSize);
  put16(out, end.versionMadeBy);
  put16(out, end.versionNeeded);
  put32(out, end.diskNumber);
  put32(out, end.directoryDisk);
  put64(out, end.entriesOnDisk);
  put64(out, end.totalEntries);
  put64(out, end.directorySize);
  put64(out, end.directoryOffset);
}

void write(std::string& out, const Zip64EndLocator& locator) {
  put32(out, Zip64EndLocator::kSignature);
  put32(out, locator.directoryDisk);
  put64(out, locator.zip64EndOffset);
  put32(out, locator.totalDisks);
}

std::string zip64Extra(const std::vector<std::uint64_t>& values) {
  std::string block;
  put16(block, kZip64ExtraId);
  put16(block, static_cast<std::uint16_t>(8 * values.size()));
  for (std::uint64_t value : values) put64(block, value);
  return block;
}

// Reading

namespace {

// Consumes the signature when the fixed part is all there and begins with it.
bool takeSignature(ByteCursor& cursor, std::uint32_t signature, std::size_t fixedSize) {
  if (!cursor.has(fixedSize)) return false;
  ByteCursor peek = cursor;
  if (peek.get32() != signature) return false;
  cursor.skip(4);
  return true;
}

}  // namespace

std::optional<LocalFileHeader> readLocalFileHeader(ByteCursor& cursor) {
  if (!takeSignature(cursor, LocalFileHeader::kSignature, LocalFileHeader::kFixedSize)) return {};
  LocalFileHeader header;
  header.versionNeeded = cursor.get16();
  header.flags = cursor.get16();
  header.method = cursor.get16();
  header.time = cursor.get16();
  header.date = cursor.get16();
  header.crc = cursor.get32();
  header.compressedSize = cursor.get32();
  header.size = cursor.get32();
  header.nameLength = cursor.get16();
  header.extraLength = cursor.get16();
  return header;
}

std::optional<CentralDirectoryHeader> readCentralDirectoryHeader(ByteCursor& cursor) {
  if (!takeSignature(cursor, CentralDirectoryHeader::kSignature,
                     CentralDirectoryHeader::kFixedSize)) {
    return {};
  }
  CentralDirectoryHeader header;
  header.versionMadeBy = cursor.get16();
  header.versionNeeded = cursor.get16();
  header.flags = cursor.get16();
  header.method = cursor.get16();
  header.time = cursor.get16();
  header.date = cursor.get16();
  header.crc = cursor.get32();
  header.compressedSize = cursor.get32();
  header.size = cursor.get32();
  std::uint16_t nameLength = cursor.get16();
  std::uint16_t extraLength = cursor.get16();
  std::uint16_t commentLength = cursor.get16();
  header.diskStart = cursor.get16();
  header.internalAttributes = cursor.get16();
  header.externalAttributes = cursor.get32();
  header.localHeaderOffset = cursor.get32();
  header.name = cursor.getBytes(nameLength);
  header.extra = cursor.getBytes(extraLength);
  header.comment = cursor.getBytes(commentLength);
  if (!cursor.ok()) return {};
  return header;
}

std::optional<EndOfCentralDirectory> readEndOfCentralDirectory(ByteCursor& cursor) {
  if (!takeSignature(cursor, EndOfCentralDirectory::kSignature,
                     EndOfCentralDirectory::kFixedSize)) {
    return {};
  }
  EndOfCentralDirectory end;
  end.diskNumber = cursor.get16();
  end.directoryDisk = cursor.get16();
  end.entriesOnDisk = cursor.get16();
  end.totalEntries = cursor.get16();
  end.directorySize = cursor.get32();
  end.directoryOffset = cursor.get32();
  end.commentLength = cursor.get16();
  return end;
}

std::optional<Zip64EndLocator> readZip64EndLocator(ByteCursor& cursor) {
  if (!takeSignature(cursor, Zip64EndLocator::kSignature, Zip64EndLocator::kFixedSize)) return {};
  Zip64EndLocator locator;
  locator.directoryDisk = cursor.get32();
  locator.zip64EndOffset = cursor.get64();
  locator.totalDisks = cursor.get32();
  return locator;
}

std::optional<Zip64EndOfCentralDirectory> readZip64EndOfCentralDirectory(ByteCursor& cursor) {
  if (!takeSignature(cursor, Zip64EndOfCentralDirectory::kSignature,
                     Zip64EndOfCentralDirectory::kFixedSize)) {
    return {};
  }
  Zip64EndOfCentralDirectory end;
  end.recordSize = cursor.get64();
  end.versionMadeBy = cursor.get16();
  end.versionNeeded = cursor.get16();
  end.diskNumber = cursor.get32();
  end.directoryDisk = cursor.get32();
  end.entriesOnDisk = cursor.get64();
  end.totalEntries = cursor.get64();
  end.directorySize = cursor.get64();
  end.directoryOffset = cursor.get64();
  return end;
}

namespace {

// The data of the next block with `id` in an extra field, a sequence of (16-bit id, 16-bit
// length, data) blocks, from where `cursor` stands. A block whose length runs past the field
// keeps what is there.
std::optional<std::string_view> nextExtraBlock(ByteCursor& cursor, std::uint16_t id) {
  while (cursor.remaining() >= 4) {
    std::uint16_t blockId = cursor.get16();
    std::uint16_t length = cursor.get16();
    std::string_view data = cursor.getBytes(std::min<std::size_t>(length, cursor.remaining()));
    if (blockId == id) return data;
  }
  return {};
}

// The UTF-8 sequence that starts at `at`: its length, and whether it is well formed. An
// ill-formed one is its maximal ill-formed subpart, which one U+FFFD replaces.
struct Utf8Sequence {
  std::size_t length;
  bool wellFormed;
};

Utf8Sequence utf8SequenceAt(std::string_view bytes, std::size_t at) {
  auto lead = static_cast<unsigned char>(bytes[at]);
  if (lead < 0x80) return {1, true};
  // The length of the sequence and the range of its second byte, which excludes overlong forms,
  // surrogates and values past U+10FFFF.
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  }
  std::size_t taken = 1;
  while (taken < length && at + taken < bytes.size()) {
    auto next = static_cast<unsigned char>(bytes[at + taken]);
    if (next < (taken == 1 ? low : 0x80) || next > (taken == 1 ? high : 0xBF)) break;
    ++taken;
  }
  return {taken, taken == length};
}

void appendUtf8(std::string& text, char32_t c) {
  if (c < 0x80) {
    text += static_cast<char>(c);
  } else if (c < 0x800) {
    text += static_cast<char>(0xC0 | c >> 6);
    text += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    text += static_cast<char>(0xE0 | c >> 12);
    text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    text += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// Code page 437 from 0x80 on (the format's appendix on it); below 0x80 it is ASCII.
// clang-format off
constexpr char16_t kCp437High[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7,
    0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE, 0x00EC, 0x00C4, 0x00C5,
    0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,
    0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192,
    0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA, 0x00BA,
    0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556,
    0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510,
    0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,
    0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567,
    0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B,
    0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,
    0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,
    0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229,
    0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,
    0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0,
};
// clang-format on

}  // namespace

EntryExtent entryExtent(const CentralDirectoryHeader& header) {
  EntryExtent extent{header.size, header.compressedSize, header.localHeaderOffset};
  ByteCursor extra(header.extra);
  auto zip64 = nextExtraBlock(extra, kZip64ExtraId);
  if (!zip64) return extent;
  // The block holds a 64-bit value only for each 32-bit field that says so, in this order.
  ByteCursor block(*zip64);
  if (header.size == kZip64Marker32 && block.has(8)) extent.size = block.get64();
  if (header.compressedSize == kZip64Marker32 && block.has(8)) {
    extent.compressedSize = block.get64();
  }
  if (header.localHeaderOffset == kZip64Marker32 && block.has(8)) {
    extent.localHeaderOffset = block.get64();
  }
  return extent;
}

std::optional<std::string_view> unicodePath(const CentralDirectoryHeader& header) {
  // A tool that renamed the entry without knowing the field left it stale: the CRC tells.
  StowCRC32 crc;
  crc.update(header.name);
  ByteCursor extra(header.extra);
  while (auto field = nextExtraBlock(extra, kUnicodePathExtraId)) {
    ByteCursor cursor(*field);
    const std::string_view version = cursor.getBytes(1);
    const std::uint32_t nameCrc = cursor.get32();
    const std::string_view name = cursor.getBytes(cursor.remaining());
    if (cursor.ok() && version[0] == 1 && nameCrc == crc.checksum() && !name.empty() &&
        isUtf8(name)) {
      return name;
    }
  }
  return {};
}

bool isUtf8(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    Utf8Sequence sequence = utf8SequenceAt(bytes, i);
    if (!sequence.wellFormed) return false;
    i += sequence.length;
  }
  return true;
}

std::string decodeName(std::string_view bytes) {
  static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    Utf8Sequence sequence = utf8SequenceAt(bytes, i);
    text += sequence.wellFormed ? bytes.substr(i, sequence.length) : kReplacement;
    i += sequence.length;
  }
  return text;
}

std::string decodeCp437(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (unsigned char byte : bytes) appendUtf8(text, byte < 0x80 ? byte : kCp437High[byte - 0x80]);
  return text;
}

DosDateTime dosDateTime(StowDate date) {
  CivilTime t = localCivilTime(date);
  // The date keeps 7 bits of years since 1980, so 2107 is the last year it can hold: later
  // moments become the last moment it can express. Earlier years become 1980, with the month and
  // day kept as they are.
  if (t.year > 2107) t = {2107, 12, 31, 23, 59, 59};
  const int years = t.year < 1980 ? 0 : t.year - 1980;
  // time: hour in bits 11-15, minute in bits 5-10, seconds halved in bits 0-4;
  // date: years since 1980 in bits 9-15, month in bits 5-8, day in bits 0-4.
  DosDateTime packed;
  packed.time = static_cast<std::uint16_t>(t.hour << 11 | t.minute << 5 | t.second / 2);
  packed.date = static_cast<std::uint16_t>(years << 9 | t.month << 5 | t.day);
  return packed;
}

}  // namespace corvelstow::zip
