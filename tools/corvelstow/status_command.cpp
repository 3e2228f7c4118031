// corvelstow status: what is known about the container and its app.

#include <ostream>

#include "command_context.h"
#include "store/host_app.h"
#include "store/records.h"

namespace corvelstow::cli {
namespace {

template <typename Record>
nlohmann::json jsonOrNull(const std::optional<Record>& record) {
  return record ? toJson(*record) : nlohmann::json(nullptr);
}

nlohmann::json optionalText(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

std::string onOff(bool value) { return value ? "on" : "off"; }

void printStatus(const CommandContext& context) {
  const StowLayout& layout = context.container();
  const StowHostApp& app = StowHostApp::shared();
  StowSettings settings = loadSettings(layout);
  auto pending = readRecord<StowStagedRestore>(layout.stagedRecord);
  auto previous = readRecord<StowStagedRestore>(layout.previousRecord);
  auto outcome = readRecord<StowOutcome>(layout.outcomeRecord);

  if (context.json) {
    context.printJson({{"app",
                        {{"bundleID", app.bundleID},
                         {"name", app.name},
                         {"version", optionalText(app.version)},
                         {"teamID", optionalText(app.teamID)}}},
                       {"settings", toJson(settings)},
                       {"pending", jsonOrNull(pending)},
                       {"previous", jsonOrNull(previous)},
                       {"outcome", jsonOrNull(outcome)}});
    return;
  }

  std::ostream& out = context.out;
  out << app.name << " (" << app.bundleID << ")";
  if (app.version) out << ", version " << *app.version;
  if (app.teamID) out << ", team " << *app.teamID;
  out << "\nContainer: " << layout.home.string() << "\n";
  out << "Show when the app opens: " << onOff(settings.showOnLaunch)
      << "; include caches: " << onOff(settings.includeCaches) << "\n";
  out << "Last backup: "
      << (settings.lastBackupAt ? formatInternetDate(*settings.lastBackupAt) : "never") << "\n";
  if (pending) {
    out << "Restore waiting: " << title(pending->scope) << " from " << pending->manifest.appName
        << ", staged " << formatInternetDate(pending->stagedAt) << "\n";
  }
  if (outcome) {
    out << "Last restore: " << outcome->message << " (applied "
        << formatInternetDate(outcome->appliedAt) << ")\n";
  }
  if (previous) out << "Undo available: the data from before the restore is kept.\n";
}

}  // namespace

void addStatusCommand(CLI::App& app, CommandList& commands) {
  auto* status = app.add_subcommand("status", "Show the app, its settings and any restore");
  commands.push_back({status, printStatus});
}

}  // namespace corvelstow::cli
