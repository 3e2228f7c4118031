// What the panel shows for the states that matter, as the sections a view draws.

#include "ui/panel_content.h"

#include <gtest/gtest.h>

#include "model_fixture.h"
#include "platform/posix/icu_formatters.h"

namespace corvelstow {
namespace {

using testing::outcome;
using testing::stagedRestore;
using testing::writeFile;
using C = StowPanelContent;
using Kind = C::Section::Kind;
using Kinds = std::vector<Kind>;
using Rows = std::vector<C::Row>;
using Action = StowPanelAction;
using Style = C::TextStyle;

const C::Text kNotBackedUp{"Not backed up from here yet", "clock"};
const C::Button kBackUp{"Back Up Now", "arrow.up.doc.fill", Action::backUp};
const C::Button kRestore{"Restore", "arrow.down.doc", Action::restore};
const C::Text kUndo{"Put back the data from before the restore.", ""};
const C::Button kUndoButton{"Undo and Close App", "arrow.uturn.backward", Action::undoAndCloseApp};

class PanelContentTest : public testing::ModelFixture {
 protected:
  platform::IcuFormatters format{"en_US", "UTC"};
  StowDate now = *parseInternetDate("2024-05-02T10:30:00Z");

  Kinds kinds() {
    Kinds kinds;
    for (const C::Section& section : panelContent(*model, format, now).sections) {
      kinds.push_back(section.kind);
    }
    return kinds;
  }

  // The section of this kind; one titled "absent" when the panel does not show it.
  C::Section section(Kind kind) {
    C panel = panelContent(*model, format, now);
    return panel.section(kind) ? *panel.section(kind) : C::Section{kind, "absent", "", {}};
  }
};

TEST_F(PanelContentTest, TheFirstRunShowsTheAppTheWayToBackUpAndTheOptions) {
  const std::vector<C::Section> expected{
      {Kind::header, "", "", {C::Header{"Notes", "Version 1.2"}}},
      {Kind::appData, "THIS APP'S DATA", "", {kNotBackedUp, kBackUp, kRestore}},
      {Kind::options,
       "OPTIONS",
       "",
       {C::Switch{"Include Caches", false, "Apps rebuild caches on their own.",
                  Action::includeCaches},
        C::Switch{"Show When the App Opens", true,
                  "Off: hold three fingers on the screen, or hold one finger just under the status "
                  "bar, to open this panel.",
                  Action::showOnLaunch}}},
      {Kind::information,
       "",
       "",
       {C::Text{
           "Backups are .corvelappdata files, the same kind Quarrin makes, so they import into "
           "Quarrin's App Data and Quarrin backups restore here. Keychain items and shared app "
           "group data are not included.",
           "info.circle.fill"}}},
  };
  EXPECT_EQ(panelContent(*model, format, now).sections, expected);
  app.version.reset();
  launch();
  EXPECT_EQ(section(Kind::header).rows, (Rows{C::Header{"Notes", std::nullopt}}));
}

TEST_F(PanelContentTest, WorkDisablesTheActionsAndABackupOffersItsExport) {
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  launch();
  const C idle = panelContent(*model, format, now);
  model->backUp();
  EXPECT_EQ(section(Kind::work).rows, (Rows{C::Progress{"Backing up", 0, "Starting"}}));
  C::Button backUp = kBackUp, restore = kRestore;
  backUp.enabled = restore.enabled = false;
  EXPECT_EQ(section(Kind::appData).rows, (Rows{kNotBackedUp, backUp, restore}));
  // Closing the app would end the work half-way.
  for (Kind kind : {Kind::pending, Kind::lastRestore}) {
    EXPECT_FALSE(std::get<C::Button>(section(kind).rows.back()).enabled) << int(kind);
  }

  // While the work runs only its progress row changes, in place; its start and end reshape.
  const C started = panelContent(*model, format, now);
  EXPECT_FALSE(changedRows(idle, started));
  EXPECT_EQ(changedRows(started, started), std::vector<StowRowPosition>{});
  C later = started;
  std::get<C::Progress>(later.sections[2].rows[0]).fraction = 0.5;
  EXPECT_EQ(changedRows(started, later), (std::vector<StowRowPosition>{{2, 0}}));
  later.sections[2].rows[0] = C::Text{"a row of another kind", ""};
  EXPECT_FALSE(changedRows(started, later));
  dispatcher.settle();
  now = *model->settings().lastBackupAt + std::chrono::minutes(5);
  EXPECT_EQ(section(Kind::work).title, "absent");
  EXPECT_EQ(section(Kind::appData).rows,
            (Rows{C::Text{"Last backup 5 minutes ago", "clock.arrow.circlepath"}, kBackUp, kRestore,
                  C::Button{"Share Last", "square.and.arrow.up", Action::shareLast}}));
}

TEST_F(PanelContentTest, APreviewReplacesTheActionsBelowAFailureOrTheWorkAndAboveTheRestores) {
  fs::path archive = makeBackup(StowHostApp{"com.other.app", "Other", "3.0", std::nullopt},
                                {{"Documents/a.txt", "abc"}});
  model->chooseBackup(archive);
  dispatcher.settle();
  const StowDate taken = model->preview()->manifest.createdAt;
  now = taken + std::chrono::hours(49);
  EXPECT_EQ(section(Kind::appData).rows, (Rows{kNotBackedUp}));
  const C::Section expected{
      Kind::preview,
      "RESTORE THIS BACKUP?",
      "",
      {C::Value{"From", "Other"}, C::Value{"Bundle ID", "com.other.app"},
       C::Value{"App version", "3.0"},
       C::Value{"Taken", format.dateAndTime(taken) + " (2 days ago)"},
       C::Value{"Device", "Ada's iPhone"}, C::Value{"Holds", "1 files, 3 bytes"},
       C::Text{"This backup is from Other. Its settings will be renamed to this app's id.", "",
               Style::note},
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
               "", Style::note},
       C::Button{"Prepare Restore", "checkmark", Action::prepareRestore},
       C::Button{"Cancel", "xmark", Action::cancelPreview}}};
  ASSERT_EQ(section(Kind::preview), expected);

