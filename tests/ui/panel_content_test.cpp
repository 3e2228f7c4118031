// What the panel shows for the states that matter: the sections and their rows by what they are
// and do (kinds, actions, enabled and chosen states), and the texts it computes.

#include "ui/panel_content.h"

#include <gtest/gtest.h>

#include "model_fixture.h"
#include "platform/posix/icu_formatters.h"

namespace corvelstow {
namespace {

using testing::outcome;
using testing::stagedRestore;
using C = StowPanelContent;
using Kind = C::Section::Kind;
using Kinds = std::vector<Kind>;
using Rows = std::vector<C::Row>;
using Action = StowPanelAction;
using Scope = StowRestoreScope;
using Style = C::TextStyle;

// Rows by what they are and do, their fixed texts and symbols left out.
const C::Row kText = C::Text{}, kNote = C::Text{"", "", Style::note}, kValue = C::Value{};
C::Row button(Action action, bool enabled = true) { return C::Button{"", "", action, enabled}; }
C::Row toggle(Action action, bool on) { return C::Switch{"", on, "", action}; }
C::Row choice(Scope scope, bool selected) { return C::Choice{scope, "", "", "", selected}; }

C::Row shapeOf(C::Row row) {
  std::visit(
      [](auto& r) {
        using R = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<R, C::Text>) r = C::Text{"", "", r.style};
        if constexpr (std::is_same_v<R, C::Button>) r = C::Button{"", "", r.action, r.enabled};
        if constexpr (std::is_same_v<R, C::Switch>) r = C::Switch{"", r.on, "", r.action};
        if constexpr (std::is_same_v<R, C::Choice>) r = C::Choice{r.scope, "", "", "", r.selected};
        if constexpr (std::is_same_v<R, C::Value>) r = C::Value{};
      },
      row);
  return row;
}

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

  // The rows of the section of this kind; none when the panel does not show it.
  Rows rows(Kind kind) {
    const C panel = panelContent(*model, format, now);
    return panel.section(kind) ? panel.section(kind)->rows : Rows{};
  }

  Rows shape(Kind kind) {
    Rows rows = this->rows(kind);
    for (C::Row& row : rows) row = shapeOf(row);
    return rows;
  }
};

TEST_F(PanelContentTest, TheFirstRunShowsTheAppTheWayToBackUpAndTheOptions) {
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::options, Kind::information}));
  EXPECT_EQ(rows(Kind::header), (Rows{C::Header{"Notes", "Version 1.2"}}));
  EXPECT_EQ(shape(Kind::appData), (Rows{kText, button(Action::backUp), button(Action::restore)}));
  EXPECT_EQ(shape(Kind::options),
            (Rows{toggle(Action::includeCaches, false), toggle(Action::showOnLaunch, true)}));
  EXPECT_EQ(shape(Kind::information), Rows{kText});
  app.version.reset();
  launch();
  EXPECT_EQ(rows(Kind::header), (Rows{C::Header{"Notes", std::nullopt}}));
}

TEST_F(PanelContentTest, WorkDisablesTheActionsAndABackupOffersItsExport) {
  writeRecord(stagedRestore("Notes", Scope::everything), layout.stagedRecord);
  writeRecord(stagedRestore("Notes", Scope::everything), layout.previousRecord);
  launch();
  const C idle = panelContent(*model, format, now);
  model->backUp();
  EXPECT_EQ(rows(Kind::work), (Rows{C::Progress{"Backing up", 0, "Starting"}}));
  EXPECT_EQ(shape(Kind::appData),
            (Rows{kText, button(Action::backUp, false), button(Action::restore, false)}));
  // Closing the app would end the work half-way.
  EXPECT_EQ(shape(Kind::pending).back(), button(Action::closeApp, false));
  EXPECT_EQ(shape(Kind::lastRestore).back(), button(Action::undoAndCloseApp, false));

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
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::pending, Kind::lastRestore,
                            Kind::options, Kind::information}));
  EXPECT_EQ(shape(Kind::appData), (Rows{kText, button(Action::backUp), button(Action::restore),
                                        button(Action::shareLast)}));
  EXPECT_EQ(rows(Kind::appData)[0],
            C::Row(C::Text{"Last backup 5 minutes ago", "clock.arrow.circlepath"}));
}

