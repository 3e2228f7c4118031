#pragma once

// Putting the iOS library into an app, an .app folder or an .ipa: the library copied into the
// bundle's Frameworks folder, and the main executable made to load it. Planned first, from the
// bundle as it is, then written into a copy of the app beside the output, which replaces the
// output whole, or into the bundle itself.

#include <filesystem>
#include <string>

#include "inject/dylib_insertion.h"

namespace corvelstow::inject {

namespace fs = std::filesystem;

/// The name the library has in the bundle, and the one the executable loads it by.
inline constexpr char kLibraryName[] = "libcorvelstow.dylib";

/// The iOS library to put in: an arm64 Mach-O dylib, and its own name and versions.
struct IosLibrary {
  fs::path file;
  macho::DylibIdentity identity;
};

/// Opens and checks the library at `file`. Throws StowFileError when it cannot be read and
/// StowInjectError when it is not an arm64 Mach-O dylib.
IosLibrary openIosLibrary(const fs::path& file);

/// What putting the library in did.
struct InjectedApp {
  fs::path output;         ///< the changed app; empty when it loads the library already
  std::string executable;  ///< the main executable's file name in the bundle
  macho::DylibInsertion insertion;
};

/// Puts `library` into the app at `app`, an .app folder or an .ipa, written to `output` (`app`
/// itself to change it in place). The executable is the one the bundle's Info.plist (XML or
/// binary) names; an .ipa is unpacked beside `output`, changed and packed again, the library's
/// entries after the others. Nothing is written when the executable loads the library already.
/// Throws a one-sentence error (StowInjectError when the executable cannot take the library,
/// StowZipError for a damaged .ipa) and then leaves `output` as it was.
InjectedApp injectApp(const fs::path& app, const fs::path& output, const IosLibrary& library);

}  // namespace corvelstow::inject
