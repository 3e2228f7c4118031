#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "store/layout.h"

namespace corvelstow::cli {

/// What every command sees: the global options and where to print.
struct CommandContext {
  bool json = false;
  bool progress = false;  ///< --progress: progress on stderr even when it is not a terminal
  std::ostream& out;
  /// Whether the command worked on a container (asked for it): the work folder is then tidied
  /// once the command is done (tidyWorkFolder).
  mutable bool containerUsed = false;

  /// The container named by --home (or CORVELSTOW_HOME). Throws a one-sentence error when none
  /// is named or the folder does not exist.
  const StowLayout& container() const;

  /// Prints a JSON document on stdout, followed by a newline.
  void printJson(const nlohmann::json& document) const;
};

/// A subcommand and what it does once its options are parsed.
struct Command {
  CLI::App* app = nullptr;
  std::function<void(const CommandContext&)> run;
};

using CommandList = std::vector<Command>;

/// The first of `candidates` (relative to the folder of the running corvelstow command) that
/// exists, made absolute; nothing when none does.
std::optional<std::filesystem::path> besideCommand(
    std::initializer_list<std::filesystem::path> candidates);

// Each file of the command adds its subcommands here.
void addStatusCommand(CLI::App& app, CommandList& commands);
void addArchiveCommands(CLI::App& app, CommandList& commands);  // list, cat, verify
void addLaunchCommands(CLI::App& app, CommandList& commands);
void addBackupCommands(CLI::App& app, CommandList& commands);
void addGreetCommand(CLI::App& app, CommandList& commands);
void addInjectCommand(CLI::App& app, CommandList& commands);

}  // namespace corvelstow::cli
