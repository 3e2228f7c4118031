#include "ui/panel_content.h"

#include <array>

namespace corvelstow {

namespace {

using Content = StowPanelContent;
using Kind = Content::Section::Kind;
using Style = Content::TextStyle;

// The panel's fixed texts.
constexpr const char* kNotBackedUp = "Not backed up from here yet";
constexpr const char* kStagingExplained =
    "Nothing changes yet. The data is unpacked and checked first, then swapped in the next time "
    "the app opens. What it replaces is kept so you can undo.";
constexpr const char* kCloseToFinish =
    "Close the app and open it again to finish. The app starts with the restored data.";
constexpr const char* kUndoExplained = "Put back the data from before the restore.";
constexpr const char* kCachesRebuilt = "Apps rebuild caches on their own.";
constexpr const char* kShowOnLaunchNote =
    "Off: hold three fingers on the screen, or hold one finger just under the status bar, to "
    "open this panel.";
constexpr const char* kInformation =
    "Backups are .corvelappdata files, the same kind Quarrin makes, so they import into "
    "Quarrin's App Data and Quarrin backups restore here. Keychain items and shared app group "
    "data are not included.";

// What the last backup left out, naming the first few files.
std::string leftOutText(const std::vector<std::string>& leftOut) {
  constexpr std::size_t kNamed = 3;
  std::string text = "The last backup left out " + std::to_string(leftOut.size()) +
                     (leftOut.size() == 1 ? " file" : " files") +
                     " that the app removed or replaced while it ran: ";
  for (std::size_t i = 0; i < leftOut.size() && i < kNamed; ++i) {
    text += (i > 0 ? ", " : "") + leftOut[i];
  }
  if (leftOut.size() > kNamed) text += " and " + std::to_string(leftOut.size() - kNamed) + " more";
  return text + ".";
}

struct ScopeText {
  StowRestoreScope scope;
  const char* description;
};
constexpr std::array<ScopeText, 3> kScopes{{
    {StowRestoreScope::everything,
     "Documents, Library and settings. The app starts exactly as it was backed up."},
    {StowRestoreScope::documents,
     "Only the Documents folder. Settings and the Library stay as they are now."},
    {StowRestoreScope::settings, "Only the app's settings. Files stay as they are now."},
}};

class PanelBuilder {
 public:
  PanelBuilder(const StowModel& model, const platform::Formatters& formatters, StowDate now)
      : model_(model), format_(formatters), now_(now), busy_(!model.work().isIdle()) {}

  Content build() {
    Content panel;
    panel.sections.push_back(header());
    panel.sections.push_back(appData());
    if (const auto* running = model_.work().runningState()) {
      panel.sections.push_back(
          {Kind::work,
           "",
           "",
           {Content::Progress{running->title, running->fraction, running->detail}}});
    }
    if (model_.errorText()) {
      panel.sections.push_back(
          {Kind::error, "", "", {Content::Text{*model_.errorText(), "", Style::warning}}});
    }
    if (model_.preview()) panel.sections.push_back(preview(*model_.preview()));
    if (model_.pending()) panel.sections.push_back(pending(*model_.pending()));
    if (model_.outcome() || model_.previous()) panel.sections.push_back(lastRestore());
    panel.sections.push_back(options());
    panel.sections.push_back(
        {Kind::information, "", "", {Content::Text{kInformation, "info.circle.fill"}}});
    return panel;
  }

 private:
  Content::Section header() const {
    const StowHostApp& app = model_.app();
    std::optional<std::string> version;
    if (app.version) version = "Version " + *app.version;
    return {Kind::header, "", "", {Content::Header{app.name, version}}};
  }

  Content::Section appData() const {
    Content::Section section{Kind::appData, "THIS APP'S DATA", "", {}};
    if (const auto& last = model_.settings().lastBackupAt) {
      section.rows.push_back(Content::Text{"Last backup " + format_.relativeDate(*last, now_),
                                           "clock.arrow.circlepath"});
    } else {
      section.rows.push_back(Content::Text{kNotBackedUp, "clock"});
    }
    if (const auto& leftOut = model_.lastExportLeftOut(); !leftOut.empty()) {
      section.rows.push_back(
          Content::Text{leftOutText(leftOut), "exclamationmark.triangle", Style::warning});
    }
    if (const auto& usage = model_.usage()) {
      section.rows.push_back(Content::Value{"Documents", format_.byteCount(usage->documentsBytes)});
      section.rows.push_back(Content::Value{"Library", format_.byteCount(usage->libraryBytes)});
      section.rows.push_back(Content::Value{"Files", std::to_string(usage->files)});
    }
    // A preview takes the place of the normal actions.
    if (!model_.preview()) {
      section.rows.push_back(
          Content::Button{"Back Up Now", "arrow.up.doc.fill", StowPanelAction::backUp, !busy_});
      section.rows.push_back(
          Content::Button{"Restore", "arrow.down.doc", StowPanelAction::restore, !busy_});
      if (model_.lastExport()) {
        section.rows.push_back(
            Content::Button{"Share Last", "square.and.arrow.up", StowPanelAction::shareLast});
      }
    }
    return section;
  }

