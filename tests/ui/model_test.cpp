// The panel model on the manual clock: the greeting, the pill's timer, the panel, the long work
// and closing the app.

#include <gtest/gtest.h>

#include <bitset>
#include <regex>
#include <tuple>

#include "backup/inspection.h"
#include "backup/usage.h"
#include "model_fixture.h"
#include "store/container_lock.h"

namespace corvelstow {
namespace {

using testing::Calls;
using testing::outcome;
using testing::stagedRestore;
using testing::readFile;
using testing::writeFile;
using Field = StowModel::Field;
using Pill = StowModel::Pill;
using Work = StowModel::Work;
using Animations = std::vector<StowAnimation>;
using ModelTest = testing::ModelFixture;

TEST_F(ModelTest, GreetAnnouncesAnOutcomeOnceElseAWaitingRestoreElseTheInvitation) {
  // outcome.json (absent, or announced or not), staged.json, what "Show When the App Opens"
  // says (no settings.json when absent), the pill and how long it stays.
  const Pill failed = Pill::restored(outcome(false, true));
  const Pill waiting = Pill::message("A restore is waiting. Close and reopen the app.", true);
  const std::vector<
      std::tuple<const char*, std::optional<bool>, bool, std::optional<bool>, Pill, double>>
      cases{
          {"an outcome to announce, a staged restore", false, true, true, failed, 15},
          {"announced outcome, staged restore", true, true, true, waiting, 10},
          {"staged restore, invitation off", std::nullopt, true, false, waiting, 10},
          {"no settings.json", std::nullopt, false, std::nullopt, Pill::ready(), 10},
          {"announced outcome only", true, false, true, Pill::ready(), 10},
          {"invitation off", true, false, false, Pill::none(), 10},
      };
  for (const auto& [name, announced, staged, showOnLaunch, expected, seconds] : cases) {
    SCOPED_TRACE(name);
    fs::remove_all(layout.workFolder);
    if (announced) writeRecord(outcome(false, *announced), layout.outcomeRecord);
    if (staged)
      writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
    if (showOnLaunch) saveSettings(layout, StowSettings{*showOnLaunch, false, std::nullopt});
    launch();
    // An outcome is marked announced before it shows, so that it is told once whatever follows.
    model->observe([&](Field field, const StowAnimation&) {
      const auto onDisk = readRecord<StowOutcome>(layout.outcomeRecord);
      EXPECT_TRUE(field != Field::pill || !onDisk || onDisk->announced);
    });
    model->greet();
    EXPECT_EQ(model->pill(), expected);
    EXPECT_EQ(model->outcome(), announced ? std::optional(outcome(false, true)) : std::nullopt);
    dispatcher.advance(seconds - 0.01);
    EXPECT_EQ(model->pill(), expected);
    dispatcher.advance(0.01);
    EXPECT_TRUE(model->pill().isNone());
  }
}

// A second pill 5 s into a 10 s one gets its full time; while VoiceOver runs a pill stays till
// it is dismissed or VoiceOver stops.
TEST_F(ModelTest, APillStaysItsTimeFromItsOwnStartOrWhileVoiceOverRunsTillDismissed) {
  model->showPill(Pill::ready(), 10);
  dispatcher.advance(5);
  model->showPill(Pill::message("Saved", true), 10);
  dispatcher.advance(9.99);  // the first pill's time is up, but its hide was cancelled
  EXPECT_EQ(model->pill(), Pill::message("Saved", true));
  dispatcher.advance(0.01);
  EXPECT_TRUE(model->pill().isNone());
  EXPECT_EQ(pillAnimations, (Animations{StowAnimation::spring(), StowAnimation::spring(),
                                        StowAnimation::easeInOut()}));

  model->setVoiceOverRunning(true);
  model->showPill(Pill::ready(), 10);
  dispatcher.advance(60);
  model->setVoiceOverRunning(false);  // then it gets its time again
  dispatcher.advance(9.9);
  EXPECT_EQ(model->pill(), Pill::ready());
  model->setVoiceOverRunning(true);
  dispatcher.advance(60);
  EXPECT_EQ(model->pill(), Pill::ready());
  model->dismissPill();  // the escape gesture
  EXPECT_TRUE(model->pill().isNone());
  EXPECT_EQ(pillAnimations.back(), StowAnimation::easeInOut());
  model->setVoiceOverRunning(false);
  model->showPill(Pill::ready(), 10);
  dispatcher.advance(10);
  EXPECT_TRUE(model->pill().isNone());
}

TEST_F(ModelTest, OpeningThePanelHidesThePillAndReloadsAndOpeningItAgainChangesNothing) {
  writeFile(layout.library / "Caches/c", "123");
  model->showPill(Pill::ready(), 10);
  saveSettings(layout, StowSettings{false, true, std::nullopt});  // changed since creation
  model->openPanel();
  EXPECT_EQ(control.calls, (Calls{{"haptic", 0}}));
  EXPECT_TRUE(model->panelShown());
  EXPECT_EQ(pillAnimations, (Animations{StowAnimation::spring(), StowAnimation::standard()}));
  EXPECT_EQ(model->settings(), (StowSettings{false, true, std::nullopt}));
  EXPECT_FALSE(model->usage());  // surveyed in the background
  dispatcher.settle();
  EXPECT_EQ(model->usage(), surveyUsage(layout));

  changes = 0;
  model->openPanel();
  EXPECT_EQ(changes + dispatcher.backgroundWaiting(), 0u);
  model->closePanel();
  model->showPill(Pill::ready(), 10);
  model->openPanelFromPill();  // a tap on the pill: no haptic
  EXPECT_TRUE(model->panelShown() && model->pill().isNone());
  EXPECT_EQ(control.calls.size(), 1u);

  // Timers and background work hold the model weakly: they find none to report to.
  std::weak_ptr<StowModel> weak = model;
  model->showPill(Pill::ready(), 10);
  model.reset();
  EXPECT_TRUE(weak.expired());
  dispatcher.settle();
  dispatcher.advance(10);
}

TEST_F(ModelTest, BackUpReportsProgressInOrderAndNothingElseStartsWhileItRuns) {
  for (int i = 0; i < 20; ++i) writeFile(layout.documents / ("f" + std::to_string(100 + i)), "x");
  writeFile(layout.library / "Caches/c", "c");
  std::optional<fs::path> shared;
  model->backUp([&](const fs::path& archive) { shared = archive; });
  model->backUp();
  model->chooseBackup(folder / "any.corvelappdata");
  model->prepareRestore();  // nor without a preview
  EXPECT_EQ(dispatcher.backgroundWaiting(), 1u);
  dispatcher.settle();
  dispatcher.advance(1);  // nothing reported comes after the end
  // The reports made while the main queue was busy reach it as one, the latest.
  const std::string title = "Backing up";
  EXPECT_EQ(workSeen, (std::vector<Work>{Work::running(title, 0, "Starting"),
                                         Work::running(title, 1, "20 of 20 files"), Work::idle()}));
  EXPECT_TRUE(shared && model->lastExport() == shared);

  auto backedUpFiles = [&](auto start) {
    start();
    dispatcher.settle();
    return readManifest(*model->lastExport()).fileCount;
  };
  EXPECT_EQ(backedUpFiles([&] { model->backUpWith(true, 2); }), 21);
  EXPECT_FALSE(loadSettings(layout).includeCaches);
  model->setIncludeCaches(true);
  EXPECT_EQ(backedUpFiles([&] { model->backUp(); }), 21);
}

TEST_F(ModelTest, AFailureSaysWhyAndLeavesTheWorkIdleTillTheNextAttemptClearsIt) {
  writeFile(folder / "tmp", "a file where the temporary folder should be");
  bool completed = false;
  model->backUp([&](const fs::path&) { completed = true; });
  dispatcher.settle();
  EXPECT_EQ(model->work(), Work::idle());
  EXPECT_FALSE(model->errorText().value_or("").empty());
  EXPECT_FALSE(completed || model->lastExport() || loadSettings(layout).lastBackupAt);
  fs::remove(folder / "tmp");

  writeFile(folder / "notes.txt", "not a backup");
  model->chooseBackup(folder / "notes.txt");
  EXPECT_FALSE(model->errorText());
  dispatcher.settle();
  EXPECT_FALSE(model->preview());
  EXPECT_EQ(model->errorText(), "That file is not a zip archive.");
  model->backUp();
  EXPECT_FALSE(model->errorText());
}

TEST_F(ModelTest, AChosenBackupIsPreviewedAfreshThenStagedInTheChosenScopeWithProgress) {
  std::map<std::string, std::string> files{{"Library/Preferences/com.example.notes.plist", "p"}};
  for (int i = 0; i < 17; ++i) files["Documents/d" + std::to_string(100 + i)] = "d";
  const fs::path archive = makeBackup(app, files);
  model->setScope(StowRestoreScope::settings);
  model->chooseBackup(archive);
  dispatcher.settle();
  const std::string first = model->preview().value().id;
  EXPECT_EQ(model->scope(), StowRestoreScope::everything);  // every preview starts from all
  model->cancelPreview();
  EXPECT_FALSE(model->preview());
  model->chooseBackup(archive);
  dispatcher.settle();
  EXPECT_NE(model->preview()->id, first);

  model->setScope(StowRestoreScope::documents);
  model->prepareRestore();
  dispatcher.settle();
  const std::string title = "Preparing the restore";
  EXPECT_EQ(workSeen, (std::vector<Work>{Work::running(title, 0, "Unpacking"),
                                         Work::running(title, 1, "17 of 17 files"), Work::idle()}));
  EXPECT_FALSE(model->preview());
  EXPECT_EQ(model->pending().value().scope, StowRestoreScope::documents);
  EXPECT_EQ(model->pending(), readRecord<StowStagedRestore>(layout.stagedRecord));
  EXPECT_FALSE(fs::exists(layout.staged / "Library"));
}

TEST_F(ModelTest, APickedCopyGoesWhenItsPreviewEndsAndTheUsersOwnFileStays) {
  const fs::path archive = makeBackup(app, {{"Documents/a.txt", "a"}});
  // A document picker's copy in the app's temporary Inbox folder, chosen.
  auto pick = [&](const std::string& name, bool settle = true) {
    const fs::path copy = folder / "tmp/com.example.notes-Inbox" / name;
    writeFile(copy, name.ends_with(".txt") ? "not a backup" : readFile(archive));
    model->chooseBackup(copy, true);
    if (settle) dispatcher.settle();
    return copy;
  };
  auto choose = [&](const fs::path& file) {
    model->chooseBackup(file, true);
    dispatcher.settle();
  };

  const fs::path first = pick("first.corvelappdata");
  choose(first);  // chosen again, it is still the one previewed
  EXPECT_TRUE(fs::exists(first));
  const fs::path second = pick("second.corvelappdata");  // replaces the first preview
  EXPECT_FALSE(fs::exists(first));
  model->cancelPreview();
  EXPECT_FALSE(fs::exists(second));
  EXPECT_FALSE(fs::exists(pick("notes.txt")));
  EXPECT_TRUE(model->errorText());

  const fs::path staged = pick("staged.corvelappdata");
  model->prepareRestore();
  model->prepareRestore();  // once is enough
  EXPECT_EQ(dispatcher.backgroundWaiting(), 1u);
  EXPECT_FALSE(fs::exists(pick("busy.corvelappdata", false)));  // refused while work runs
  dispatcher.settle();
  EXPECT_TRUE(model->pending());
  EXPECT_FALSE(fs::exists(staged));

  model->chooseBackup(archive);  // a file named on the command line
  dispatcher.settle();
  model->cancelPreview();
  model->chooseBackup(archive);
  dispatcher.settle();
  model->prepareRestore();
  dispatcher.settle();
  EXPECT_TRUE(model->pending() && !model->preview() && fs::exists(archive));
}

TEST(ProgressRelayTest, DeliversTheLatestReportAtMostEveryIntervalAndTheLastAlways) {
  testing::ManualDispatcher dispatcher;
  using Delivered = std::vector<std::pair<std::string, double>>;  // the detail, and when
  Delivered delivered;
  auto relay = StowProgressRelay::create(dispatcher, [&](double, const std::string& detail) {
    delivered.emplace_back(detail, dispatcher.now());
  });
  relay->report(0.1, "1");
  relay->report(0.2, "2");  // one delivery waits on the main queue; it takes the latest
  dispatcher.advance(0);
  relay->report(0.3, "3");
  relay->report(0.4, "4");
  dispatcher.advance(0.04);  // too soon after the last
  EXPECT_EQ(delivered, (Delivered{{"2", 0}}));
  dispatcher.advance(0.02);
  EXPECT_EQ(delivered, (Delivered{{"2", 0}, {"4", StowProgressRelay::kInterval}}));
  dispatcher.advance(1);  // the pause ends with nothing new
  relay->report(0.5, "5");
  dispatcher.advance(0);
  relay->report(0.6, "6");
  relay->finish();  // the work is done: its last report is not held back by the pause
  relay->report(0.7, "too late");
  dispatcher.advance(1);
  ASSERT_EQ(delivered.size(), 4u);
  EXPECT_EQ(delivered[2].first + delivered[3].first, "56");
  EXPECT_DOUBLE_EQ(delivered[2].second, 1.06);
  EXPECT_DOUBLE_EQ(delivered[3].second, 1.06);
}

TEST_F(ModelTest, UndoNeedsAPreviousRestoreAndIdleWorkAndLeavesTheRequestBeforeClosing) {
  model->undoAndCloseApp();  // nothing to undo
  EXPECT_TRUE(control.calls.empty());
  EXPECT_FALSE(fs::exists(layout.undoRequest));

  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  model->reload();
  model->backUp();  // nothing closes the app while work runs
  model->closeApp();
  model->undoAndCloseApp();
  EXPECT_EQ(control.calls, (Calls{{"begin Backing up", 0}}));
  EXPECT_FALSE(fs::exists(layout.undoRequest));
  dispatcher.settle();
  control.calls.clear();
  {
    // While another operation holds the app's data, the app stays open and says so.
    auto busy = StowContainerLock::acquire(layout);
    model->undoAndCloseApp();
    EXPECT_EQ(model->errorText(), StowContainerLock::kBusyText);
    EXPECT_FALSE(fs::exists(layout.undoRequest));
    EXPECT_TRUE(control.calls.empty());
  }
  model->undoAndCloseApp();
  EXPECT_TRUE(fs::exists(layout.undoRequest));
  EXPECT_EQ(control.calls, (Calls{{"begin Closing the app", 0}, {"suspend", 0}}));
}

TEST_F(ModelTest, ClosingEndsTheProcessOnceTheAppIsInTheBackgroundAndOurQueueIsDone) {
  // How the app leaves the screen 0.25 s after suspending, and when the process ends.
  const std::vector<std::tuple<const char*, std::function<void()>, double>> ways{
      {"reaches the background", [&] { control.enterBackground(); }, 0.25},
      {"stays on screen", [] {}, StowModel::kCloseTimeout},
      {"runs out of background time", [&] { control.expire(); }, 0.25},
  };
  for (const auto& [name, leave, ended] : ways) {
    SCOPED_TRACE(name);
    launch();
    const double start = dispatcher.now();
    model->closeApp();
    model->closeApp();                       // once is enough
    for (int tick = 0; tick < 12; ++tick) {  // 3 s, a quarter at a time
      if (tick == 1) leave();
      dispatcher.settle();
      dispatcher.advance(0.25);
    }
    Calls seen;  // but when the background time ends: with the process
    for (const auto& [call, at] : control.calls) {
      if (!call.starts_with("end")) seen.emplace_back(call, at - start);
    }
    EXPECT_EQ(seen, (Calls{{"begin Closing the app", 0}, {"suspend", 0}, {"terminate", ended}}));
  }
  // The end waits for the survey queued before it, unless the background time runs out first.
  for (bool outOfTime : {false, true}) {
    launch();
    model->reload();
    model->closeApp();
    control.enterBackground();
    dispatcher.advance(0);
    EXPECT_NE(control.calls.back().first, "terminate");
    if (outOfTime) {
      control.expire();
    } else {
      dispatcher.settle();
      EXPECT_TRUE(model->usage());
    }
    EXPECT_EQ(control.calls.back().first, "terminate");
  }
}

TEST_F(ModelTest, LongWorkHoldsBackgroundTimeTillItEndsAndStopsCleanlyWhenTheTimeRunsOut) {
  const fs::path archive = makeBackup(app, {{"Documents/a.txt", "a"}});
  auto backUp = [&] { model->backUp(); };
  auto stage = [&] {
    model->chooseBackup(archive);
    dispatcher.settle();
    model->prepareRestore();
  };
  // The work, its title, and whether the system takes its time back while it runs.
  const std::vector<std::tuple<std::function<void()>, std::string, bool>> cases{
      {backUp, "Backing up", false},
      {backUp, "Backing up", true},
      {stage, "Preparing the restore", false},
      {stage, "Preparing the restore", true},
  };
  for (const auto& [start, title, expires] : cases) {
    SCOPED_TRACE(title + (expires ? ", out of time" : ""));
    fs::remove_all(layout.workFolder);
    fs::remove_all(layout.exports);
    launch();
    start();
    EXPECT_EQ(control.calls, (Calls{{"begin " + title, 0}}));
    if (expires) control.expire();
    dispatcher.settle();
    EXPECT_EQ(control.calls, (Calls{{"begin " + title, 0}, {"end " + title, 0}}));
    EXPECT_EQ(model->work(), Work::idle());
    EXPECT_EQ(model->errorText(),
              expires ? std::optional<std::string>(StowModel::kOutOfTimeText) : std::nullopt);
    // Stopped, it leaves neither an archive nor a staging behind.
    EXPECT_EQ(model->lastExport().has_value() || model->pending().has_value(), !expires);
    const bool leftBehind =
        (fs::exists(layout.exports) && !fs::is_empty(layout.exports)) || fs::exists(layout.staged);
    EXPECT_EQ(leftBehind, !expires);
  }
}

TEST_F(ModelTest, TheScreenStaysAwakeWhileWorkRunsWithThePanelShown) {
  model->backUp();  // the panel is closed
  model->openPanel();
  model->closePanel();
  model->openPanel();
  dispatcher.settle();  // the backup is done
  model->closePanel();
  std::erase_if(control.calls, [](const auto& call) {
    return call.first != "awake" && call.first != "may sleep";
  });
  EXPECT_EQ(control.calls, (Calls{{"awake", 0}, {"may sleep", 0}, {"awake", 0}, {"may sleep", 0}}));
}

TEST_F(ModelTest, TheSwitchesWriteThroughKeepingWhatABackupStamped) {
  StowDate stamped = *parseInternetDate("2024-05-03T12:00:00Z");
  saveSettings(layout, StowSettings{true, false, stamped});  // written after the model read it
  model->setIncludeCaches(true);
  EXPECT_EQ(loadSettings(layout), (StowSettings{true, true, stamped}));
  model->setShowOnLaunch(false);
  EXPECT_EQ(loadSettings(layout), (StowSettings{false, true, stamped}));
  EXPECT_EQ(model->settings(), loadSettings(layout));

  changes = 0;
  model->setShowOnLaunch(false);
  model->stopObserving(observer);
  model->setShowOnLaunch(true);
  EXPECT_EQ(changes, 0u);
}

// Every bit of a UUID but its version (4) and variant (binary 10) is random, apart from the others.
TEST(UuidTest, HoldsTheVersionAndVariantAndOtherwiseIndependentRandomBits) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::vector<std::bitset<128>> uuids;
  for (int i = 0; i < 64; ++i) {
    std::string text = makeUuid();
    ASSERT_TRUE(std::regex_match(text, form)) << text;
    std::erase(text, '-');
    uuids.emplace_back(std::bitset<64>(std::stoull(text.substr(0, 16), nullptr, 16)).to_string() +
                       std::bitset<64>(std::stoull(text.substr(16), nullptr, 16)).to_string());
  }
  auto fixed = [](int bit) { return (bit >= 48 && bit < 52) || bit == 64 || bit == 65; };
  for (int a = 0; a < 128; ++a) {
    for (int b = a; b < 128 && !fixed(a); ++b) {
      // One bit takes both values; two bits are neither always equal nor always different.
      const auto same = std::count_if(uuids.begin(), uuids.end(), [&](const auto& uuid) {
        return a == b ? uuid[127 - a] : uuid[127 - a] == uuid[127 - b];
      });
      EXPECT_TRUE(fixed(b) || (same > 0 && same < 64)) << a << " " << b;
    }
  }
}

}  // namespace
}  // namespace corvelstow
