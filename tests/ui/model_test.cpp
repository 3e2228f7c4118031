#include <gtest/gtest.h>

#include <regex>

#include "archive/zip_writer.h"
#include "backup/backup.h"
#include "backup/inspection.h"
#include "backup/usage.h"
#include "model_fixture.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::writeFile;
using Field = StowModel::Field;
using Pill = StowModel::Pill;
using Work = StowModel::Work;

class ModelTest : public testing::ModelFixture {};

// The greet

TEST_F(ModelTest, CreationReadsTheRecordsAndStartsFromTheInitialValues) {
  StowSettings settings{false, true, *parseInternetDate("2024-05-03T12:00:00Z")};
  saveSettings(layout, settings);
  writeRecord(stagedRestore("Notes", StowRestoreScope::documents), layout.stagedRecord);
  writeRecord(stagedRestore("Old Notes", StowRestoreScope::everything), layout.previousRecord);
  launch();

  EXPECT_EQ(model->settings(), settings);
  EXPECT_EQ(model->pending(), stagedRestore("Notes", StowRestoreScope::documents));
  EXPECT_EQ(model->previous(), stagedRestore("Old Notes", StowRestoreScope::everything));
  EXPECT_EQ(model->pill(), Pill::none());
  EXPECT_FALSE(model->panelShown());
  EXPECT_FALSE(model->usage());
  EXPECT_EQ(model->work(), Work::idle());
  EXPECT_FALSE(model->errorText() || model->preview() || model->lastExport());
  EXPECT_EQ(model->scope(), StowRestoreScope::everything);
  EXPECT_EQ(model->pillFrame(), StowRect{});
  EXPECT_EQ(model->app(), app);
}

TEST_F(ModelTest, UnreadableRecordsLeaveTheDefaults) {
  writeFile(layout.settingsRecord, "{\"showOnLaunch\": false}");  // a required key is missing
  writeFile(layout.stagedRecord, "not json");
  writeFile(layout.previousRecord, "{}");
  launch();
  EXPECT_EQ(model->settings(), StowSettings{});
  EXPECT_FALSE(model->pending());
  EXPECT_FALSE(model->previous());
}

