// corvelstow backup, inspect, restore, usage and set: backing up the container and preparing a
// restore for the next launch.

#include <cerrno>
#include <iostream>
#include <ostream>
#include <stdexcept>

#include "backup/inspection.h"
#include "backup/staging.h"
#include "backup/usage.h"
#include "base/file_error.h"
#include "base/files.h"
#include "command_context.h"
#include "model_session.h"
#include "panel_output.h"
#include "platform/platform.h"
#include "progress_printer.h"
#include "store/host_app.h"

namespace corvelstow::cli {
namespace {

// Through the panel model, as "Back Up Now" does: its progress is the model's. Caches go in
// when asked for here or by the saved option.
void backup(const CommandContext& context, bool includeCachesFlag, unsigned threads) {
  ModelSession session(context.container());
  StowModel& model = session.model();
  {
    ProgressPrinter progress("Backing up", context.progress);
    session.followWork(std::ref(progress));
    model.backUpWith(includeCachesFlag || model.settings().includeCaches, threads);
    session.finishWork();
  }
  fs::path archive = *model.lastExport();
  const std::vector<std::string>& leftOut = model.lastExportLeftOut();
  if (context.json) {
    context.printJson({{"archive", archive.string()},
                       {"manifest", toJson(readManifest(archive))},
                       {"leftOut", leftOut}});
  } else {
    context.out << archive.string() << '\n';
    // Beside the progress rather than after the path, which stays the only line of stdout.
    for (const std::string& path : leftOut) {
      std::cerr << "Left out " << path
                << ": the app removed or replaced it while the backup ran.\n";
    }
  }
}

// The preview the panel shows once a backup is chosen, drawn from the same panel content.
void inspect(const CommandContext& context, const fs::path& archive) {
  if (context.json) {
    context.printJson(toJson(readManifest(archive)));
    return;
  }
  // A backup can be looked at without a container: the model then reads an empty one, which
  // it never writes to.
  auto home = platform::containerFolder();
  StowLayout layout = home && files::isFolder(*home)
                          ? context.container()
                          : StowLayout::forRoots(platform::temporaryFolder() / "no container",
                                                 platform::temporaryFolder());
  ModelSession session(layout);
  StowModel& model = session.model();
  model.chooseBackup(archive);
  session.runUntil([&] { return model.preview() || model.errorText(); });
  if (model.errorText()) throw std::runtime_error(*model.errorText());
  StowPanelContent panel = panelContent(model, session.formatters(), currentDate());
  std::erase_if(panel.sections, [](const StowPanelContent::Section& section) {
    return section.kind != StowPanelContent::Section::Kind::preview;
  });
  printPanel(context.out, panel, std::nullopt);
}

// Through the panel model, as choosing a backup and "Prepare Restore" do.
void restore(const CommandContext& context, const fs::path& archive, StowRestoreScope scope,
             unsigned threads) {
  ModelSession session(context.container());
  StowModel& model = session.model();
  model.chooseBackup(archive);
  session.runUntil([&] { return model.preview() || model.errorText(); });
  if (model.errorText()) throw std::runtime_error(*model.errorText());
  model.setScope(scope);
  {
    ProgressPrinter progress("Preparing the restore", context.progress);
    session.followWork(std::ref(progress));
    model.prepareRestore(threads);
    session.finishWork();
  }
  const auto& staged = model.pending();
  if (context.json) {
    context.printJson(staged ? toJson(*staged) : nlohmann::json(nullptr));
  } else {
    context.out << title(scope) << " from " << staged->manifest.appName
                << " is ready: it is swapped in the next time the app opens (corvelstow run).\n";
  }
}

void usage(const CommandContext& context) {
  StowUsage usage = surveyUsage(context.container());
  if (context.json) {
    context.printJson(usageJson(usage));
    return;
  }
  platform::IcuFormatters formatters;
  context.out << "Documents: " << formatters.byteCount(usage.documentsBytes) << '\n'
              << "Library: " << formatters.byteCount(usage.libraryBytes) << '\n'
              << "Caches: " << formatters.byteCount(usage.cachesBytes) << '\n'
              << "Files: " << usage.files << '\n';
}

void setOption(const CommandContext& context, const std::string& option, bool on) {
  const StowLayout& layout = context.container();
  StowSettings settings = loadSettings(layout);
  (option == "include-caches" ? settings.includeCaches : settings.showOnLaunch) = on;
  saveSettings(layout, settings);
  if (loadSettings(layout) != settings) throwFileError("write", layout.settingsRecord);
  if (context.json) {
    context.printJson(toJson(settings));
  } else {
    context.out << option << ": " << (on ? "on" : "off") << '\n';
  }
}

// --threads N: a whole number from 1 up.
void addThreadsOption(CLI::App* command, unsigned& threads, const std::string& description) {
  const auto wholeFromOne = [](const std::string& text) -> std::string {
    const bool digits = !text.empty() && text.size() <= 9 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
    if (digits && std::stoul(text) >= 1) return "";
    return "The number of threads must be a whole number from 1 up.";
  };
  command->add_option("--threads", threads, description)
      ->type_name("N")
      ->check(CLI::Validator(wholeFromOne, "N >= 1"));
}

}  // namespace

void addBackupCommands(CLI::App& app, CommandList& commands) {
  auto* backupCommand = app.add_subcommand("backup", "Back up the container into an archive");
  auto includeCaches = std::make_shared<bool>(false);
  backupCommand->add_flag("--include-caches", *includeCaches,
                          "Include Library/Caches (otherwise the saved option decides)");
  auto threads = std::make_shared<unsigned>(platform::processorCount());
  addThreadsOption(backupCommand, *threads,
                   "Compress with N threads (default: one per processor); the archive is the "
                   "same whatever N");
  commands.push_back({backupCommand, [includeCaches, threads](const CommandContext& context) {
                        backup(context, *includeCaches, *threads);
                      }});

  auto* inspectCommand = app.add_subcommand("inspect", "Show what a backup holds");
  auto archive = std::make_shared<std::string>();
  inspectCommand->add_option("file", *archive, "The backup (.corvelappdata)")->required();
  commands.push_back(
      {inspectCommand, [archive](const CommandContext& context) { inspect(context, *archive); }});

  auto* restoreCommand =
      app.add_subcommand("restore", "Prepare a restore; the next launch swaps it in");
  auto restoreArchive = std::make_shared<std::string>();
  auto scope = std::make_shared<std::string>("everything");
  restoreCommand->add_option("file", *restoreArchive, "The backup (.corvelappdata)")->required();
  restoreCommand->add_option("--scope", *scope, "What to restore")
      ->check(CLI::IsMember({"everything", "documents", "settings"}));
  auto restoreThreads = std::make_shared<unsigned>(platform::processorCount());
  addThreadsOption(restoreCommand, *restoreThreads,
                   "Unpack with N threads (default: one per processor); what is staged is the "
                   "same whatever N");
  commands.push_back(
      {restoreCommand, [restoreArchive, scope, restoreThreads](const CommandContext& context) {
         restore(context, *restoreArchive, *scopeFromRawValue(*scope), *restoreThreads);
       }});

  auto* usageCommand = app.add_subcommand("usage", "Measure how much data a backup would hold");
  commands.push_back({usageCommand, usage});

  auto* set = app.add_subcommand("set", "Change an option: include-caches or show-on-launch");
  auto option = std::make_shared<std::string>();
  auto value = std::make_shared<std::string>();
  set->add_option("option", *option)
      ->required()
      ->check(CLI::IsMember({"include-caches", "show-on-launch"}));
  set->add_option("value", *value)->required()->check(CLI::IsMember({"on", "off"}));
  commands.push_back({set, [option, value](const CommandContext& context) {
                        setOption(context, *option, *value == "on");
                      }});
}

}  // namespace corvelstow::cli
