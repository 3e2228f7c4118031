#include "inject/dylib_insertion.h"

#include <algorithm>

#include "inject/inject_error.h"
#include "inject/macho_format.h"

namespace corvelstow::macho {
namespace {

// More slices than any real file has; the same magic opens a Java class file, whose version
// numbers stand where the slice count would be.
constexpr std::uint32_t kMaxSlices = 64;

/// One slice: the whole of a thin file, or an entry of a fat file's table.
struct Slice {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::optional<std::size_t> fatIndex;  ///< its entry in the fat table, for a fat file
};

/// A file's slices as its first bytes lay them out.
struct Layout {
  bool fat = false;
  bool fat64 = false;
  std::vector<FatArch> archs;  // the fat table, in order
  std::vector<Slice> arm64;    // the slices with arm64 code
};

/// A load command and where it starts among the load commands.
struct CommandAt {
  LoadCommand command;
  std::size_t position = 0;
};

/// A slice's header and load commands, checked against the slice's bounds.
struct SliceHeaders {
  MachHeader64 header;
  std::string commands;  // the sizeofcmds bytes after the header
  std::vector<CommandAt> list;
  std::uint64_t contentStart =
      0;  // the first byte after the header that a segment or section holds

  std::string_view bytesOf(const CommandAt& at) const {
    return std::string_view(commands).substr(at.position, at.command.cmdsize);
  }
};

/// One slice's new header and load commands, and its new size.
struct SliceEdit {
  std::string headers;
  std::uint64_t size = 0;
  std::optional<FilePatch> clearedSignature;  // the signature's bytes, zeroed, when not cut off
  bool alreadyLoaded = false;
  bool signatureRemoved = false;
  bool rpathAdded = false;
};

bool isLoadCommandOfDylib(std::uint32_t cmd) {
  return cmd == kLoadDylib || cmd == kLoadWeakDylib || cmd == kReexportDylib ||
         cmd == kLazyLoadDylib || cmd == kLoadUpwardDylib;
}

std::string_view leafName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view withoutTrailingSlash(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

// The slices: one for a thin file, the fat table's for a fat one (big-endian).
Layout readLayout(const MachFile& file) {
  const std::string start = file.read(0, FatHeader::kSize);
  MachCursor little(start, ByteOrder::little), big(start, ByteOrder::big);
  const std::uint32_t magic = little.get32();
  if (!little.ok()) throw StowInjectError::notMachO(file.name);
  Layout layout;
  if (magic == kMagic64) {
    layout.arm64.push_back({0, file.length, std::nullopt});
    return layout;
  }
  if (magic == kMagic32) throw StowInjectError::noArm64(file.name);
  auto fat = readFatHeader(big);
  if (!fat || fat->nfatArch == 0 || fat->nfatArch > kMaxSlices) {
    throw StowInjectError::notMachO(file.name);
  }
  layout.fat = true;
  layout.fat64 = fat->magic == kFatMagic64;
  const std::size_t entrySize = layout.fat64 ? FatArch::kSize64 : FatArch::kSize;
  const std::string table = file.read(FatHeader::kSize, fat->nfatArch * entrySize);
  MachCursor cursor(table, ByteOrder::big);
  for (std::uint32_t i = 0; i < fat->nfatArch; ++i) {
    auto arch = readFatArch(cursor, layout.fat64);
    if (!arch) throw StowInjectError::damaged(file.name, "it ends inside its table of slices");
    if (arch->offset > file.length || arch->size > file.length - arch->offset) {
      throw StowInjectError::damaged(file.name, "a slice lies past its end");
    }
    if (arch->cputype == kCpuTypeArm64) layout.arm64.push_back({arch->offset, arch->size, i});
    layout.archs.push_back(*arch);
  }
  if (layout.arm64.empty()) throw StowInjectError::noArm64(file.name);
  return layout;
}

// Where the segments' and sections' bytes begin, checking that every segment lies in the slice.
std::uint64_t contentStart(const MachFile& file, const Slice& slice, const SliceHeaders& headers) {
  std::uint64_t start = slice.size;
  for (const CommandAt& at : headers.list) {
    if (at.command.cmd != kSegment64) continue;
    MachCursor cursor(headers.bytesOf(at), ByteOrder::little);
    auto segment = readSegmentCommand64(cursor);
    if (!segment || cursor.remaining() / Section64::kSize < segment->nsects) {
      throw StowInjectError::damaged(file.name, "a segment's load command is cut short");
    }
    if (segment->fileoff > slice.size || segment->filesize > slice.size - segment->fileoff) {
      throw StowInjectError::damaged(file.name, "it ends before its last segment");
    }
    // The first segment holds the header itself (file offset 0): its sections tell where its
    // bytes begin.
    if (segment->fileoff > 0 && segment->filesize > 0) start = std::min(start, segment->fileoff);
    for (std::uint32_t i = 0; i < segment->nsects; ++i) {
      auto section = readSection64(cursor);
      if (section && section->hasFileBytes() && section->offset > 0) {
        start = std::min<std::uint64_t>(start, section->offset);
      }
    }
  }
  return start;
}

// The slice's header and load commands, each command inside the commands' bytes.
SliceHeaders readSliceHeaders(const MachFile& file, const Slice& slice) {
  SliceHeaders headers;
  const std::string bytes = file.read(slice.offset, MachHeader64::kSize);
  MachCursor cursor(bytes, ByteOrder::little);
  auto header = readMachHeader64(cursor);
  if (!header) {
    if (cursor.ok()) throw StowInjectError::damaged(file.name, "its arm64 slice has no header");
    throw StowInjectError::damaged(file.name, "it ends inside its header");
  }
  if (header->cputype != kCpuTypeArm64) throw StowInjectError::noArm64(file.name);
  headers.header = *header;
  if (header->sizeofcmds > slice.size - std::min<std::uint64_t>(slice.size, MachHeader64::kSize)) {
    throw StowInjectError::damaged(file.name, "its load commands run past its end");
  }
  headers.commands = file.read(slice.offset + MachHeader64::kSize, header->sizeofcmds);
  if (headers.commands.size() != header->sizeofcmds) {
    throw StowInjectError::damaged(file.name, "its load commands run past its end");
  }

  MachCursor commands(headers.commands, ByteOrder::little);
  for (std::uint32_t i = 0; i < header->ncmds; ++i) {
    const std::size_t position = commands.position();
    auto command = readLoadCommand(commands);
    if (!command || command->cmdsize < LoadCommand::kSize ||
        command->cmdsize > headers.commands.size() - position) {
      throw StowInjectError::damaged(file.name, "its load commands do not add up");
    }
    commands.getBytes(command->cmdsize - LoadCommand::kSize);
    headers.list.push_back({*command, position});
  }
  if (commands.remaining() != 0) {
    throw StowInjectError::damaged(file.name, "its load commands do not add up");
  }
  headers.contentStart = contentStart(file, slice, headers);
  if (headers.contentStart < MachHeader64::kSize + headers.commands.size()) {
    throw StowInjectError::damaged(file.name, "its sections overlap its load commands");
  }
  return headers;
}

// The new header and load commands of one slice, with the size the slice keeps.
SliceEdit editSlice(const MachFile& file, const Slice& slice, const SliceHeaders& headers,
                    const DylibToLoad& dylib) {
  SliceEdit edit;
  edit.size = slice.size;
  bool hasRpath = dylib.rpath.empty();
  std::optional<CommandAt> signatureAt, linkeditAt;
  for (const CommandAt& at : headers.list) {
    const std::uint32_t cmd = at.command.cmd;
    if (isLoadCommandOfDylib(cmd)) {
      auto loaded = readDylibCommand(headers.bytesOf(at));
      if (!loaded)
        throw StowInjectError::damaged(file.name, "a library's load command is cut short");
      if (leafName(loaded->name) == leafName(dylib.name)) edit.alreadyLoaded = true;
    } else if (cmd == kRpath) {
      auto rpath = readRpathCommand(headers.bytesOf(at));
      if (!rpath)
        throw StowInjectError::damaged(file.name, "a run path's load command is cut short");
      if (withoutTrailingSlash(rpath->path) == withoutTrailingSlash(dylib.rpath)) hasRpath = true;
    } else if (cmd == kEncryptionInfo64) {
      auto info = readEncryptionInfoCommand64(headers.bytesOf(at));
      if (!info || info->cryptid != 0) throw StowInjectError::encrypted();
    } else if (cmd == kCodeSignature) {
      signatureAt = at;
    } else if (cmd == kSegment64) {
      MachCursor cursor(headers.bytesOf(at), ByteOrder::little);
      auto segment = readSegmentCommand64(cursor);
      if (segment && segment->segname == "__LINKEDIT") linkeditAt = at;
    }
  }
  if (edit.alreadyLoaded) return edit;

  // The signature's blob: cut from the end of __LINKEDIT (and of the slice) where it lies there,
  // since a signing tool expects __LINKEDIT to end with what its load commands describe.
  std::optional<LinkeditDataCommand> signature;
  std::optional<SegmentCommand64> linkedit;
  if (signatureAt) {
    signature = readLinkeditDataCommand(headers.bytesOf(*signatureAt));
    if (!signature || signature->dataoff > slice.size ||
        signature->datasize > slice.size - signature->dataoff) {
      throw StowInjectError::damaged(file.name, "its code signature lies past its end");
    }
    if (linkeditAt) {
      MachCursor cursor(headers.bytesOf(*linkeditAt), ByteOrder::little);
      linkedit = readSegmentCommand64(cursor);
    }
    const std::uint64_t signatureEnd = std::uint64_t{signature->dataoff} + signature->datasize;
    if (linkedit && linkedit->fileoff <= signature->dataoff &&
        linkedit->fileoff + linkedit->filesize == signatureEnd) {
      linkedit->filesize = signature->dataoff - linkedit->fileoff;
      if (signatureEnd == slice.size) {
        edit.size = signature->dataoff;
      } else {
        edit.clearedSignature =
            FilePatch{slice.offset + signature->dataoff, std::string(signature->datasize, '\0')};
      }
    } else {
      linkedit.reset();  // elsewhere: left in place, described by no command
    }
    edit.signatureRemoved = true;
  }

  // Load commands: the old ones but the signature's, then the library and its run path.
  std::string commands;
  std::uint32_t count = 0;
  for (const CommandAt& at : headers.list) {
    if (signatureAt && at.position == signatureAt->position) continue;
    if (linkedit && linkeditAt && at.position == linkeditAt->position) {
      write(commands, *linkedit);
      commands += headers.bytesOf(at).substr(SegmentCommand64::kSize);  // its sections
    } else {
      commands += headers.bytesOf(at);
    }
    ++count;
  }
  const std::size_t kept = commands.size();
  DylibCommand load{kLoadDylib,           paddedCommandSize(DylibCommand::kSize, dylib.name),
                    dylib.name,           2,
                    dylib.currentVersion, dylib.compatibilityVersion};
  write(commands, load);
  ++count;
  if (!hasRpath) {
    write(commands,
          RpathCommand{kRpath, paddedCommandSize(RpathCommand::kSize, dylib.rpath), dylib.rpath});
    ++count;
    edit.rpathAdded = true;
  }

  const std::uint64_t room = headers.contentStart - MachHeader64::kSize;
  if (commands.size() > room) {
    throw StowInjectError::noRoom(file.name, commands.size() - kept, room > kept ? room - kept : 0);
  }
  MachHeader64 header = headers.header;
  header.ncmds = count;
  header.sizeofcmds = static_cast<std::uint32_t>(commands.size());
  write(edit.headers, header);
  edit.headers += commands;
  // Zeros over what the old commands held past the new ones (the padding is all zeros).
  edit.headers.resize(
      std::max<std::size_t>(edit.headers.size(), MachHeader64::kSize + headers.commands.size()),
      '\0');
  return edit;
}

}  // namespace

DylibIdentity readDylibIdentity(const MachFile& file) {
  const Layout layout = readLayout(file);
  const SliceHeaders headers = readSliceHeaders(file, layout.arm64.front());
  if (headers.header.filetype != kFileTypeDylib) {
    throw StowInjectError::wrongFileType(file.name, "a dynamic library");
  }
  for (const CommandAt& at : headers.list) {
    if (at.command.cmd != kIdDylib) continue;
    auto id = readDylibCommand(headers.bytesOf(at));
    if (!id) throw StowInjectError::damaged(file.name, "its name's load command is cut short");
    return {id->name, id->currentVersion, id->compatibilityVersion};
  }
  throw StowInjectError::wrongFileType(file.name, "a dynamic library");
}

DylibInsertion planDylibInsertion(const MachFile& file, const DylibToLoad& dylib) {
  const Layout layout = readLayout(file);
  DylibInsertion insertion;
  insertion.alreadyLoaded = true;
  std::vector<FatArch> archs = layout.archs;
  for (const Slice& slice : layout.arm64) {
    const SliceHeaders headers = readSliceHeaders(file, slice);
    if (headers.header.filetype != kFileTypeExecute) {
      throw StowInjectError::wrongFileType(file.name, "an executable");
    }
    SliceEdit edit = editSlice(file, slice, headers, dylib);
    if (edit.alreadyLoaded) continue;
    insertion.alreadyLoaded = false;
    insertion.signatureRemoved |= edit.signatureRemoved;
    insertion.rpathAdded |= edit.rpathAdded;
    insertion.patches.push_back({slice.offset, std::move(edit.headers)});
    if (edit.clearedSignature) insertion.patches.push_back(std::move(*edit.clearedSignature));
    if (edit.size == slice.size) continue;
    // A shorter slice: the file is cut where the slice ended it, otherwise the freed bytes are
    // zeroed; a fat table gives the slice's new size.
    if (slice.offset + slice.size == file.length) {
      insertion.newLength = slice.offset + edit.size;
    } else {
      insertion.patches.push_back(
          {slice.offset + edit.size, std::string(slice.size - edit.size, '\0')});
    }
    if (slice.fatIndex) archs[*slice.fatIndex].size = edit.size;
  }
  if (insertion.alreadyLoaded) {
    DylibInsertion nothing;
    nothing.alreadyLoaded = true;
    return nothing;
  }
  if (layout.fat) {
    std::string table;
    for (const FatArch& arch : archs) write(table, arch, layout.fat64);
    insertion.patches.push_back({FatHeader::kSize, std::move(table)});
  }
  return insertion;
}

}  // namespace corvelstow::macho