  Content::Section preview(const StowModel::Preview& preview) const {
    const StowManifest& manifest = preview.manifest;
    Content::Section section{Kind::preview, "RESTORE THIS BACKUP?", "", {}};
    auto& rows = section.rows;
    rows.push_back(Content::Value{"From", manifest.appName});
    rows.push_back(Content::Value{"Bundle ID", manifest.bundleIdentifier});
    if (manifest.appVersion) rows.push_back(Content::Value{"App version", *manifest.appVersion});
    rows.push_back(Content::Value{"Taken", format_.dateAndTime(manifest.createdAt) + " (" +
                                               format_.relativeDate(manifest.createdAt, now_) +
                                               ")"});
    if (manifest.deviceName) rows.push_back(Content::Value{"Device", *manifest.deviceName});
    rows.push_back(Content::Value{"Holds", std::to_string(manifest.fileCount) + " files, " +
                                               format_.byteCount(manifest.totalBytes)});
    if (manifest.bundleIdentifier != model_.app().bundleID) {
      rows.push_back(Content::Text{"This backup is from " + manifest.appName +
                                       ". Its settings will be renamed to this app's id.",
                                   "", Style::note});
    }
    for (const ScopeText& choice : kScopes) {
      bool selected = choice.scope == model_.scope();
      rows.push_back(Content::Choice{choice.scope, std::string(title(choice.scope)),
                                     choice.description,
                                     selected ? "largecircle.fill.circle" : "circle", selected});
    }
    rows.push_back(Content::Text{kStagingExplained, "", Style::note});
    rows.push_back(
        Content::Button{"Prepare Restore", "checkmark", StowPanelAction::prepareRestore, !busy_});
    rows.push_back(Content::Button{"Cancel", "xmark", StowPanelAction::cancelPreview, !busy_});
    return section;
  }

  Content::Section pending(const StowStagedRestore& pending) const {
    return {
        Kind::pending,
        "READY TO RESTORE",
        "arrow.triangle.2.circlepath.circle.fill",
        {Content::Text{std::string(title(pending.scope)) + " from " + pending.manifest.appName, ""},
         Content::Text{"Backed up " + format_.relativeDate(pending.manifest.createdAt, now_), ""},
         Content::Text{kCloseToFinish, "", Style::note},
         Content::Button{"Close App", "power", StowPanelAction::closeApp, !busy_}}};
  }

  // The outcome of outcome.json, and the undo while the data it replaced is kept.
  Content::Section lastRestore() const {
    Content::Section section{Kind::lastRestore, "LAST RESTORE", "", {}};
    if (const auto& outcome = model_.outcome()) {
      section.rows.push_back(Content::Text{
          outcome->message, outcome->succeeded ? "checkmark.circle" : "exclamationmark.triangle"});
      section.rows.push_back(
          Content::Text{"Applied " + format_.relativeDate(outcome->appliedAt, now_) +
                            ", from a backup taken " + format_.dateAndTime(outcome->sourceDate),
                        "", Style::note});
    }
    if (model_.previous()) {
      section.rows.push_back(Content::Text{kUndoExplained, ""});
      section.rows.push_back(Content::Button{"Undo and Close App", "arrow.uturn.backward",
                                             StowPanelAction::undoAndCloseApp, !busy_});
    }
    return section;
  }

  Content::Section options() const {
    const StowSettings& settings = model_.settings();
    std::string cachesNote = kCachesRebuilt;
    if (const auto& usage = model_.usage()) {
      cachesNote = "Adds " + format_.byteCount(usage->cachesBytes) + ". " + cachesNote;
    }
    return {Kind::options,
            "OPTIONS",
            "",
            {Content::Switch{"Include Caches", settings.includeCaches, cachesNote,
                             StowPanelAction::includeCaches},
             Content::Switch{"Show When the App Opens", settings.showOnLaunch, kShowOnLaunchNote,
                             StowPanelAction::showOnLaunch}}};
  }

  const StowModel& model_;
  const platform::Formatters& format_;
  StowDate now_;
  bool busy_;
};

}  // namespace

const StowPanelContent::Section* StowPanelContent::section(Section::Kind kind) const {
  for (const Section& candidate : sections) {
    if (candidate.kind == kind) return &candidate;
  }
  return nullptr;
}

StowPanelContent panelContent(const StowModel& model, const platform::Formatters& formatters,
                              StowDate now) {
  return PanelBuilder(model, formatters, now).build();
}

std::optional<std::vector<StowRowPosition>> changedRows(const StowPanelContent& before,
                                                        const StowPanelContent& after) {
  if (before.sections.size() != after.sections.size()) return std::nullopt;
  std::vector<StowRowPosition> changed;
  for (std::size_t s = 0; s < after.sections.size(); ++s) {
    const Content::Section& old = before.sections[s];
    const Content::Section& now = after.sections[s];
    if (old.kind != now.kind || old.title != now.title || old.symbol != now.symbol ||
        old.rows.size() != now.rows.size()) {
      return std::nullopt;
    }
    for (std::size_t r = 0; r < now.rows.size(); ++r) {
      if (old.rows[r].index() != now.rows[r].index()) return std::nullopt;
      if (old.rows[r] != now.rows[r]) changed.push_back({s, r});
    }
  }
  return changed;
}

}  // namespace corvelstow
