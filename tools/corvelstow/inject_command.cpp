// corvelstow inject: puts the iOS library into an app (an .app folder or an .ipa), so that the
// app loads it at launch once it is signed again.

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ostream>

#include "app_archive.h"
#include "app_injection.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "command_context.h"

namespace corvelstow::cli {
namespace {

struct InjectOptions {
  std::string app;
  std::string output;
  bool inPlace = false;
  std::string library;
};

// What was done, for the report.
struct InjectResult {
  fs::path output;  // empty when the app loads the library already
  std::string executable;
  macho::DylibInsertion insertion;
};

// The iOS library: named by --library (or CORVELSTOW_IOS_LIBRARY), else beside the command, else
// where the iOS build leaves it next to this build (build-ios/ beside build/).
fs::path libraryPath(const std::string& named) {
  if (!named.empty()) return named;
  if (auto found = besideCommand({kLibraryName, fs::path("../build-ios") / kLibraryName})) {
    return *found;
  }
  throwFileError(ENOENT, std::string("Could not find ") + kLibraryName +
                             ": build it with cmake --preset ios, or name it with --library.");
}

// The app's path without a trailing slash, so that its name is its last component.
fs::path appPath(const std::string& named) {
  fs::path path = fs::path(named).lexically_normal();
  return path.has_filename() || !path.has_parent_path() ? path : path.parent_path();
}

// Beside the app, "{name}-corvelstow{extension}", unless -o or --in-place says otherwise.
fs::path outputPath(const fs::path& app, const InjectOptions& options) {
  if (options.inPlace) return app;
  fs::path output = options.output;
  if (output.empty()) {
    output = app.parent_path() / (app.stem().string() + "-corvelstow" + app.extension().string());
  }
  if (files::exists(output)) {
    throwFileError(
        EEXIST, output.filename().string() + " already exists; remove it or name another with -o.");
  }
  return output;
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
InjectResult injectFolder(const fs::path& app, const fs::path& output, const IosLibrary& library) {
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
  return InjectResult{output, injection.executable, injection.insertion};
}

// An .ipa: unpacked in the work folder, changed there and packed again, the library's entries
// added after the others.
InjectResult injectArchive(const fs::path& ipa, const fs::path& output, const IosLibrary& library) {
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
  return InjectResult{output, injection.executable, injection.insertion};
}

void inject(const CommandContext& context, const InjectOptions& options) {
  const fs::path app = appPath(options.app);
  if (!files::exists(app)) throwFileError(ENOENT, "There is no app at " + app.string() + ".");
  const IosLibrary library = openIosLibrary(libraryPath(options.library));
  const fs::path output = outputPath(app, options);
  const InjectResult result = files::isFolder(app) ? injectFolder(app, output, library)
                                                   : injectArchive(app, output, library);
  const macho::DylibInsertion& insertion = result.insertion;
  if (context.json) {
    nlohmann::json report = {{"executable", result.executable},
                             {"alreadyLoaded", insertion.alreadyLoaded}};
    if (!insertion.alreadyLoaded) {
      report["output"] = fs::absolute(result.output).string();
      report["rpathAdded"] = insertion.rpathAdded;
      report["signatureRemoved"] = insertion.signatureRemoved;
      report["loadsFirst"] = insertion.loadsFirst;
    }
    context.printJson(report);
  } else if (insertion.alreadyLoaded) {
    context.out << result.executable << " already loads " << kLibraryName
                << "; nothing was changed.\n";
  } else {
    context.out << "Wrote " << result.output.string() << ": its executable " << result.executable
                << " loads " << kLibraryName << " from Frameworks.\n";
    if (!insertion.loadsFirst) {
      context.out << "The app's own frameworks start before it: the executable's binding "
                     "information has no room to load it first.\n";
    }
    context.out << "Sign the app with your certificate before installing it"
                << (insertion.signatureRemoved ? "; its old signature was removed.\n" : ".\n");
  }
}

}  // namespace

void addInjectCommand(CLI::App& app, CommandList& commands) {
  auto options = std::make_shared<InjectOptions>();
  auto* command = app.add_subcommand(
      "inject", "Put the iOS library into an app (.app folder or .ipa), to be signed again");
  command->add_option("APP", options->app, "The app: an .app folder or an .ipa file")->required();
  auto* output = command->add_option(
      "-o,--output", options->output,
      "Where to write the changed app (default: beside it, NAME-corvelstow.ipa or .app)");
  command->add_flag("--in-place", options->inPlace, "Change the app itself")->excludes(output);
  command
      ->add_option("--library", options->library,
                   "The iOS libcorvelstow.dylib (default: beside the command, or the iOS "
                   "build's build-ios/libcorvelstow.dylib)")
      ->envname("CORVELSTOW_IOS_LIBRARY");
  commands.push_back(
      {command, [options](const CommandContext& context) { inject(context, *options); }});
}

}  // namespace corvelstow::cli
