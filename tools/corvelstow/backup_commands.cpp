// corvelstow backup, inspect, restore, usage and set: backing up the container and preparing a
// restore for the next launch.

#include <cerrno>
#include <ostream>
#include <stdexcept>

#include "backup/inspection.h"
#include "backup/usage.h"
#include "base/file_error.h"
#include "command_context.h"
#include "model_session.h"
#include "progress_printer.h"
#include "store/host_app.h"

namespace corvelstow::cli {
namespace {

std::string plural(std::int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// Through the panel model, as "Back Up Now" does: its progress is the model's.
void backup(const CommandContext& context, bool includeCachesFlag) {
  ModelSession session(context.container());
  StowModel& model = session.model();
  ProgressPrinter progress("Backing up");
  session.followWork(std::ref(progress));
  if (includeCachesFlag) {
    model.backUpWith(true);
  } else {
    model.backUp();
  }
  session.finishWork();
  fs::path archive = *model.lastExport();
  if (context.json) {
    context.printJson({{"archive", archive.string()}, {"manifest", toJson(readManifest(archive))}});
  } else {
    context.out << archive.string() << '\n';
  }
}

void inspect(const CommandContext& context, const fs::path& archive) {
  StowManifest manifest = readManifest(archive);
  if (context.json) {
    context.printJson(toJson(manifest));
    return;
  }
  std::ostream& out = context.out;
  out << "From: " << manifest.appName << '\n'
      << "Bundle ID: " << manifest.bundleIdentifier << '\n'
      << "App version: " << manifest.appVersion.value_or("") << '\n'
      << "Taken: " << formatInternetDate(manifest.createdAt) << '\n'
      << "Device: " << manifest.deviceName.value_or("") << '\n'
      << "Holds: " << plural(manifest.fileCount, "file", "files") << ", "
      << plural(manifest.totalBytes, "byte", "bytes") << '\n';
  const StowHostApp& app = StowHostApp::shared();
  if (manifest.bundleIdentifier != app.bundleID) {
    out << "This backup is from " << manifest.appName
        << ". Its settings will be renamed to this app's id.\n";
  }
}

// Through the panel model, as choosing a backup and "Prepare Restore" do.
void restore(const CommandContext& context, const fs::path& archive, StowRestoreScope scope) {
  ModelSession session(context.container());
  StowModel& model = session.model();
  model.chooseBackup(archive);
  session.runUntil([&] { return model.preview() || model.errorText(); });
  if (model.errorText()) throw std::runtime_error(*model.errorText());
  model.setScope(scope);
  {
    ProgressPrinter progress("Preparing the restore");
    session.followWork(std::ref(progress));
    model.prepareRestore();
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
    context.printJson({{"documentsBytes", usage.documentsBytes},
                       {"libraryBytes", usage.libraryBytes},
                       {"cachesBytes", usage.cachesBytes},
                       {"files", usage.files}});
    return;
  }
  context.out << "Documents: " << plural(usage.documentsBytes, "byte", "bytes") << '\n'
              << "Library: " << plural(usage.libraryBytes, "byte", "bytes") << '\n'
              << "Caches: " << plural(usage.cachesBytes, "byte", "bytes") << '\n'
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

}  // namespace

void addBackupCommands(CLI::App& app, CommandList& commands) {
  auto* backupCommand = app.add_subcommand("backup", "Back up the container into an archive");
  auto includeCaches = std::make_shared<bool>(false);
  backupCommand->add_flag("--include-caches", *includeCaches,
                          "Include Library/Caches (otherwise the saved option decides)");
  commands.push_back({backupCommand, [includeCaches](const CommandContext& context) {
                        backup(context, *includeCaches);
                      }});

  auto* inspectCommand = app.add_subcommand("inspect", "Show what a backup holds");
  auto archive = std::make_shared<std::string>();
  inspectCommand->add_option("file", *archive, "The backup (.corvelappdata)")->required();
  commands.push_back({inspectCommand, [archive](const CommandContext& context) {
                        inspect(context, *archive);
                      }});

  auto* restoreCommand =
      app.add_subcommand("restore", "Prepare a restore; the next launch swaps it in");
  auto restoreArchive = std::make_shared<std::string>();
  auto scope = std::make_shared<std::string>("everything");
  restoreCommand->add_option("file", *restoreArchive, "The backup (.corvelappdata)")->required();
  restoreCommand->add_option("--scope", *scope, "What to restore")
      ->check(CLI::IsMember({"everything", "documents", "settings"}));
  commands.push_back({restoreCommand, [restoreArchive, scope](const CommandContext& context) {
                        restore(context, *restoreArchive, *scopeFromRawValue(*scope));
                      }});

  auto* usageCommand = app.add_subcommand("usage", "Measure how much data a backup would hold");
  commands.push_back({usageCommand, usage});

  auto* set = app.add_subcommand("set", "Change an option: include-caches or show-on-launch");
  auto option = std::make_shared<std::string>();
  auto value = std::make_shared<std::string>();
  set->add_option("option", *option)->required()->check(
      CLI::IsMember({"include-caches", "show-on-launch"}));
  set->add_option("value", *value)->required()->check(CLI::IsMember({"on", "off"}));
  commands.push_back({set, [option, value](const CommandContext& context) {
                        setOption(context, *option, *value == "on");
                      }});
}

}  // namespace corvelstow::cli
