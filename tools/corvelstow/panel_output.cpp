#include "panel_output.h"

#include <algorithm>
#include <fstream>
#include <ostream>
#include <sstream>

#include "platform/platform.h"
#include "ui/app_icon.h"
#include "ui/pill_content.h"

namespace corvelstow::cli {

namespace {

using C = StowPanelContent;
using Kind = C::Section::Kind;

constexpr std::size_t kWidth = 80;

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::header:
      return "header";
    case Kind::appData:
      return "appData";
    case Kind::work:
      return "work";
    case Kind::error:
      return "error";
    case Kind::preview:
      return "preview";
    case Kind::pending:
      return "pending";
    case Kind::lastRestore:
      return "lastRestore";
    case Kind::options:
      return "options";
    case Kind::information:
      return "information";
  }
  return "";
}

const char* actionName(StowPanelAction action) {
  switch (action) {
    case StowPanelAction::backUp:
      return "backUp";
    case StowPanelAction::restore:
      return "restore";
    case StowPanelAction::shareLast:
      return "shareLast";
    case StowPanelAction::prepareRestore:
      return "prepareRestore";
    case StowPanelAction::cancelPreview:
      return "cancelPreview";
    case StowPanelAction::closeApp:
      return "closeApp";
    case StowPanelAction::undoAndCloseApp:
      return "undoAndCloseApp";
    case StowPanelAction::chooseScope:
      return "chooseScope";
    case StowPanelAction::includeCaches:
      return "includeCaches";
    case StowPanelAction::showOnLaunch:
      return "showOnLaunch";
  }
  return "";
}

const char* styleName(C::TextStyle style) {
  switch (style) {
    case C::TextStyle::plain:
      return "plain";
    case C::TextStyle::note:
      return "note";
    case C::TextStyle::warning:
      return "warning";
  }
  return "";
}

std::optional<std::string> buttonCommand(StowPanelAction action) {
  switch (action) {
    case StowPanelAction::backUp:
      return "corvelstow backup";
    case StowPanelAction::restore:
      return "corvelstow restore FILE";
    case StowPanelAction::closeApp:
      return "corvelstow run -- APP";
    case StowPanelAction::undoAndCloseApp:
      return "corvelstow undo";
    default:
      return std::nullopt;
  }
}

std::string switchCommand(const C::Switch& option) {
  const char* name =
      option.action == StowPanelAction::includeCaches ? "include-caches" : "show-on-launch";
  return std::string("corvelstow set ") + name + (option.on ? " off" : " on");
}

// `text` in lines of at most kWidth columns: the first begins with `first`, the others with
// `indent`.
void printWrapped(std::ostream& out, const std::string& text, const std::string& first,
                  const std::string& indent) {
  std::istringstream words(text);
  std::string word;
  std::string line = first;
  bool empty = true;
  while (words >> word) {
    if (!empty && line.size() + 1 + word.size() > kWidth) {
      out << line << '\n';
      line = indent;
      empty = true;
    }
    line += (empty ? "" : " ") + word;
    empty = false;
  }
  out << line << '\n';
}

struct RowPrinter {
  std::ostream& out;
  const std::optional<std::filesystem::path>& icon;

  void operator()(const C::Header& header) const {
    out << header.appName << '\n';
    if (header.version) out << *header.version << '\n';
    if (icon) out << "Icon: " << icon->string() << '\n';
  }
  void operator()(const C::Text& text) const {
    switch (text.style) {
      case C::TextStyle::plain:
        printWrapped(out, text.text, "  ", "  ");
        break;
      case C::TextStyle::note:
        printWrapped(out, text.text, "    ", "    ");
        break;
      case C::TextStyle::warning:
        printWrapped(out, text.text, "  ! ", "    ");
        break;
    }
  }
  void operator()(const C::Value& value) const {
    out << "  " << value.label << ": " << value.value << '\n';
  }
  void operator()(const C::Progress& progress) const {
    constexpr int kBar = 20;
    double fraction = std::clamp(progress.fraction, 0.0, 1.0);
    int filled = static_cast<int>(fraction * kBar + 0.5);
    out << "  " << progress.title << " [" << std::string(filled, '#')
        << std::string(kBar - filled, ' ') << "] " << static_cast<int>(fraction * 100 + 0.5)
        << "%  " << progress.detail << '\n';
  }
  void operator()(const C::Button& button) const {
    out << "  [" << button.label << "]";
    if (!button.enabled) {
      out << "  (not while work runs)";
    } else if (auto command = buttonCommand(button.action)) {
      out << "  " << *command;
    }
    out << '\n';
  }
  void operator()(const C::Switch& option) const {
    out << "  [" << (option.on ? 'x' : ' ') << "] " << option.title << "  ("
        << switchCommand(option) << ")\n";
    printWrapped(out, option.note, "      ", "      ");
  }
  void operator()(const C::Choice& choice) const {
    out << "  (" << (choice.selected ? '*' : ' ') << ") " << choice.title << "  (--scope "
        << rawValue(choice.scope) << ")\n";
    printWrapped(out, choice.description, "      ", "      ");
  }
};

