#include "inject/macho_format.h"

namespace corvelstow::macho {
namespace {

constexpr std::size_t kNameSize = 16;  // segname and sectname: 16 bytes, zero-padded

std::string fixedName(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.find('\0')));
}

void putName(std::string& out, std::string_view name) {
  std::string padded(name.substr(0, kNameSize));
  padded.resize(kNameSize, '\0');
  out += padded;
}

// The zero-terminated string at `offset` of a load command; nothing when the offset points into
// the fixed part or past the command.
std::optional<std::string> stringAt(std::string_view command, std::size_t fixedSize,
                                    std::uint32_t offset) {
  if (offset < fixedSize || offset >= command.size()) return std::nullopt;
  std::string_view text = command.substr(offset);
  return std::string(text.substr(0, text.find('\0')));
}

// A command with a string after its fixed part: the string, its zero, then zeros up to cmdsize.
void putString(std::string& out, std::size_t commandStart, std::uint32_t cmdsize,
               std::string_view text) {
  out += text;
  out.resize(std::max(out.size() + 1, commandStart + cmdsize), '\0');
}

}  // namespace

bool Section64::hasFileBytes() const {
  const std::uint32_t type = flags & kSectionTypeMask;
  return size > 0 && type != kZeroFill && type != kGigabyteZeroFill && type != kThreadLocalZeroFill;
}

std::string_view MachCursor::getBytes(std::size_t count) {
  if (!ok_ || count > remaining()) {
    ok_ = false;
    return {};
  }
  std::string_view piece = bytes_.substr(position_, count);
  position_ += count;
  return piece;
}

std::uint64_t MachCursor::getNumber(std::size_t width) {
  std::string_view bytes = getBytes(width);
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::size_t index = order_ == ByteOrder::big ? i : bytes.size() - 1 - i;
    value = value << 8 | static_cast<unsigned char>(bytes[index]);
  }
  return value;
}

void put32(std::string& out, std::uint32_t value, ByteOrder order) {
  for (int i = 0; i < 4; ++i) {
    const int shift = order == ByteOrder::little ? 8 * i : 8 * (3 - i);
    out += static_cast<char>((value >> shift) & 0xFF);
  }
}

void put64(std::string& out, std::uint64_t value, ByteOrder order) {
  const auto low = static_cast<std::uint32_t>(value & 0xFFFFFFFF);
  const auto high = static_cast<std::uint32_t>(value >> 32);
  put32(out, order == ByteOrder::little ? low : high, order);
  put32(out, order == ByteOrder::little ? high : low, order);
}

std::uint32_t paddedCommandSize(std::size_t fixedSize, std::string_view text) {
  return static_cast<std::uint32_t>((fixedSize + text.size() + 1 + 7) / 8 * 8);
}

// Reading

std::optional<FatHeader> readFatHeader(MachCursor& cursor) {
  FatHeader header;
  header.magic = cursor.get32();
  header.nfatArch = cursor.get32();
  if (!cursor.ok() || (header.magic != kFatMagic && header.magic != kFatMagic64)) {
    return std::nullopt;
  }
  return header;
}

std::optional<FatArch> readFatArch(MachCursor& cursor, bool is64) {
  FatArch arch;
  arch.cputype = cursor.get32();
  arch.cpusubtype = cursor.get32();
  arch.offset = is64 ? cursor.get64() : cursor.get32();
  arch.size = is64 ? cursor.get64() : cursor.get32();
  arch.align = cursor.get32();
  if (is64) cursor.get32();  // reserved
  if (!cursor.ok()) return std::nullopt;
  return arch;
}

std::optional<MachHeader64> readMachHeader64(MachCursor& cursor) {
  MachHeader64 header;
  header.magic = cursor.get32();
  header.cputype = cursor.get32();
  header.cpusubtype = cursor.get32();
  header.filetype = cursor.get32();
  header.ncmds = cursor.get32();
  header.sizeofcmds = cursor.get32();
  header.flags = cursor.get32();
  header.reserved = cursor.get32();
  if (!cursor.ok() || header.magic != kMagic64) return std::nullopt;
  return header;
}

std::optional<LoadCommand> readLoadCommand(MachCursor& cursor) {
  LoadCommand command;
  command.cmd = cursor.get32();
  command.cmdsize = cursor.get32();
  if (!cursor.ok()) return std::nullopt;
  return command;
}

std::optional<SegmentCommand64> readSegmentCommand64(MachCursor& cursor) {
  SegmentCommand64 segment;
  segment.cmd = cursor.get32();
  segment.cmdsize = cursor.get32();
  segment.segname = fixedName(cursor.getBytes(kNameSize));
  segment.vmaddr = cursor.get64();
  segment.vmsize = cursor.get64();
  segment.fileoff = cursor.get64();
  segment.filesize = cursor.get64();
  segment.maxprot = cursor.get32();
  segment.initprot = cursor.get32();
  segment.nsects = cursor.get32();
  segment.flags = cursor.get32();
  if (!cursor.ok()) return std::nullopt;
  return segment;
}

std::optional<Section64> readSection64(MachCursor& cursor) {
  Section64 section;
  section.sectname = fixedName(cursor.getBytes(kNameSize));
  section.segname = fixedName(cursor.getBytes(kNameSize));
  section.addr = cursor.get64();
  section.size = cursor.get64();
  section.offset = cursor.get32();
  cursor.getBytes(12);  // align, reloff, nreloc
  section.flags = cursor.get32();
  cursor.getBytes(12);  // reserved1 to reserved3
  if (!cursor.ok()) return std::nullopt;
  return section;
}