TEST_F(ModelTest, GreetAnnouncesAnOutcomeMarkedBeforeItShowsAndAheadOfAWaitingRestore) {
  writeRecord(outcome(true, false), layout.outcomeRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  std::optional<bool> markedWhenShown;
  model->observe([&](Field field, const StowAnimation&) {
    if (field == Field::pill && !markedWhenShown) {
      markedWhenShown = readRecord<StowOutcome>(layout.outcomeRecord)->announced;
    }
  });

  model->greet();
  EXPECT_EQ(model->pill(), Pill::restored(outcome(true, true)));
  EXPECT_EQ(markedWhenShown, true);
  EXPECT_EQ(readRecord<StowOutcome>(layout.outcomeRecord), outcome(true, true));
}

TEST_F(ModelTest, GreetFallsBackToTheWaitingRestoreThenTheInvitation) {
  struct Case {
    const char* name;
    std::optional<bool> outcomeAnnounced;  // no outcome.json when absent
    bool staged;
    std::optional<bool> showOnLaunch;  // no settings.json when absent
    Pill expected;
  };
  const Pill waiting = Pill::message("A restore is waiting. Close and reopen the app.", true);
  const std::vector<Case> cases{
      {"announced outcome, staged restore", true, true, true, waiting},
      {"staged restore, invitation off", std::nullopt, true, false, waiting},
      {"no settings.json", std::nullopt, false, std::nullopt, Pill::ready()},
      {"announced outcome only", true, false, true, Pill::ready()},
      {"invitation off", true, false, false, Pill::none()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(layout.workFolder);
    if (c.outcomeAnnounced) writeRecord(outcome(true, *c.outcomeAnnounced), layout.outcomeRecord);
    if (c.staged)
      writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
    if (c.showOnLaunch) saveSettings(layout, StowSettings{*c.showOnLaunch, false, std::nullopt});
    launch();
    model->greet();
    EXPECT_EQ(model->pill(), c.expected);
    EXPECT_EQ(pillAnimations().size(), c.expected.isNone() ? 0u : 1u);
  }
}

TEST_F(ModelTest, AnOutcomeIsAnnouncedExactlyOnceAcrossLaunches) {
  writeRecord(outcome(false, false), layout.outcomeRecord);
  model->greet();
  EXPECT_EQ(model->pill(), Pill::restored(outcome(false, true)));
  dispatcher.advance(14.9);
  EXPECT_FALSE(model->pill().isNone());
  dispatcher.advance(0.1);
  EXPECT_TRUE(model->pill().isNone());

  launch();
  model->greet();
  EXPECT_EQ(model->pill(), Pill::ready());
}

// The pill's timer

TEST_F(ModelTest, ASecondPillFiveSecondsIntoATenSecondPillGetsItsFullTime) {
  model->showPill(Pill::ready(), 10);
  dispatcher.advance(5);
  model->showPill(Pill::message("Saved", true), 10);
  dispatcher.advance(5);  // the first pill's time is up, but its hide was cancelled
  EXPECT_EQ(model->pill(), Pill::message("Saved", true));
  dispatcher.advance(4.99);
  EXPECT_EQ(model->pill(), Pill::message("Saved", true));
  dispatcher.advance(0.01);
  EXPECT_TRUE(model->pill().isNone());
  EXPECT_EQ(pillAnimations(),
            (std::vector<StowAnimation>{StowAnimation::spring(), StowAnimation::spring(),
                                        StowAnimation::easeInOut()}));
}

TEST_F(ModelTest, ThePillsAnimationsAreSpringToShowAndEaseInOutToHide) {
  EXPECT_EQ(StowAnimation::spring(), (StowAnimation{StowAnimation::Curve::spring, 0.4, 0.85, 0}));
  EXPECT_EQ(StowAnimation::easeInOut(),
            (StowAnimation{StowAnimation::Curve::easeInOut, 0.25, 0, 0}));
  model->showPill(Pill::ready(), 10);
  model->openPanel();
  EXPECT_EQ(pillAnimations(),
            (std::vector<StowAnimation>{StowAnimation::spring(), StowAnimation::standard()}));
  dispatcher.advance(10);  // the hide was cancelled by opening the panel
  EXPECT_EQ(pillAnimations().size(), 2u);
}

TEST_F(ModelTest, TheHideTimerHoldsTheModelWeakly) {
  model->showPill(Pill::ready(), 10);
  std::weak_ptr<StowModel> weak = model;
  model.reset();
  EXPECT_TRUE(weak.expired());
  dispatcher.advance(10);  // fires into a model that is gone
}

// The panel

TEST_F(ModelTest, OpenPanelTapsHidesThePillReloadsAndOpens) {
  writeFile(layout.documents / "a.txt", "12345");
  writeFile(layout.library / "Caches/c", "123");
  model->showPill(Pill::ready(), 10);
  saveSettings(layout, StowSettings{false, true, std::nullopt});  // changed since creation
  changes.clear();

  model->openPanel();
  EXPECT_EQ(control.calls, (std::vector<std::pair<std::string, double>>{{"haptic", 0}}));
  EXPECT_TRUE(model->pill().isNone());
  EXPECT_TRUE(model->panelShown());
  EXPECT_EQ(model->settings(), (StowSettings{false, true, std::nullopt}));
  EXPECT_FALSE(model->usage());  // the survey runs in the background
  EXPECT_EQ(dispatcher.backgroundWaiting(), 1u);
  dispatcher.settle();
  EXPECT_EQ(model->usage(), surveyUsage(layout));
  EXPECT_EQ(model->usage()->cachesBytes, 3);

  // A long press while the panel is open changes nothing.
  changes.clear();
  model->openPanel();
  EXPECT_TRUE(changes.empty());
  EXPECT_EQ(control.calls.size(), 1u);
  EXPECT_EQ(dispatcher.backgroundWaiting(), 0u);
}

TEST_F(ModelTest, ATapOnThePillOpensThePanelWithoutTheHaptic) {
  model->showPill(Pill::ready(), 10);
  model->openPanelFromPill();
  EXPECT_TRUE(model->panelShown());
  EXPECT_TRUE(model->pill().isNone());
  EXPECT_TRUE(control.calls.empty());

  model->closePanel();
  EXPECT_FALSE(model->panelShown());
  EXPECT_TRUE(model->pill().isNone());
}

// Long work

TEST_F(ModelTest, BackUpReportsProgressInOrderAndFinishesIdle) {
  for (int i = 0; i < 20; ++i) writeFile(layout.documents / ("f" + std::to_string(100 + i)), "x");
  std::optional<fs::path> shared;
  model->backUp([&](const fs::path& archive) { shared = archive; });
  EXPECT_EQ(model->work(), Work::running("Backing up", 0, "Starting"));
  dispatcher.settle();

  std::vector<std::string> details;
  double fraction = 0;
  for (std::size_t i = 0; i + 1 < workSeen.size(); ++i) {
    const auto* running = workSeen[i].runningState();
    ASSERT_TRUE(running);
    EXPECT_EQ(running->title, "Backing up");
    EXPECT_GE(running->fraction, fraction);
    fraction = running->fraction;
    details.push_back(running->detail);
  }
  EXPECT_EQ(details,
            (std::vector<std::string>{"Starting", "Looking through the app's data", "1 of 20 files",
                                      "9 of 20 files", "17 of 20 files", "20 of 20 files"}));
  EXPECT_EQ(workSeen.back(), Work::idle());
  ASSERT_TRUE(shared);
  EXPECT_EQ(model->lastExport(), shared);
  EXPECT_TRUE(fs::exists(*shared));
  EXPECT_EQ(model->settings().lastBackupAt, loadSettings(layout).lastBackupAt);
  EXPECT_TRUE(model->settings().lastBackupAt);
  EXPECT_FALSE(model->errorText());
}

TEST_F(ModelTest, AFailedBackUpSetsTheErrorTextAndFinishesIdle) {
  writeFile(folder / "tmp", "a file where the temporary folder should be");
  std::string expected;
  try {
    backUp(layout, app, false, [](double, const std::string&) {});
  } catch (const std::exception& error) {
    expected = error.what();
  }
  ASSERT_FALSE(expected.empty());

  bool completed = false;
  model->backUp([&](const fs::path&) { completed = true; });
  dispatcher.settle();
  EXPECT_EQ(model->work(), Work::idle());
  EXPECT_EQ(workSeen.front(), Work::running("Backing up", 0, "Starting"));
  EXPECT_EQ(model->errorText(), expected);
  EXPECT_FALSE(completed);
  EXPECT_FALSE(model->lastExport());
  EXPECT_FALSE(loadSettings(layout).lastBackupAt);

  // The next attempt starts by clearing the old failure.
  fs::remove(folder / "tmp");
  model->backUp();
  EXPECT_FALSE(model->errorText());
  dispatcher.settle();
  EXPECT_TRUE(model->lastExport());
}

TEST_F(ModelTest, BackUpTakesTheCachesChoiceFromTheSettingsOrAsGiven) {
  writeFile(layout.documents / "a.txt", "a");
  writeFile(layout.library / "Caches/c", "c");
  model->backUp();
  dispatcher.settle();
  EXPECT_EQ(readManifest(*model->lastExport()).fileCount, 1);

  model->backUpWith(true);
  dispatcher.settle();
  EXPECT_EQ(readManifest(*model->lastExport()).fileCount, 2);
  EXPECT_FALSE(loadSettings(layout).includeCaches);

  model->setIncludeCaches(true);
  model->backUp();
  dispatcher.settle();
  EXPECT_EQ(readManifest(*model->lastExport()).fileCount, 2);
}

TEST_F(ModelTest, NoSecondLongOperationStartsWhileOneRuns) {
  fs::path archive = makeBackup(app, {{"Documents/a.txt", "a"}});
  model->backUp();
  model->backUp();
  model->chooseBackup(archive);
  EXPECT_EQ(dispatcher.backgroundWaiting(), 1u);
  dispatcher.settle();
  EXPECT_FALSE(model->preview());
}

TEST_F(ModelTest, ChoosingABackupPreviewsItWithAFreshIdentityAndTheWidestScope) {
  StowHostApp other{"com.other.app", "Other", "3.0", std::nullopt};
  fs::path archive = makeBackup(other, {{"Documents/a.txt", "abc"}});
  model->setScope(StowRestoreScope::settings);
  model->chooseBackup(archive);
  EXPECT_FALSE(model->preview());  // read in the background
  dispatcher.settle();

  ASSERT_TRUE(model->preview());
  const StowModel::Preview first = *model->preview();
  EXPECT_EQ(first.url, archive);
  EXPECT_EQ(first.manifest.bundleIdentifier, "com.other.app");
  EXPECT_EQ(first.manifest.fileCount, 1);
  EXPECT_TRUE(std::regex_match(
      first.id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << first.id;
  EXPECT_EQ(model->scope(), StowRestoreScope::everything);

  model->chooseBackup(archive);
  dispatcher.settle();
  EXPECT_NE(model->preview()->id, first.id);

  model->cancelPreview();
  EXPECT_FALSE(model->preview());
}

TEST_F(ModelTest, ChoosingAFileThatIsNoBackupLeavesNoPreviewAndSaysWhy) {
  writeFile(folder / "notes.txt", "plain text, not an archive");
  {
    StowZipWriter writer(folder / "plain.zip");
    writer.add("hello", "readme.txt", currentDate());
    writer.finish();
  }
  model->chooseBackup(folder / "notes.txt");
  dispatcher.settle();
  EXPECT_FALSE(model->preview());
  ASSERT_TRUE(model->errorText());
  EXPECT_FALSE(model->errorText()->empty());

  model->chooseBackup(folder / "plain.zip");
  EXPECT_FALSE(model->errorText());  // cleared when the choice is made
  dispatcher.settle();
  EXPECT_FALSE(model->preview());
  EXPECT_EQ(model->errorText(), "That file is not an app data backup: it has no manifest.");
  EXPECT_EQ(model->work(), Work::idle());
}

TEST_F(ModelTest, PrepareRestoreStagesTheChosenScopeWithProgressThenShowsItPending) {
  std::map<std::string, std::string> files;
  for (int i = 0; i < 17; ++i) files["Documents/d" + std::to_string(100 + i)] = "d";
  files["Library/Preferences/com.example.notes.plist"] = "p";
  fs::path archive = makeBackup(app, files);
  model->chooseBackup(archive);
  dispatcher.settle();
  model->setScope(StowRestoreScope::documents);
  workSeen.clear();

  model->prepareRestore();
  dispatcher.settle();
  std::vector<Work> expected{Work::running("Preparing the restore", 0, "Unpacking"),
                             Work::running("Preparing the restore", 8.0 / 17, "8 of 17 files"),
                             Work::running("Preparing the restore", 16.0 / 17, "16 of 17 files"),
                             Work::running("Preparing the restore", 1, "17 of 17 files"),
                             Work::idle()};
  EXPECT_EQ(workSeen, expected);
  EXPECT_FALSE(model->preview());
  ASSERT_TRUE(model->pending());
  EXPECT_EQ(model->pending()->scope, StowRestoreScope::documents);
  EXPECT_EQ(model->pending(), readRecord<StowStagedRestore>(layout.stagedRecord));
  EXPECT_EQ(readFile(layout.staged / "Documents/d100"), "d");
  EXPECT_FALSE(fs::exists(layout.staged / "Library"));
}

TEST_F(ModelTest, AFailedPrepareKeepsThePreviewAndSaysWhy) {
  fs::path archive = makeBackup(app, {{"Documents/a.txt", "a"}});
  model->prepareRestore();  // nothing to prepare without a preview
  EXPECT_EQ(dispatcher.backgroundWaiting(), 0u);

  model->chooseBackup(archive);
  dispatcher.settle();
  model->setScope(StowRestoreScope::settings);
  model->prepareRestore();
  dispatcher.settle();
  EXPECT_EQ(model->work(), Work::idle());
  EXPECT_EQ(model->errorText(), "That backup holds nothing for the part you chose.");
  EXPECT_TRUE(model->preview());
  EXPECT_FALSE(model->pending());
}

TEST_F(ModelTest, ResultsForAModelThatIsGoneAreDropped) {
  model->reload();
  model.reset();
  dispatcher.settle();  // the survey's result finds no model
}

// Closing the app

TEST_F(ModelTest, CloseAppSuspendsAtOnceAndEndsTheProcessAfterFourTenths) {
  model->closeApp();
  EXPECT_EQ(control.calls, (std::vector<std::pair<std::string, double>>{{"suspend", 0}}));
  dispatcher.advance(0.39);
  EXPECT_EQ(control.calls.size(), 1u);
  dispatcher.advance(0.01);
  EXPECT_EQ(control.calls,
            (std::vector<std::pair<std::string, double>>{{"suspend", 0}, {"terminate", 0.4}}));
}

TEST_F(ModelTest, UndoAndCloseAppLeavesTheRequestOnlyWhenThereIsARestoreToUndo) {
  model->undoAndCloseApp();
  EXPECT_FALSE(fs::exists(layout.undoRequest));
  EXPECT_TRUE(control.calls.empty());

  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  model->reload();
  model->undoAndCloseApp();
  EXPECT_TRUE(fs::exists(layout.undoRequest));
  dispatcher.advance(0.4);
  EXPECT_EQ(control.calls,
            (std::vector<std::pair<std::string, double>>{{"suspend", 0}, {"terminate", 0.4}}));
}

// Options

TEST_F(ModelTest, TheSwitchesWriteThroughKeepingWhatABackupStamped) {
  StowDate stamped = *parseInternetDate("2024-05-03T12:00:00Z");
  saveSettings(layout, StowSettings{true, false, stamped});  // written after the model read it

  model->setIncludeCaches(true);
  EXPECT_EQ(loadSettings(layout), (StowSettings{true, true, stamped}));
  EXPECT_EQ(model->settings(), loadSettings(layout));
  model->setShowOnLaunch(false);
  EXPECT_EQ(loadSettings(layout), (StowSettings{false, true, stamped}));

  changes.clear();
  model->setShowOnLaunch(false);
  EXPECT_TRUE(changes.empty());
}

TEST_F(ModelTest, WorkAndPillValuesCompareCaseByCaseAndPayloadByPayload) {
  EXPECT_EQ(Work::idle(), Work::idle());
  EXPECT_EQ(Work::running("A", 0.5, "1 of 2 files"), Work::running("A", 0.5, "1 of 2 files"));
  EXPECT_NE(Work::running("A", 0.5, "1 of 2 files"), Work::running("A", 0.6, "1 of 2 files"));
  EXPECT_NE(Work::running("A", 0.5, "1 of 2 files"), Work::running("B", 0.5, "1 of 2 files"));
  EXPECT_NE(Work::running("A", 0, ""), Work::idle());
  EXPECT_EQ(Pill::message("Saved", true), Pill::message("Saved", true));
  EXPECT_NE(Pill::message("Saved", true), Pill::message("Saved", false));
  EXPECT_NE(Pill::restored(outcome(true, false)), Pill::restored(outcome(true, true)));
  EXPECT_NE(Pill::none(), Pill::ready());
}

}  // namespace
}  // namespace corvelstow