  model->setScope(StowRestoreScope::documents);
  const auto chosen = section(Kind::preview).rows;
  EXPECT_FALSE(std::get<C::Choice>(chosen[7]).selected);
  EXPECT_EQ(std::get<C::Choice>(chosen[8]).symbol, "largecircle.fill.circle");

  // This app's own backup, from a version without a number: no version row, no renaming note.
  model->chooseBackup(
      makeBackup(StowHostApp{app.bundleID, "Notes", std::nullopt, std::nullopt}, {}));
  dispatcher.settle();
  const auto own = section(Kind::preview).rows;
  ASSERT_EQ(own.size(), expected.rows.size() - 2);
  EXPECT_EQ(std::get<C::Value>(own[2]).label, "Taken");
  EXPECT_TRUE(std::holds_alternative<C::Choice>(own[5]));

  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  model->reload();
  model->setScope(StowRestoreScope::settings);
  model->prepareRestore();  // the backup holds no settings
  dispatcher.settle();
  // The failed staging cleared the restore staged before it: none is ready any more.
  EXPECT_FALSE(model->pending());
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::error, Kind::preview,
                            Kind::lastRestore, Kind::options, Kind::information}));
  EXPECT_EQ(
      section(Kind::error).rows,
      (Rows{C::Text{"That backup holds nothing for the part you chose.", "", Style::warning}}));
  model->backUp();
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::work, Kind::preview,
                            Kind::lastRestore, Kind::options, Kind::information}));
}

TEST_F(PanelContentTest, AStagedRestoreIsReadyToRestoreAndTheLastOffersTheUndoWhileDataIsKept) {
  writeRecord(stagedRestore("Old Notes", StowRestoreScope::documents), layout.stagedRecord);
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  launch();  // the model reads the records when it is made
  EXPECT_EQ(
      section(Kind::pending),
      (C::Section{Kind::pending,
                  "READY TO RESTORE",
                  "arrow.triangle.2.circlepath.circle.fill",
                  {C::Text{"Documents from Old Notes", ""}, C::Text{"Backed up 1 day ago", ""},
                   C::Text{"Close the app and open it again to finish. The app starts with "
                           "the restored data.",
                           "", Style::note},
                   C::Button{"Close App", "power", Action::closeApp}}}));
  const C::Text applied{"Applied 30 minutes ago, from a backup taken May 1, 2024, 9:30\u202fAM", "",
                        Style::note};
  EXPECT_EQ(section(Kind::lastRestore),
            (C::Section{Kind::lastRestore,
                        "LAST RESTORE",
                        "",
                        {C::Text{"Restored everything from Notes.", "checkmark.circle"}, applied,
                         kUndo, kUndoButton}}));

  fs::remove(layout.previousRecord);
  writeRecord(outcome(false, true), layout.outcomeRecord);
  model->reload();
  EXPECT_EQ(section(Kind::lastRestore).rows,
            (Rows{C::Text{"Could not move aside Documents", "exclamationmark.triangle"}, applied}));

  // Kept data without an outcome record can still be put back.
  fs::remove(layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  model->reload();
  EXPECT_EQ(section(Kind::lastRestore).rows, (Rows{kUndo, kUndoButton}));
}

}  // namespace
}  // namespace corvelstow
