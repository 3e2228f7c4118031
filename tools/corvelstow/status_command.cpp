// corvelstow status: the panel of the container's app, drawn in the terminal from the same data
// the app's panel shows.

#include <ostream>

#include "command_context.h"
#include "model_session.h"
#include "panel_output.h"
#include "store/host_app.h"
#include "store/records.h"
#include "ui/panel_content.h"

namespace corvelstow::cli {
namespace {

template <typename Record>
nlohmann::json jsonOrNull(const std::optional<Record>& record) {
  return record ? toJson(*record) : nlohmann::json(nullptr);
}

nlohmann::json optionalText(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

void printStatus(const CommandContext& context) {
  const StowLayout& layout = context.container();
  ModelSession session(layout);
  StowModel& model = session.model();
  // What opening the panel does: read the records, and survey the data in the background.
  model.reload();
  session.runUntil([&] { return model.usage().has_value(); });
  StowPanelContent panel = panelContent(model, session.formatters(), currentDate());

  if (context.json) {
    const StowHostApp& app = model.app();
    context.printJson({{"app",
                        {{"bundleID", app.bundleID},
                         {"name", app.name},
                         {"version", optionalText(app.version)},
                         {"teamID", optionalText(app.teamID)}}},
                       {"settings", toJson(model.settings())},
                       {"pending", jsonOrNull(model.pending())},
                       {"previous", jsonOrNull(model.previous())},
                       {"outcome", jsonOrNull(model.outcome())},
                       {"usage", usageJson(model.usage())},
                       {"panel", panelJson(panel)}});
    return;
  }
  context.out << "Container: " << layout.home.string() << "\n\n";
  printPanel(context.out, panel, bundleIcon());
}

}  // namespace

void addStatusCommand(CLI::App& app, CommandList& commands) {
  auto* status = app.add_subcommand(
      "status", "Show the app's panel: its data, a waiting or last restore, the options");
  commands.push_back({status, printStatus});
}

}  // namespace corvelstow::cli
