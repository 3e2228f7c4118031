// corvelstow greet: what the pill says when the app opens.

#include <ostream>

#include "command_context.h"
#include "model_session.h"
#include "panel_output.h"

namespace corvelstow::cli {
namespace {

// As the app does once its first window is up: announce an unannounced outcome (marking it
// announced, so that it is told once), else a waiting restore, else the invitation when
// "Show When the App Opens" is on.
void greet(const CommandContext& context) {
  ModelSession session(context.container());
  StowModel& model = session.model();
  model.greet();
  if (context.json) {
    context.printJson({{"pill", pillJson(model.pill())}});
  } else {
    printPill(context.out, model.pill());
  }
}

}  // namespace

void addGreetCommand(CLI::App& app, CommandList& commands) {
  auto* command = app.add_subcommand(
      "greet", "Show the pill the app shows when it opens; an outcome is announced only once");
  commands.push_back({command, greet});
}

}  // namespace corvelstow::cli
