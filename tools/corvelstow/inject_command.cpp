// corvelstow inject: puts the iOS library into an app (an .app folder or an .ipa), so that the
// app loads it at launch once it is signed again.

#include <cerrno>
#include <ostream>

#include "base/file_error.h"
#include "base/files.h"
#include "command_context.h"
#include "inject/app_injection.h"

namespace corvelstow::cli {
namespace {

namespace fs = std::filesystem;
using inject::kLibraryName;

struct InjectOptions {
  std::string app;
  std::string output;
  bool inPlace = false;
  std::string library;
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

void injectLibrary(const CommandContext& context, const InjectOptions& options) {
  const fs::path app = appPath(options.app);
  if (!files::exists(app)) throwFileError(ENOENT, "There is no app at " + app.string() + ".");
  const inject::IosLibrary library = inject::openIosLibrary(libraryPath(options.library));
  const inject::InjectedApp result = inject::injectApp(app, outputPath(app, options), library);
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
      {command, [options](const CommandContext& context) { injectLibrary(context, *options); }});
}

}  // namespace corvelstow::cli
