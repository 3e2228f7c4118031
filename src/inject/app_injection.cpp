#include "inject/app_injection.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "base/unique_fd.h"
#include "inject/app_archive.h"
#include "platform/platform.h"

namespace corvelstow::inject {
namespace {

constexpr char kRunPath[] = "@executable_path/Frameworks";

/// An open Mach-O file, read through pread.
struct OpenMachFile {
  UniqueFd fd;
  macho::MachFile file;
};

/// The changes to an app bundle, worked out before any is made.
struct AppInjection {
  std::string executable;  // the main executable's file name in the bundle
  macho::DylibInsertion insertion;
};

OpenMachFile openMachFile(const fs::path& path, const std::string& name) {
  OpenMachFile open;
  open.fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info {};
  if (!open.fd || ::fstat(open.fd.get(), &info) != 0) throwFileError("open", path);
  if (!S_ISREG(info.st_mode)) throwFileError(EISDIR, name + " is not a file.");
  const int fd = open.fd.get();
  open.file.length = static_cast<std::uint64_t>(info.st_size);
  open.file.name = name;
  open.file.read = [fd, path](std::uint64_t offset, std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t done = 0;
    while (done < count) {
      ssize_t got =
          ::pread(fd, bytes.data() + done, count - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) throwFileError("read", path);
      if (got == 0) break;
      done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
    return bytes;
  };
  return open;
}

// The executable's file name from the bundle's Info.plist: a plain name inside the bundle.
std::string executableName(const fs::path& app, const std::string& label) {
  auto bytes = files::readWhole(app / "Info.plist");
  if (!bytes) throwFileError(ENOENT, label + " has no readable Info.plist.");
  auto plist = platform::parsePropertyList(*bytes);
  auto* info = plist ? plist->as<PlistDictionary>() : nullptr;
  if (!info) throwFileError(EINVAL, label + "'s Info.plist is not a property list.");
  auto entry = info->find("CFBundleExecutable");
  auto* name = entry == info->end() ? nullptr : entry->second.as<std::string>();
  if (!name || name->empty() || *name == "." || *name == ".." ||
      name->find('/') != std::string::npos) {
    throwFileError(EINVAL, label + "'s Info.plist names no executable (CFBundleExecutable).");
  }
  if (!files::exists(app / *name)) {
    throwFileError(ENOENT, label + " has no executable named " + *name + ".");
  }
  return *name;
}

// Writes `source` with the patches applied to a new file beside `destination`, with the given
// permissions, then renames it into place: the destination is replaced whole or left as it was.
void writePatchedCopy(const fs::path& source, const fs::path& destination,
                      const macho::DylibInsertion& insertion, mode_t permissions) {
  const fs::path temporary =
      destination.parent_path() / ("." + destination.filename().string() + ".corvelstow-new");
  ScopeGuard removeTemporary([&] { ::unlink(temporary.c_str()); });
  std::error_code error;
  fs::copy_file(source, temporary, fs::copy_options::overwrite_existing, error);
  if (error)
    throwFileError(error.value(),
                   "Could not copy " + source.filename().string() + ": " + error.message() + ".");
  UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd || ::fchmod(fd.get(), permissions) != 0) throwFileError("write", destination);
  for (const macho::FilePatch& patch : insertion.patches) {
    std::string_view bytes = patch.bytes;
    for (std::uint64_t offset = patch.offset; !bytes.empty();) {
      ssize_t count = ::pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) throwFileError("write", destination);
      bytes.remove_prefix(static_cast<std::size_t>(count));
      offset += static_cast<std::uint64_t>(count);
    }
  }
  if (insertion.newLength && ::ftruncate(fd.get(), static_cast<off_t>(*insertion.newLength)) != 0) {
    throwFileError("write", destination);
  }
  if (::fsync(fd.get()) != 0 || !fd.close()) throwFileError("write", destination);
  if (::rename(temporary.c_str(), destination.c_str()) != 0) throwFileError("replace", destination);
  removeTemporary.cancel();
}

// The changes to the bundle at `app`, from its Info.plist and its executable as they are.
// `label` names the bundle in messages.
AppInjection planAppInjection(const fs::path& app, const std::string& label,
                              const IosLibrary& library) {
  AppInjection injection;
  injection.executable = executableName(app, label);
  OpenMachFile executable =
      openMachFile(app / injection.executable, label + "/" + injection.executable);
  const macho::DylibToLoad load{std::string("@rpath/") + kLibraryName,
                                library.identity.currentVersion,
                                library.identity.compatibilityVersion, kRunPath};
  injection.insertion = macho::planDylibInsertion(executable.file, load);
  return injection;
}

// Makes the planned changes in the bundle at `app` (the planned one, or an exact copy of it):
// the library is copied to Frameworks/libcorvelstow.dylib, then the executable is replaced by
// its edited copy, with the same permissions. Each file is written beside its place and renamed
// into it, so a failure leaves the executable as it was.
void applyAppInjection(const fs::path& app, const AppInjection& injection,
                       const IosLibrary& library) {
  const fs::path frameworks = app / "Frameworks";
  if (!files::createFolders(frameworks)) throwFileError("create the folder", frameworks);
  // The library: no patches make a plain copy.
  writePatchedCopy(library.file, frameworks / kLibraryName, {}, 0755);
  const fs::path executable = app / injection.executable;
  struct stat info {};
  if (::stat(executable.c_str(), &info) != 0) throwFileError("read", executable);
  // At least rwxr-xr-x, whatever the archive it came from gave it.
  writePatchedCopy(executable, executable, injection.insertion, (info.st_mode & 07777) | 0755);
}

// A work folder beside `output`, on the same file system, so that the result is renamed into
// place in one step; removed with everything in it when the guard ends.
fs::path makeWorkFolder(const fs::path& output) {
  fs::path parent = output.parent_path().empty() ? "." : output.parent_path();
  std::string pattern =
      (parent / ("." + output.filename().string() + ".corvelstow-XXXXXX")).string();
  if (!::mkdtemp(pattern.data())) throwFileError("create a work folder beside", output);
  return pattern;
}

void replace(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (error) {
    throwFileError(error.value(),
                   "Could not write " + to.filename().string() + ": " + error.message() + ".");
  }
}

// An .app folder: planned on the bundle as it is; changed in place, or in a copy made in the
// work folder and renamed to the output.
InjectedApp injectFolder(const fs::path& app, const fs::path& output, const IosLibrary& library) {
  AppInjection injection = planAppInjection(app, app.filename().string(), library);
  if (injection.insertion.alreadyLoaded) return {{}, injection.executable, injection.insertion};
  if (output == app) {
    applyAppInjection(app, injection, library);
  } else {
    const fs::path work = makeWorkFolder(output);
    ScopeGuard removeWork([&] { files::removeAll(work); });
    const fs::path copy = work / app.filename();
    std::error_code error;
    fs::copy(app, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    if (error) {
      throwFileError(error.value(),
                     "Could not copy " + app.filename().string() + ": " + error.message() + ".");
    }
    applyAppInjection(copy, injection, library);
    replace(copy, output);
  }
  return {output, injection.executable, injection.insertion};
}

// An .ipa: unpacked in the work folder, changed there and packed again, the library's entries
// added after the others.
InjectedApp injectArchive(const fs::path& ipa, const fs::path& output, const IosLibrary& library) {
  const fs::path work = makeWorkFolder(output);
  ScopeGuard removeWork([&] { files::removeAll(work); });
  const fs::path unpacked = work / "unpacked";
  UnpackedApp archive = unpackApp(ipa, unpacked);
  const fs::path bundle = unpacked / archive.app;
  AppInjection injection = planAppInjection(bundle, bundle.filename().string(), library);
  if (injection.insertion.alreadyLoaded) return {{}, injection.executable, injection.insertion};
  applyAppInjection(bundle, injection, library);

  for (const std::string& added :
       {archive.app + "/Frameworks/", archive.app + "/Frameworks/" + kLibraryName}) {
    auto& entries = archive.entries;
    if (std::find(entries.begin(), entries.end(), added) == entries.end()) entries.push_back(added);
  }
  const fs::path packed = work / output.filename();
  packApp(unpacked, archive.entries, packed);
  replace(packed, output);
  return {output, injection.executable, injection.insertion};
}

}  // namespace

IosLibrary openIosLibrary(const fs::path& file) {
  OpenMachFile library = openMachFile(file, file.filename().string());
  return {file, macho::readDylibIdentity(library.file)};
}

InjectedApp injectApp(const fs::path& app, const fs::path& output, const IosLibrary& library) {
  return files::isFolder(app) ? injectFolder(app, output, library)
                              : injectArchive(app, output, library);
}

}  // namespace corvelstow::inject
