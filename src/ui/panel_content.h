#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/dates.h"
#include "platform/formatters.h"
#include "store/records.h"
#include "ui/model.h"

namespace corvelstow {

/// What pressing a panel control does: the model action it calls, or (restore, shareLast) the
/// system screen the panel presents.
enum class StowPanelAction {
  backUp,           ///< model back up; the share sheet opens for the archive when it is done
  restore,          ///< the document picker; the picked file goes to model choose backup
  shareLast,        ///< the share sheet for the model's lastExport
  prepareRestore,   ///< model prepare restore
  cancelPreview,    ///< model cancel preview
  closeApp,         ///< model close app
  undoAndCloseApp,  ///< model undo and close app
  chooseScope,      ///< model set scope, with the choice's scope
  includeCaches,    ///< model set include caches, to the switch's new state
  showOnLaunch,     ///< model set show on launch, to the switch's new state
};

/// The panel as data: its sections in order, each with its rows in order. A view draws
/// exactly this; nothing here depends on how.
struct StowPanelContent {
  /// The app's identity at the top.
  struct Header {
    std::string appName;
    std::optional<std::string> version;  ///< "Version {version}"; none when the app has none
    bool operator==(const Header&) const = default;
  };

  enum class TextStyle {
    plain,
    note,     ///< secondary, smaller: explanations under the content
    warning,  ///< a failure the user should read
  };

  /// A line of text, with a symbol before it when `symbol` is not empty.
  struct Text {
    std::string text;
    std::string symbol;
    TextStyle style = TextStyle::plain;
    bool operator==(const Text&) const = default;
  };

  /// A label with its value at the trailing edge.
  struct Value {
    std::string label;
    std::string value;
    bool operator==(const Value&) const = default;
  };

  /// The running work: its title, a bar filled to `fraction`, and the detail line.
  struct Progress {
    std::string title;
    double fraction = 0;
    std::string detail;
    bool operator==(const Progress&) const = default;
  };

  struct Button {
    std::string label;
    std::string symbol;
    StowPanelAction action;
    bool enabled = true;
    bool operator==(const Button&) const = default;
  };

  /// An on/off option with its note beneath.
  struct Switch {
    std::string title;
    bool on = false;
    std::string note;
    StowPanelAction action;
    bool operator==(const Switch&) const = default;
  };

  /// One of the restore scopes, marked when chosen; a tap chooses it.
  struct Choice {
    StowRestoreScope scope;
    std::string title;
    std::string description;
    std::string symbol;  ///< "largecircle.fill.circle" when chosen, else "circle"
    bool selected = false;
    bool operator==(const Choice&) const = default;
  };

  using Row = std::variant<Header, Text, Value, Progress, Button, Switch, Choice>;

  struct Section {
    enum class Kind {
      header,       ///< the app's icon, name and version
      appData,      ///< "THIS APP'S DATA"
      work,         ///< the running work's progress
      error,        ///< the last failure
      preview,      ///< "RESTORE THIS BACKUP?"
      pending,      ///< "READY TO RESTORE"
      lastRestore,  ///< "LAST RESTORE"
      options,      ///< "OPTIONS"
      information,  ///< what a backup is and holds
    };

    Kind kind;
    std::string title;  ///< empty for sections without a heading
    std::string symbol;
    std::vector<Row> rows;
    bool operator==(const Section&) const = default;
  };

  std::string title = "App Data";  ///< the navigation title
  std::string doneLabel = "Done";  ///< the toolbar button that dismisses the panel
  std::vector<Section> sections;

  /// The section of this kind, or null when the panel does not show one.
  const Section* section(Section::Kind kind) const;
};

/// Decides the panel for the model's state: dates relative to `now`, numbers and dates in the
/// formatters' style.
StowPanelContent panelContent(const StowModel& model, const platform::Formatters& formatters,
                              StowDate now);

/// A row of the panel: its section's position, and its own within the section.
struct StowRowPosition {
  std::size_t section = 0;
  std::size_t row = 0;
  bool operator==(const StowRowPosition&) const = default;
};

/// The rows whose contents differ from `before` to `after` when nothing else changed (the same
/// sections with the same headings, the same number of rows of the same kinds), so that a view
/// updates just those in place, as the progress row while work runs, and a reader's focus
/// stays where it is. Nothing when the panel's shape changed: it is then drawn anew.
std::optional<std::vector<StowRowPosition>> changedRows(const StowPanelContent& before,
                                                        const StowPanelContent& after);

}  // namespace corvelstow
