// corvelstow: back up and restore an app's data container from the terminal.

#include <cstdlib>
#include <iostream>

#include "command_context.h"
#include "startup/startup.h"

using namespace corvelstow::cli;

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"CorvelStow: back up and restore the data of an app container.", "corvelstow"};
  app.require_subcommand(1);
  app.fallthrough();  // global options may also follow the subcommand
  std::string home, bundle;
  bool json = false, progress = false;
  app.add_option("--home", home, "The app container (a folder holding Documents and Library)")
      ->envname("CORVELSTOW_HOME");
  app.add_option("--bundle", bundle, "The app's bundle folder (holding Info.plist)")
      ->envname("CORVELSTOW_BUNDLE");
  app.add_flag("--json", json, "Print machine-readable JSON on stdout");
  app.add_flag("--progress", progress,
               "Show the progress of backup and restore on stderr even when it is not a terminal");

  CommandList commands;
  addStatusCommand(app, commands);
  addArchiveCommands(app, commands);
  addLaunchCommands(app, commands);
  addBackupCommands(app, commands);
  addGreetCommand(app, commands);
  addInjectCommand(app, commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    int code = app.exit(error);
    return code == 0 ? 0 : kUsage;
  }

  // The engine reads its roots from the environment, as the library does when it is loaded.
  if (!home.empty()) ::setenv("CORVELSTOW_HOME", home.c_str(), 1);
  if (!bundle.empty()) ::setenv("CORVELSTOW_BUNDLE", bundle.c_str(), 1);

  CommandContext context{json, progress, std::cout};
  for (const Command& command : commands) {
    if (!command.app->parsed()) continue;
    int status = EXIT_SUCCESS;
    try {
      command.run(context);
    } catch (const std::exception& error) {
      std::cout.flush();
      std::cerr << error.what() << '\n';
      status = kFailure;
    }
    // What the app's launches discarded is removed here, off their path.
    if (context.containerUsed) corvelstow::tidyWorkFolder(corvelstow::StowLayout::shared());
    return status;
  }
  return kUsage;
}
