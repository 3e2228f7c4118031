#include "inject/dylib_insertion.h"

#include <algorithm>

#include "inject/inject_error.h"
#include "inject/library_ordinals.h"
#include "inject/macho_format.h"

namespace corvelstow::macho {
namespace {

// More slices than any real file has; the same magic opens a Java class file, whose version
// numbers stand where the slice count would be.
constexpr std::uint32_t kMaxSlices = 64;

constexpr std::uint32_t kTwoLevelNamespace = 0x80;  // MH_TWOLEVEL

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
  std::uint64_t contentStart = 0;  // the first byte past the header a segment or section holds

  std::string_view bytesOf(const CommandAt& at) const {
    return std::string_view(commands).substr(at.position, at.command.cmdsize);
  }
};

/// Where the new load command goes among a slice's load commands, and the ordinal it takes.
struct LoadPlace {
  std::size_t position = 0;  ///< before the command that starts here among the load commands
  std::uint32_t ordinal = 1;
};

/// What a slice's load commands hold, as far as adding the library goes.
struct CommandScan {
  bool loadsLibrary = false;
  bool hasRunPath = false;
  std::optional<CommandAt> signature;
  std::optional<CommandAt> linkedit;
  std::optional<LoadPlace> firstLibrary;     ///< the first library it loads
  std::optional<LoadPlace> firstAppLibrary;  ///< the first that is not the system's
  OrdinalTables ordinals;
};

/// The code signature's blob taken out of a slice.
struct SignatureCut {
  std::optional<SegmentCommand64> linkedit;  // __LINKEDIT's new command, when it shrinks
  std::uint64_t sliceSize = 0;               // what the slice keeps
  std::optional<FilePatch> cleared;          // the blob zeroed, when it is not cut off
};

/// One slice's new header and load commands, its renumbered binding information, and its new
/// size.
struct SliceEdit {
  std::string headers;
  std::vector<FilePatch> ordinals;
  std::uint64_t size = 0;
  std::optional<FilePatch> clearedSignature;
  bool signatureRemoved = false;
  bool rpathAdded = false;
  bool loadsFirst = false;
};

bool isLoadCommandOfDylib(std::uint32_t cmd) {
  return cmd == kLoadDylib || cmd == kLoadWeakDylib || cmd == kReexportDylib ||
         cmd == kLazyLoadDylib || cmd == kLoadUpwardDylib;
}

std::string_view leafName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// A library of the system: the app does not ship it, and its initializers run before ours
// whatever the order, since ours depends on them.
bool isSystemLibrary(std::string_view path) {
  return path.starts_with("/System/") || path.starts_with("/usr/lib/");
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

// Reads the commands that matter here; an encrypted slice is refused at once.
CommandScan scanCommands(const MachFile& file, const SliceHeaders& headers,
                         const DylibToLoad& dylib) {
  CommandScan scan;
  scan.hasRunPath = dylib.rpath.empty();
  std::uint32_t ordinal = 0;
  for (const CommandAt& at : headers.list) {
    const std::uint32_t cmd = at.command.cmd;
    if (isLoadCommandOfDylib(cmd)) {
      auto loaded = readDylibCommand(headers.bytesOf(at));
      if (!loaded) {
        throw StowInjectError::damaged(file.name, "a library's load command is cut short");
      }
      scan.loadsLibrary |= leafName(loaded->name) == leafName(dylib.name);
      const LoadPlace place{at.position, ++ordinal};
      if (!scan.firstLibrary) scan.firstLibrary = place;
      if (!scan.firstAppLibrary && !isSystemLibrary(loaded->name)) scan.firstAppLibrary = place;
    } else if (cmd == kDyldInfo || cmd == kDyldInfoOnly) {
      auto info = readDyldInfoCommand(headers.bytesOf(at));
      if (!info) throw StowInjectError::damaged(file.name, "its dyld information is cut short");
      scan.ordinals.bind = SliceRange{info->bindOff, info->bindSize};
      scan.ordinals.lazyBind = SliceRange{info->lazyBindOff, info->lazyBindSize};
    } else if (cmd == kDyldChainedFixups) {
      auto fixups = readLinkeditDataCommand(headers.bytesOf(at));
      if (!fixups) throw StowInjectError::damaged(file.name, "its chained fixups are cut short");
      scan.ordinals.chainedFixups = SliceRange{fixups->dataoff, fixups->datasize};
    } else if (cmd == kSymtab && (headers.header.flags & kTwoLevelNamespace) != 0) {
      auto symtab = readSymtabCommand(headers.bytesOf(at));
      if (!symtab) throw StowInjectError::damaged(file.name, "its symbol table is cut short");
      scan.ordinals.symbols =
          SliceRange{symtab->symoff, std::uint64_t{symtab->nsyms} * SymtabCommand::kNlistSize};
    } else if (cmd == kRpath) {
      auto rpath = readRpathCommand(headers.bytesOf(at));
      if (!rpath) {
        throw StowInjectError::damaged(file.name, "a run path's load command is cut short");
      }
      scan.hasRunPath |= withoutTrailingSlash(rpath->path) == withoutTrailingSlash(dylib.rpath);
    } else if (cmd == kEncryptionInfo64) {
      auto info = readEncryptionInfoCommand64(headers.bytesOf(at));
      if (!info || info->cryptid != 0) throw StowInjectError::encrypted();
    } else if (cmd == kCodeSignature) {
      scan.signature = at;
    } else if (cmd == kSegment64) {
      MachCursor cursor(headers.bytesOf(at), ByteOrder::little);
      auto segment = readSegmentCommand64(cursor);
      if (segment && segment->segname == "__LINKEDIT") scan.linkedit = at;
    }
  }
  return scan;
}

// The signature's blob ends __LINKEDIT, where a signing tool expects to find only what the load
// commands describe: __LINKEDIT is shortened to end before it, and the blob is cut off the end
// of the slice (or zeroed where more follows). A blob elsewhere is left, described by nothing.
SignatureCut cutSignature(const MachFile& file, const Slice& slice, const SliceHeaders& headers,
                          const CommandScan& scan) {
  SignatureCut cut;
  cut.sliceSize = slice.size;
  auto signature = readLinkeditDataCommand(headers.bytesOf(*scan.signature));
  if (!signature || signature->dataoff > slice.size ||
      signature->datasize > slice.size - signature->dataoff) {
    throw StowInjectError::damaged(file.name, "its code signature lies past its end");
  }
  if (!scan.linkedit) return cut;
  MachCursor cursor(headers.bytesOf(*scan.linkedit), ByteOrder::little);
  auto linkedit = readSegmentCommand64(cursor);
  const std::uint64_t signatureEnd = std::uint64_t{signature->dataoff} + signature->datasize;
  if (!linkedit || linkedit->fileoff > signature->dataoff ||
      linkedit->fileoff + linkedit->filesize != signatureEnd) {
    return cut;
  }
  linkedit->filesize = signature->dataoff - linkedit->fileoff;
  cut.linkedit = linkedit;
  if (signatureEnd == slice.size) {
    cut.sliceSize = signature->dataoff;
  } else {
    cut.cleared =
        FilePatch{slice.offset + signature->dataoff, std::string(signature->datasize, '\0')};
  }
  return cut;
}

// Where the library's load command goes: before the app's first library of its own (or before
// the first library at all when the app ships none), since the libraries' initializers run in
// the order of their load commands, and ours must run before any of the app's code, which may
// open the files a swap at launch moves. The ordinals of the libraries after it move up by one,
// and the binding information with them; where it cannot follow in place, the command goes
// after all the others, as the last library. Nothing when it goes last.
std::optional<LoadPlace> placeLoadCommand(const MachFile& file, const Slice& slice,
                                          const CommandScan& scan, SliceEdit& edit) {
  std::optional<LoadPlace> place = scan.firstAppLibrary ? scan.firstAppLibrary : scan.firstLibrary;
  if (!place) return std::nullopt;
  auto ordinals =
      renumberLibraryOrdinals(file, slice.offset, slice.size, scan.ordinals, place->ordinal);
  if (!ordinals) return std::nullopt;
  edit.ordinals = std::move(*ordinals);
  edit.loadsFirst = true;
  return place;
}

// The new header and load commands of one slice: the old commands but the signature's, with the
// library's among them (placeLoadCommand) and its run path's last, all before the first
// section's bytes.
SliceEdit editSlice(const MachFile& file, const Slice& slice, const SliceHeaders& headers,
                    const CommandScan& scan, const DylibToLoad& dylib) {
  SliceEdit edit;
  SignatureCut cut;
  cut.sliceSize = slice.size;
  if (scan.signature) cut = cutSignature(file, slice, headers, scan);
  edit.size = cut.sliceSize;
  edit.clearedSignature = std::move(cut.cleared);
  edit.signatureRemoved = scan.signature.has_value();
  const std::optional<LoadPlace> place = placeLoadCommand(file, slice, scan, edit);

  DylibCommand load;
  load.cmdsize = paddedCommandSize(DylibCommand::kSize, dylib.name);
  load.name = dylib.name;
  load.timestamp = 2;  // what linkers write
  load.currentVersion = dylib.currentVersion;
  load.compatibilityVersion = dylib.compatibilityVersion;

  std::string commands;
  MachHeader64 header = headers.header;
  header.ncmds = 0;
  for (const CommandAt& at : headers.list) {
    if (place && at.position == place->position) {
      write(commands, load);
      ++header.ncmds;
    }
    if (scan.signature && at.position == scan.signature->position) continue;
    if (cut.linkedit && at.position == scan.linkedit->position) {
      write(commands, *cut.linkedit);
      commands += headers.bytesOf(at).substr(SegmentCommand64::kSize);  // its sections
    } else {
      commands += headers.bytesOf(at);
    }
    ++header.ncmds;
  }
  const std::size_t kept = commands.size() - (place ? load.cmdsize : 0);
  if (!place) {
    write(commands, load);
    ++header.ncmds;
  }
  if (!scan.hasRunPath) {
    RpathCommand rpath;
    rpath.cmdsize = paddedCommandSize(RpathCommand::kSize, dylib.rpath);
    rpath.path = dylib.rpath;
    write(commands, rpath);
    ++header.ncmds;
    edit.rpathAdded = true;
  }

  const std::uint64_t room = headers.contentStart - MachHeader64::kSize;
  if (commands.size() > room) {
    throw StowInjectError::noRoom(file.name, commands.size() - kept, room > kept ? room - kept : 0);
  }
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
  insertion.loadsFirst = true;
  std::vector<FatArch> archs = layout.archs;
  for (const Slice& slice : layout.arm64) {
    const SliceHeaders headers = readSliceHeaders(file, slice);
    if (headers.header.filetype != kFileTypeExecute) {
      throw StowInjectError::wrongFileType(file.name, "an executable");
    }
    const CommandScan scan = scanCommands(file, headers, dylib);
    if (scan.loadsLibrary) continue;
    SliceEdit edit = editSlice(file, slice, headers, scan, dylib);
    insertion.loadsFirst &= edit.loadsFirst;
    insertion.alreadyLoaded = false;
    insertion.signatureRemoved |= edit.signatureRemoved;
    insertion.rpathAdded |= edit.rpathAdded;
    insertion.patches.push_back({slice.offset, std::move(edit.headers)});
    for (FilePatch& patch : edit.ordinals) insertion.patches.push_back(std::move(patch));
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