struct RowJson {
  nlohmann::json operator()(const C::Header& header) const {
    return {{"type", "header"},
            {"appName", header.appName},
            {"version", header.version ? nlohmann::json(*header.version) : nullptr}};
  }
  nlohmann::json operator()(const C::Text& text) const {
    return {{"type", "text"},
            {"text", text.text},
            {"symbol", text.symbol},
            {"style", styleName(text.style)}};
  }
  nlohmann::json operator()(const C::Value& value) const {
    return {{"type", "value"}, {"label", value.label}, {"value", value.value}};
  }
  nlohmann::json operator()(const C::Progress& progress) const {
    return {{"type", "progress"},
            {"title", progress.title},
            {"fraction", progress.fraction},
            {"detail", progress.detail}};
  }
  nlohmann::json operator()(const C::Button& button) const {
    return {{"type", "button"},
            {"label", button.label},
            {"symbol", button.symbol},
            {"action", actionName(button.action)},
            {"enabled", button.enabled}};
  }
  nlohmann::json operator()(const C::Switch& option) const {
    return {{"type", "switch"},
            {"title", option.title},
            {"on", option.on},
            {"note", option.note},
            {"action", actionName(option.action)}};
  }
  nlohmann::json operator()(const C::Choice& choice) const {
    return {{"type", "choice"},        {"scope", rawValue(choice.scope)},
            {"title", choice.title},   {"description", choice.description},
            {"symbol", choice.symbol}, {"selected", choice.selected}};
  }
};

}  // namespace

std::optional<std::string> commandFor(const StowPanelContent::Row& row) {
  if (const auto* button = std::get_if<C::Button>(&row)) return buttonCommand(button->action);
  if (const auto* option = std::get_if<C::Switch>(&row)) return switchCommand(*option);
  if (const auto* choice = std::get_if<C::Choice>(&row)) {
    return "corvelstow restore FILE --scope " + std::string(rawValue(choice->scope));
  }
  return std::nullopt;
}

void printPanel(std::ostream& out, const StowPanelContent& panel,
                const std::optional<std::filesystem::path>& icon) {
  out << panel.title << '\n';
  for (const C::Section& section : panel.sections) {
    out << '\n';
    if (!section.title.empty()) out << section.title << '\n';
    for (const C::Row& row : section.rows) std::visit(RowPrinter{out, icon}, row);
  }
}

void printPill(std::ostream& out, const StowModel::Pill& pill) {
  auto content = pillContent(pill);
  if (!content) return;
  out << content->title << '\n';
  if (content->subtitle) out << content->subtitle.value() << '\n';
  if (content->buttonLabel) out << '[' << *content->buttonLabel << "]  corvelstow status\n";
}

nlohmann::json panelJson(const StowPanelContent& panel) {
  nlohmann::json sections = nlohmann::json::array();
  for (const C::Section& section : panel.sections) {
    nlohmann::json rows = nlohmann::json::array();
    for (const C::Row& row : section.rows) {
      nlohmann::json json = std::visit(RowJson{}, row);
      if (auto command = commandFor(row)) json["command"] = *command;
      rows.push_back(std::move(json));
    }
    sections.push_back({{"kind", kindName(section.kind)},
                        {"title", section.title},
                        {"symbol", section.symbol},
                        {"rows", std::move(rows)}});
  }
  return {{"title", panel.title}, {"done", panel.doneLabel}, {"sections", std::move(sections)}};
}

nlohmann::json pillJson(const StowModel::Pill& pill) {
  static constexpr const char* kStates[] = {"restored", "message", "none", "ready"};
  nlohmann::json json{{"state", kStates[pill.state.index()]}};
  if (const auto* restored = std::get_if<StowModel::Pill::Restored>(&pill.state)) {
    json["outcome"] = toJson(restored->outcome);
  }
  if (auto content = pillContent(pill)) {
    json["symbol"] = content->symbol;
    json["tint"] = {content->tint.red, content->tint.green, content->tint.blue};
    json["title"] = content->title;
    json["subtitle"] = content->subtitle ? nlohmann::json(*content->subtitle) : nullptr;
    json["button"] = content->buttonLabel ? nlohmann::json(*content->buttonLabel) : nullptr;
    json["opensPanel"] = content->tapOpensPanel;
  }
  return json;
}

nlohmann::json usageJson(const std::optional<StowUsage>& usage) {
  if (!usage) return nullptr;
  return {{"documentsBytes", usage->documentsBytes},
          {"libraryBytes", usage->libraryBytes},
          {"cachesBytes", usage->cachesBytes},
          {"files", usage->files}};
}

std::optional<std::filesystem::path> bundleIcon() {
  platform::Bundle bundle = platform::mainBundle();
  if (!bundle.folder) return std::nullopt;
  // The app accepts a file that loads as an image; here, one that begins as a PNG does.
  static constexpr std::string_view kPngSignature = "\x89PNG\r\n\x1a\n";
  for (const std::string& name : appIconFileNames(bundle.info)) {
    std::filesystem::path file = *bundle.folder / name;
    std::ifstream stream(file, std::ios::binary);
    std::string start(kPngSignature.size(), '\0');
    if (stream.read(start.data(), static_cast<std::streamsize>(start.size())) &&
        start == kPngSignature) {
      return file;
    }
  }
  return std::nullopt;
}

}  // namespace corvelstow::cli
