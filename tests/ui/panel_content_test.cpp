// What the panel shows for the states that matter, as the sections a view draws.

#include "ui/panel_content.h"

#include <gtest/gtest.h>

#include "model_fixture.h"
#include "platform/platform.h"
#include "platform/posix/icu_formatters.h"

namespace corvelstow {
namespace {

using testing::writeFile;
using C = StowPanelContent;
using Kind = C::Section::Kind;
using Rows = std::vector<C::Row>;
using Action = StowPanelAction;

constexpr const char* kShowOnLaunchNote =
    "Off: hold three fingers on the screen, or hold one finger just under the status bar, to "
    "open this panel.";

class PanelContentTest : public testing::ModelFixture {
 protected:
  platform::IcuFormatters format{"en_US", "UTC"};
  StowDate now = *parseInternetDate("2024-05-02T10:30:00Z");

  C panel() { return panelContent(*model, format, now); }

  std::vector<Kind> kinds() {
    std::vector<Kind> kinds;
    for (const C::Section& section : panel().sections) kinds.push_back(section.kind);
    return kinds;
  }

  Rows rows(Kind kind) {
    C content = panel();
    const C::Section* section = content.section(kind);
    return section ? section->rows : Rows{};
  }

  static C::Button button(const char* label, const char* symbol, Action action,
                          bool enabled = true) {
    return {label, symbol, action, enabled};
  }
};

TEST_F(PanelContentTest, TheFirstRunShowsTheAppTheWayToBackUpAndTheOptions) {
  C content = panel();
  EXPECT_EQ(content.title, "App Data");
  EXPECT_EQ(content.doneLabel, "Done");
  EXPECT_EQ(kinds(),
            (std::vector<Kind>{Kind::header, Kind::appData, Kind::options, Kind::information}));
  EXPECT_EQ(rows(Kind::header), (Rows{C::Header{"Notes", "Version 1.2"}}));
  EXPECT_EQ(content.section(Kind::appData)->title, "THIS APP'S DATA");
  EXPECT_EQ(rows(Kind::appData), (Rows{C::Text{"Not backed up from here yet", "clock"},
                                       button("Back Up Now", "arrow.up.doc.fill", Action::backUp),
                                       button("Restore", "arrow.down.doc", Action::restore)}));
  EXPECT_EQ(content.section(Kind::options)->title, "OPTIONS");
  EXPECT_EQ(
      rows(Kind::options),
      (Rows{C::Switch{"Include Caches", false, "Apps rebuild caches on their own.",
                      Action::includeCaches},
            C::Switch{"Show When the App Opens", true, kShowOnLaunchNote, Action::showOnLaunch}}));
  EXPECT_EQ(rows(Kind::information),
            (Rows{C::Text{"Backups are .corvelappdata files, the same kind Quarrin makes, so they "
                          "import into Quarrin's App Data and Quarrin backups restore here. "
                          "Keychain items and shared app group data are not included.",
                          "info.circle.fill"}}));

  app.version.reset();
  launch();
  EXPECT_EQ(rows(Kind::header), (Rows{C::Header{"Notes", std::nullopt}}));
}

TEST_F(PanelContentTest, AfterABackupTheDataSectionMeasuresTheDataAndOffersTheExport) {
  writeFile(layout.documents / "a.txt", std::string(1500, 'a'));
  writeFile(layout.library / "Application Support/db", std::string(2500000, 'd'));
  writeFile(layout.library / "Caches/c", "abc");
  model->backUp();
  dispatcher.settle();
  model->openPanel();
  dispatcher.settle();
  now = *model->settings().lastBackupAt + std::chrono::minutes(5);

  EXPECT_EQ(
      rows(Kind::appData),
      (Rows{C::Text{"Last backup 5 minutes ago", "clock.arrow.circlepath"},
            C::Value{"Documents", "2 KB"}, C::Value{"Library", "2.5 MB"}, C::Value{"Files", "2"},
            button("Back Up Now", "arrow.up.doc.fill", Action::backUp),
            button("Restore", "arrow.down.doc", Action::restore),
            button("Share Last", "square.and.arrow.up", Action::shareLast)}));
  EXPECT_EQ(std::get<C::Switch>(rows(Kind::options).front()).note,
            "Adds 3 bytes. Apps rebuild caches on their own.");
}

TEST_F(PanelContentTest, RunningWorkShowsItsProgressAndDisablesTheActions) {
  model->backUp();
  EXPECT_EQ(kinds(), (std::vector<Kind>{Kind::header, Kind::appData, Kind::work, Kind::options,
                                        Kind::information}));
  EXPECT_EQ(rows(Kind::work), (Rows{C::Progress{"Backing up", 0, "Starting"}}));
  EXPECT_EQ(rows(Kind::appData),
            (Rows{C::Text{"Not backed up from here yet", "clock"},
                  button("Back Up Now", "arrow.up.doc.fill", Action::backUp, false),
                  button("Restore", "arrow.down.doc", Action::restore, false)}));
  dispatcher.settle();
  EXPECT_FALSE(panel().section(Kind::work));
}

TEST_F(PanelContentTest, APreviewOfAnotherAppsBackupReplacesTheActions) {
  StowHostApp other{"com.other.app", "Other", "3.0", std::nullopt};
  fs::path archive = makeBackup(other, {{"Documents/a.txt", "abc"}});
  model->chooseBackup(archive);
  dispatcher.settle();
  const StowManifest& manifest = model->preview()->manifest;
  now = manifest.createdAt + std::chrono::hours(49);

  EXPECT_EQ(kinds(), (std::vector<Kind>{Kind::header, Kind::appData, Kind::preview, Kind::options,
                                        Kind::information}));
  EXPECT_EQ(rows(Kind::appData), (Rows{C::Text{"Not backed up from here yet", "clock"}}));
  EXPECT_EQ(panel().section(Kind::preview)->title, "RESTORE THIS BACKUP?");
  Rows expected{
      C::Value{"From", "Other"},
      C::Value{"Bundle ID", "com.other.app"},
      C::Value{"App version", "3.0"},
      C::Value{"Taken", format.dateAndTime(manifest.createdAt) + " (2 days ago)"},
      C::Value{"Device", platform::deviceName()},
      C::Value{"Holds", "1 files, 3 bytes"},
      C::Text{"This backup is from Other. Its settings will be renamed to this app's id.", "",
              C::TextStyle::note},
      C::Choice{StowRestoreScope::everything, "Everything",
                "Documents, Library and settings. The app starts exactly as it was backed up.",
                "largecircle.fill.circle", true},
      C::Choice{StowRestoreScope::documents, "Documents",
                "Only the Documents folder. Settings and the Library stay as they are now.",
                "circle", false},
      C::Choice{StowRestoreScope::settings, "Settings",
                "Only the app's settings. Files stay as they are now.", "circle", false},
      C::Text{"Nothing changes yet. The data is unpacked and checked first, then swapped in the "
              "next time the app opens. What it replaces is kept so you can undo.",
              "", C::TextStyle::note},
      button("Prepare Restore", "checkmark", Action::prepareRestore),
      button("Cancel", "xmark", Action::cancelPreview),
  };
  EXPECT_EQ(rows(Kind::preview), expected);

  model->setScope(StowRestoreScope::documents);
  Rows chosen = rows(Kind::preview);
  EXPECT_FALSE(std::get<C::Choice>(chosen[7]).selected);
  EXPECT_EQ(std::get<C::Choice>(chosen[8]).symbol, "largecircle.fill.circle");
  EXPECT_TRUE(std::get<C::Choice>(chosen[8]).selected);
}

TEST_F(PanelContentTest, APreviewOfThisAppsOwnBackupHasNoRenamingNote) {
  StowHostApp withoutVersion{kHostID, "Notes", std::nullopt, std::nullopt};
  model->chooseBackup(makeBackup(withoutVersion, {}));
  dispatcher.settle();
  for (const C::Row& row : rows(Kind::preview)) {
    if (const auto* text = std::get_if<C::Text>(&row)) {
      EXPECT_EQ(text->text.find("renamed"), std::string::npos);
    }
    if (const auto* value = std::get_if<C::Value>(&row)) EXPECT_NE(value->label, "App version");
  }
}

TEST_F(PanelContentTest, AFailureIsShownAsAWarningAboveThePreview) {
  model->chooseBackup(makeBackup(app, {{"Documents/a.txt", "a"}}));
  dispatcher.settle();
  model->setScope(StowRestoreScope::settings);
  model->prepareRestore();
  dispatcher.settle();
  EXPECT_EQ(kinds(), (std::vector<Kind>{Kind::header, Kind::appData, Kind::error, Kind::preview,
                                        Kind::options, Kind::information}));
  EXPECT_EQ(rows(Kind::error), (Rows{C::Text{"That backup holds nothing for the part you chose.",
                                             "", C::TextStyle::warning}}));
}

TEST_F(PanelContentTest, AStagedRestoreIsReadyToRestoreWithTheCloseButton) {
  writeRecord(stagedRestore("Old Notes", StowRestoreScope::documents), layout.stagedRecord);
  model->reload();
  C content = panel();
  const C::Section* pending = content.section(Kind::pending);
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->title, "READY TO RESTORE");
  EXPECT_EQ(pending->symbol, "arrow.triangle.2.circlepath.circle.fill");
  EXPECT_EQ(pending->rows,
            (Rows{C::Text{"Documents from Old Notes", ""}, C::Text{"Backed up 1 day ago", ""},
                  C::Text{"Close the app and open it again to finish. The app starts with the "
                          "restored data.",
                          "", C::TextStyle::note},
                  button("Close App", "power", Action::closeApp)}));
}

TEST_F(PanelContentTest, TheLastRestoreOffersTheUndoWhileThePreviousDataIsKept) {
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  model->reload();
  C content = panel();
  EXPECT_EQ(content.section(Kind::lastRestore)->title, "LAST RESTORE");
  EXPECT_EQ(content.section(Kind::lastRestore)->rows,
            (Rows{C::Text{"Restored everything from Notes.", "checkmark.circle"},
                  C::Text{"Applied 30 minutes ago, from a backup taken May 1, 2024, 9:30\u202fAM",
                          "", C::TextStyle::note},
                  C::Text{"Put back the data from before the restore.", ""},
                  button("Undo and Close App", "arrow.uturn.backward", Action::undoAndCloseApp)}));
}

TEST_F(PanelContentTest, TheLastRestoreWithoutThePreviousDataOffersNoUndo) {
  writeRecord(outcome(false, true), layout.outcomeRecord);
  model->reload();
  EXPECT_EQ(rows(Kind::lastRestore),
            (Rows{C::Text{"Could not move aside Documents", "exclamationmark.triangle"},
                  C::Text{"Applied 30 minutes ago, from a backup taken May 1, 2024, 9:30\u202fAM",
                          "", C::TextStyle::note}}));

  // Kept data without an outcome record can still be put back.
  fs::remove(layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  model->reload();
  EXPECT_EQ(rows(Kind::lastRestore),
            (Rows{C::Text{"Put back the data from before the restore.", ""},
                  button("Undo and Close App", "arrow.uturn.backward", Action::undoAndCloseApp)}));
}

TEST_F(PanelContentTest, SectionsKeepTheirOrderWhenAllAreShown) {
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  model->reload();
  model->chooseBackup(makeBackup(app, {}));
  dispatcher.settle();
  model->backUp();
  EXPECT_EQ(kinds(), (std::vector<Kind>{Kind::header, Kind::appData, Kind::work, Kind::preview,
                                        Kind::pending, Kind::lastRestore, Kind::options,
                                        Kind::information}));
}

}  // namespace
}  // namespace corvelstow