std::optional<DylibCommand> readDylibCommand(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  DylibCommand dylib;
  dylib.cmd = cursor.get32();
  dylib.cmdsize = cursor.get32();
  const std::uint32_t nameOffset = cursor.get32();
  dylib.timestamp = cursor.get32();
  dylib.currentVersion = cursor.get32();
  dylib.compatibilityVersion = cursor.get32();
  auto name = stringAt(command, DylibCommand::kSize, nameOffset);
  if (!cursor.ok() || !name) return std::nullopt;
  dylib.name = std::move(*name);
  return dylib;
}

std::optional<RpathCommand> readRpathCommand(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  RpathCommand rpath;
  rpath.cmd = cursor.get32();
  rpath.cmdsize = cursor.get32();
  auto path = stringAt(command, RpathCommand::kSize, cursor.get32());
  if (!cursor.ok() || !path) return std::nullopt;
  rpath.path = std::move(*path);
  return rpath;
}

std::optional<LinkeditDataCommand> readLinkeditDataCommand(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  LinkeditDataCommand data;
  data.cmd = cursor.get32();
  data.cmdsize = cursor.get32();
  data.dataoff = cursor.get32();
  data.datasize = cursor.get32();
  if (!cursor.ok()) return std::nullopt;
  return data;
}

std::optional<SymtabCommand> readSymtabCommand(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  SymtabCommand symtab;
  symtab.cmd = cursor.get32();
  symtab.cmdsize = cursor.get32();
  symtab.symoff = cursor.get32();
  symtab.nsyms = cursor.get32();
  symtab.stroff = cursor.get32();
  symtab.strsize = cursor.get32();
  if (!cursor.ok()) return std::nullopt;
  return symtab;
}

std::optional<DyldInfoCommand> readDyldInfoCommand(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  DyldInfoCommand info;
  info.cmd = cursor.get32();
  info.cmdsize = cursor.get32();
  for (std::uint32_t* field : {&info.rebaseOff, &info.rebaseSize, &info.bindOff, &info.bindSize,
                               &info.weakBindOff, &info.weakBindSize, &info.lazyBindOff,
                               &info.lazyBindSize, &info.exportOff, &info.exportSize}) {
    *field = cursor.get32();
  }
  if (!cursor.ok()) return std::nullopt;
  return info;
}

std::optional<EncryptionInfoCommand64> readEncryptionInfoCommand64(std::string_view command) {
  MachCursor cursor(command, ByteOrder::little);
  EncryptionInfoCommand64 info;
  info.cmd = cursor.get32();
  info.cmdsize = cursor.get32();
  info.cryptoff = cursor.get32();
  info.cryptsize = cursor.get32();
  info.cryptid = cursor.get32();
  info.pad = cursor.get32();
  if (!cursor.ok()) return std::nullopt;
  return info;
}

// Writing

void write(std::string& out, const FatArch& arch, bool is64) {
  constexpr ByteOrder big = ByteOrder::big;
  put32(out, arch.cputype, big);
  put32(out, arch.cpusubtype, big);
  if (is64) {
    put64(out, arch.offset, big);
    put64(out, arch.size, big);
  } else {
    put32(out, static_cast<std::uint32_t>(arch.offset), big);
    put32(out, static_cast<std::uint32_t>(arch.size), big);
  }
  put32(out, arch.align, big);
  if (is64) put32(out, 0, big);  // reserved
}

void write(std::string& out, const MachHeader64& header) {
  constexpr ByteOrder little = ByteOrder::little;
  put32(out, header.magic, little);
  put32(out, header.cputype, little);
  put32(out, header.cpusubtype, little);
  put32(out, header.filetype, little);
  put32(out, header.ncmds, little);
  put32(out, header.sizeofcmds, little);
  put32(out, header.flags, little);
  put32(out, header.reserved, little);
}

void write(std::string& out, const SegmentCommand64& segment) {
  constexpr ByteOrder little = ByteOrder::little;
  put32(out, segment.cmd, little);
  put32(out, segment.cmdsize, little);
  putName(out, segment.segname);
  put64(out, segment.vmaddr, little);
  put64(out, segment.vmsize, little);
  put64(out, segment.fileoff, little);
  put64(out, segment.filesize, little);
  put32(out, segment.maxprot, little);
  put32(out, segment.initprot, little);
  put32(out, segment.nsects, little);
  put32(out, segment.flags, little);
}

void write(std::string& out, const DylibCommand& command) {
  constexpr ByteOrder little = ByteOrder::little;
  const std::size_t start = out.size();
  put32(out, command.cmd, little);
  put32(out, command.cmdsize, little);
  put32(out, static_cast<std::uint32_t>(DylibCommand::kSize), little);  // the name follows
  put32(out, command.timestamp, little);
  put32(out, command.currentVersion, little);
  put32(out, command.compatibilityVersion, little);
  putString(out, start, command.cmdsize, command.name);
}

void write(std::string& out, const RpathCommand& command) {
  constexpr ByteOrder little = ByteOrder::little;
  const std::size_t start = out.size();
  put32(out, command.cmd, little);
  put32(out, command.cmdsize, little);
  put32(out, static_cast<std::uint32_t>(RpathCommand::kSize), little);  // the path follows
  putString(out, start, command.cmdsize, command.path);
}

}  // namespace corvelstow::macho
