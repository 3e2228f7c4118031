#include "archive/zip_format.h"

#include <algorithm>

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

EntryExtent entryExtent(const CentralDirectoryHeader& header) {
  EntryExtent extent{header.size, header.compressedSize, header.localHeaderOffset};
  ByteCursor extra(header.extra);
  while (extra.remaining() >= 4) {
    std::uint16_t id = extra.get16();
    std::uint16_t length = extra.get16();
    ByteCursor block(extra.getBytes(std::min<std::size_t>(length, extra.remaining())));
    if (id != kZip64ExtraId) continue;
    // The block holds a 64-bit value only for each 32-bit field that says so, in this order.
    if (header.size == kZip64Marker32 && block.has(8)) extent.size = block.get64();
    if (header.compressedSize == kZip64Marker32 && block.has(8)) {
      extent.compressedSize = block.get64();
    }
    if (header.localHeaderOffset == kZip64Marker32 && block.has(8)) {
      extent.localHeaderOffset = block.get64();
    }
  }
  return extent;
}

std::string decodeName(std::string_view bytes) {
  static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
  std::string text;
  text.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    auto lead = static_cast<unsigned char>(bytes[i]);
    if (lead < 0x80) {
      text += static_cast<char>(lead);
      ++i;
      continue;
    }
    // The length of the sequence and the range of its second byte, which excludes overlong
    // forms, surrogates and values past U+10FFFF.
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
    while (taken < length && i + taken < bytes.size()) {
      auto next = static_cast<unsigned char>(bytes[i + taken]);
      if (next < (taken == 1 ? low : 0x80) || next > (taken == 1 ? high : 0xBF)) break;
      ++taken;
    }
    if (taken == length) {
      text += bytes.substr(i, length);
    } else {
      text += kReplacement;  // the bytes taken so far form one ill-formed subpart
    }
    i += taken;
  }
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
