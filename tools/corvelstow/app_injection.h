#pragma once

// Putting the iOS library into an app bundle on disk: the library copied into the bundle's
// Frameworks folder, and the main executable made to load it. Planned first, from the bundle as
// it is, then written into the bundle or into a copy of it.

#include <filesystem>
#include <string>

#include "inject/dylib_insertion.h"

namespace corvelstow::cli {

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

/// The changes to an app, worked out before any is made.
struct AppInjection {
  std::string executable;  ///< the main executable's file name in the bundle
  macho::DylibInsertion insertion;
};

/// Plans the changes to the bundle at `app`: reads its Info.plist (XML or binary) for the main
/// executable (CFBundleExecutable) and plans the executable's new load commands. `label` names
/// the bundle in messages. Throws a one-sentence error when the bundle has no readable
/// Info.plist or executable, or the executable cannot take the library (StowInjectError).
AppInjection planAppInjection(const fs::path& app, const std::string& label,
                              const IosLibrary& library);

/// Makes the planned changes in the bundle at `app` (the planned one, or an exact copy of it):
/// the library is copied to Frameworks/libcorvelstow.dylib, then the executable is replaced by
/// its edited copy, with the same permissions. Each file is written beside its place and renamed
/// into it, so a failure leaves the executable as it was.
void applyAppInjection(const fs::path& app, const AppInjection& injection,
                       const IosLibrary& library);

}  // namespace corvelstow::cli