TEST_F(PanelContentTest, APreviewReplacesTheActionsBelowAFailureOrTheWorkAndAboveTheRestores) {
  fs::path archive = makeBackup(StowHostApp{"com.other.app", "Other", "3.0", std::nullopt},
                                {{"Documents/a.txt", "abc"}});
  model->chooseBackup(archive);
  dispatcher.settle();
  const StowDate taken = model->preview()->manifest.createdAt;
  now = taken + std::chrono::hours(49);
  EXPECT_EQ(shape(Kind::appData), Rows{kText});
  const Rows preview = rows(Kind::preview);
  EXPECT_EQ(
      shape(Kind::preview),
      (Rows{kValue, kValue, kValue, kValue, kValue, kValue, kNote, choice(Scope::everything, true),
            choice(Scope::documents, false), choice(Scope::settings, false), kNote,
            button(Action::prepareRestore), button(Action::cancelPreview)}));
  EXPECT_EQ(Rows(preview.begin(), preview.begin() + 7),
            (Rows{C::Value{"From", "Other"}, C::Value{"Bundle ID", "com.other.app"},
                  C::Value{"App version", "3.0"},
                  C::Value{"Taken", format.dateAndTime(taken) + " (2 days ago)"},
                  C::Value{"Device", "Ada's iPhone"}, C::Value{"Holds", "1 files, 3 bytes"},
                  C::Text{"This backup is from Other. Its settings will be renamed to this "
                          "app's id.",
                          "", Style::note}}));

  model->setScope(Scope::documents);
  const Rows chosen = rows(Kind::preview);
  EXPECT_EQ(shapeOf(chosen[7]), choice(Scope::everything, false));
  EXPECT_EQ(std::get<C::Choice>(chosen[8]).symbol, "largecircle.fill.circle");
  EXPECT_EQ(std::get<C::Choice>(chosen[9]).symbol, "circle");

  // This app's own backup, from a version without a number: no version row, no renaming note.
  model->chooseBackup(
      makeBackup(StowHostApp{app.bundleID, "Notes", std::nullopt, std::nullopt}, {}));
  dispatcher.settle();
  const Rows own = rows(Kind::preview);
  ASSERT_EQ(own.size(), preview.size() - 2);
  EXPECT_EQ(std::get<C::Value>(own[2]).label, "Taken");
  EXPECT_EQ(shapeOf(own[5]), choice(Scope::everything, true));

  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", Scope::everything), layout.stagedRecord);
  model->reload();
  model->setScope(Scope::settings);
  model->prepareRestore();  // the backup holds no settings
  dispatcher.settle();
  // The failed staging was built beside the restore staged before it, which stays ready.
  EXPECT_TRUE(model->pending());
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::error, Kind::preview,
                            Kind::pending, Kind::lastRestore, Kind::options, Kind::information}));
  EXPECT_EQ(rows(Kind::error), (Rows{C::Text{*model->errorText(), "", Style::warning}}));
  model->backUp();
  EXPECT_EQ(kinds(), (Kinds{Kind::header, Kind::appData, Kind::work, Kind::preview,
                            Kind::pending, Kind::lastRestore, Kind::options, Kind::information}));
}

TEST_F(PanelContentTest, AStagedRestoreIsReadyToRestoreAndTheLastOffersTheUndoWhileDataIsKept) {
  writeRecord(stagedRestore("Old Notes", Scope::documents), layout.stagedRecord);
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", Scope::everything), layout.previousRecord);
  launch();  // the model reads the records when it is made
  EXPECT_EQ(shape(Kind::pending), (Rows{kText, kText, kNote, button(Action::closeApp)}));
  const Rows pending = rows(Kind::pending), last = rows(Kind::lastRestore);
  EXPECT_EQ(Rows(pending.begin(), pending.begin() + 2),
            (Rows{C::Text{"Documents from Old Notes", ""}, C::Text{"Backed up 1 day ago", ""}}));
  const C::Row restored = C::Text{"Restored everything from Notes.", "checkmark.circle"};
  const C::Row applied = C::Text{
      "Applied 30 minutes ago, from a backup taken May 1, 2024, 9:30\u202fAM", "", Style::note};
  EXPECT_EQ(shape(Kind::lastRestore), (Rows{kText, kNote, kText, button(Action::undoAndCloseApp)}));
  EXPECT_EQ(Rows(last.begin(), last.begin() + 2), (Rows{restored, applied}));

  fs::remove(layout.previousRecord);
  writeRecord(outcome(false, true), layout.outcomeRecord);
  model->reload();
  EXPECT_EQ(rows(Kind::lastRestore),
            (Rows{C::Text{"Could not move aside Documents", "exclamationmark.triangle"}, applied}));

  // Kept data without an outcome record can still be put back.
  fs::remove(layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", Scope::everything), layout.previousRecord);
  model->reload();
  EXPECT_EQ(shape(Kind::lastRestore), (Rows{kText, button(Action::undoAndCloseApp)}));
}

}  // namespace
}  // namespace corvelstow
