#pragma once

// Adding a library to an app's executable: a load command for the library, a run path where it
// lies, and the code signature's load command taken out, since any change invalidates it. The
// work is planned from the file's headers and handed back as bytes to write, so that nothing is
// written unless everything can be done.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvelstow::macho {

/// Reads up to `count` bytes at `offset` of a file; fewer only at its end.
using ReadAt = std::function<std::string(std::uint64_t offset, std::size_t count)>;

/// A thin or fat Mach-O file to read: its bytes, its length, and its name for messages.
struct MachFile {
  ReadAt read;
  std::uint64_t length = 0;
  std::string name;
};

/// A library as it names itself (its LC_ID_DYLIB).
struct DylibIdentity {
  std::string installName;
  std::uint32_t currentVersion = 0;
  std::uint32_t compatibilityVersion = 0;
};

/// What to add: the library, by the name the executable loads it by, and the run path that name
/// needs (empty for none).
struct DylibToLoad {
  std::string name;  ///< such as "@rpath/libcorvelstow.dylib"
  std::uint32_t currentVersion = 0;
  std::uint32_t compatibilityVersion = 0;
  std::string rpath;  ///< such as "@executable_path/Frameworks"
};

/// Bytes to write over a file at `offset`.
struct FilePatch {
  std::uint64_t offset = 0;
  std::string bytes;
};

/// The changes to a file, worked out before any is made.
struct DylibInsertion {
  std::vector<FilePatch> patches;
  std::optional<std::uint64_t> newLength;  ///< the file is cut to this length after patching
  bool alreadyLoaded = false;              ///< every arm64 slice loads the library: no changes
  bool signatureRemoved = false;
  bool rpathAdded = false;
  /// Every changed slice loads the library before the app's own libraries, so that its
  /// initializer runs before theirs; false when one could only load it last.
  bool loadsFirst = false;
};

/// The identity of the library in `file`: a thin or fat Mach-O dylib with arm64 code. Throws
/// StowInjectError when it is not one or is damaged.
DylibIdentity readDylibIdentity(const MachFile& file);

/// Plans adding `dylib` to every arm64 slice of the executable in `file`, thin or fat: an
/// LC_LOAD_DYLIB before the first library the app ships itself (any but those under /System/ and
/// /usr/lib/), or before the first library when it ships none, with the library ordinals of the
/// binding information and the symbol table renumbered to match (or after the last load command
/// when they cannot be renumbered in place); an LC_RPATH when the slice has no such run path;
/// and the LC_CODE_SIGNATURE removed, its blob cut from the end of __LINKEDIT. A slice that
/// already loads a library of the same file name is left as it is. Throws StowInjectError: not a
/// Mach-O file, damaged, no arm64 code, not an executable, encrypted (cryptid other than 0), or
/// no room for the commands before the first section's bytes.
DylibInsertion planDylibInsertion(const MachFile& file, const DylibToLoad& dylib);

}  // namespace corvelstow::macho
