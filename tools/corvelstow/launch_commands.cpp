// corvelstow run and corvelstow undo: what closing and reopening the app does on a device.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ostream>

#include "base/file_error.h"
#include "command_context.h"
#include "startup/undo.h"
#include "store/records.h"

namespace corvelstow::cli {
namespace {

// The library sits beside the command in a build, and in ../lib once installed;
// CORVELSTOW_LIBRARY names another.
fs::path libraryPath() {
  if (const char* named = std::getenv("CORVELSTOW_LIBRARY"); named && *named) return named;
  if (auto found = besideCommand({"libcorvelstow.so", "../lib/libcorvelstow.so"})) return *found;
  throwFileError(ENOENT, "Could not find libcorvelstow.so beside the corvelstow command.");
}

// Starts the app's process with the library preloaded, so that the launch-time work runs in it
// before its main, as it does when an app that carries the library is opened.
void launch(const CommandContext& context, const std::vector<std::string>& command) {
  const StowLayout& layout = context.container();
  std::string preload = libraryPath().string();
  if (const char* existing = std::getenv("LD_PRELOAD"); existing && *existing) {
    preload = std::string(existing) + ":" + preload;
  }
  ::setenv("LD_PRELOAD", preload.c_str(), 1);
  ::setenv("CORVELSTOW_HOME", fs::absolute(layout.home).c_str(), 1);
  context.out.flush();

  std::vector<char*> argv;
  for (const auto& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  throwFileError("start", command.front());
}

void undo(const CommandContext& context) {
  const StowLayout& layout = context.container();
  if (!readPreviousRestore(layout)) {
    throwFileError(ENOENT, "There is no restore to undo.");
  }
  requestUndo(layout);
  if (context.json) {
    context.printJson({{"undoRequested", true}});
  } else {
    context.out << "The data from before the restore is put back the next time the app opens.\n";
  }
}

}  // namespace

void addLaunchCommands(CLI::App& app, CommandList& commands) {
  auto* run = app.add_subcommand(
      "run", "Start a program as the app: a waiting undo or restore is applied as it loads");
  auto command = std::make_shared<std::vector<std::string>>();
  run->add_option("command", *command, "The program and its arguments (after --)")->required();
  commands.push_back(
      {run, [command](const CommandContext& context) { launch(context, *command); }});

  auto* request = app.add_subcommand(
      "undo", "Put back the data from before the last restore, the next time the app opens");
  commands.push_back({request, undo});
}

}  // namespace corvelstow::cli
