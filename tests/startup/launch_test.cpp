// The launch-time work in real processes: the example host started through `corvelstow run`,
// with the library preloaded as an app that carries it is opened on a device.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <set>
#include <thread>
#include <tuple>

#include "container_fixture.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;
using Tree = std::map<std::string, std::string>;

class LaunchTest : public testing::ContainerFixture {
 protected:
  std::optional<StowOutcome> outcome() { return readRecord<StowOutcome>(layout.outcomeRecord); }

  void expectStagingCleared() {
    EXPECT_FALSE(fs::exists(layout.staged));
    EXPECT_FALSE(fs::exists(layout.stagedRecord));
    EXPECT_FALSE(fs::exists(layout.previousNew));
  }

  // The files of the container that a restore moves, by path: Documents and Library without
  // the system folders and the settings, which are rewritten rather than moved.
  Tree movableFiles(const fs::path& root) {
    Tree files;
    for (auto& [path, contents] : readTree(root)) {
      bool moved =
          path.rfind("Documents/", 0) == 0 ||
          (path.rfind("Library/", 0) == 0 && path.rfind("Library/CorvelStow", 0) != 0 &&
           path.rfind("Library/Preferences", 0) != 0 && path.rfind("Library/SplashBoard", 0) != 0 &&
           path.rfind("Library/Saved Application State", 0) != 0);
      if (moved && contents != "/") files[path] = contents;
    }
    return files;
  }
};

class LaunchScopeTest : public LaunchTest,
                        public ::testing::WithParamInterface<StowRestoreScope> {};

TEST_P(LaunchScopeTest, AppliesTheStagedRestoreBeforeTheHostRuns) {
  const StowRestoreScope scope = GetParam();
  const auto libraryOutsideTheWorkFolder = [&] {
    Tree tree = readTree(layout.library);
    std::erase_if(tree, [](const auto& entry) { return entry.first.starts_with("CorvelStow"); });
    return tree;
  };
  const Tree library = libraryOutsideTheWorkFolder();
  stage(scope);

  auto run = launch();
  ASSERT_EQ(run.exitCode, 0) << run.err;
  // The host already sees the restored data, and its own children do not load the library.
  EXPECT_NE(run.out.find("(LD_PRELOAD unset)"), std::string::npos) << run.out;
  bool documents = scope != StowRestoreScope::settings;
  EXPECT_EQ(run.out.find("\nDocuments/new.txt 10") != std::string::npos, documents) << run.out;

  EXPECT_EQ(readFile(layout.documents / "old.txt") == "live old", !documents);
  EXPECT_EQ(readFile(layout.previous / "Documents/old.txt") == "live old", documents);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"),
            scope == StowRestoreScope::everything ? "backup db" : "live db");
  bool settings = scope != StowRestoreScope::documents;
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"),
            domain("theme", settings ? "backup" : "live"));
  EXPECT_EQ(fs::exists(layout.preferences / "com.live.only.plist"), !settings);
  // Each scope touches its part alone: the documents scope leaves Library whole.
  if (scope == StowRestoreScope::documents) {
    EXPECT_EQ(libraryOutsideTheWorkFolder(), library);
    EXPECT_TRUE(readTree(layout.previous / "Library").empty());
  }

  auto result = outcome();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->message, "Restored " + std::string(rawValue(scope)) + " from Notes.");
  EXPECT_TRUE(result->succeeded && result->canUndo && !result->announced);
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.previousRecord)->scope, scope);
  expectStagingCleared();
}

INSTANTIATE_TEST_SUITE_P(Scopes, LaunchScopeTest,
                         ::testing::Values(StowRestoreScope::everything,
                                           StowRestoreScope::documents, StowRestoreScope::settings),
                         [](const auto& info) { return std::string(rawValue(info.param)); });

TEST_F(LaunchTest, ChangesNothingWhenNothingIsPendingOrNoContainerIsNamed) {
  Tree before = readTree(layout.home);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readTree(layout.home), before);  // not even the work folder is created

  // Loaded without a container, the library leaves a staged restore alone.
  stage(StowRestoreScope::everything);
  before = readTree(layout.home);
  auto run = testing::runProcess({"/bin/true"}, {{"LD_PRELOAD", CORVELSTOW_LIBRARY_FILE},
                                                 {"CORVELSTOW_HOME", ""},
                                                 {"HOME", layout.home.string()}});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(readTree(layout.home), before);
}

TEST_F(LaunchTest, UndoPutsTheDataBackAtTheNextLaunch) {
  Tree documents = readTree(layout.documents);
  auto settings = domainIn(layout.preferences / "com.example.notes.plist");
  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch().exitCode, 0);

  auto undo = testing::runCommand({"--home", layout.home.string(), "undo"});
  ASSERT_EQ(undo.exitCode, 0) << undo.err;
  EXPECT_TRUE(fs::exists(layout.undoRequest));
  ASSERT_EQ(launch().exitCode, 0);

  EXPECT_EQ(readTree(layout.documents), documents);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), settings);
  EXPECT_EQ(domainIn(layout.preferences / "com.live.only.plist"), domain("k", "live only"));
  EXPECT_FALSE(fs::exists(layout.preferences / "group.shared.plist"));
  auto result = outcome();
  EXPECT_EQ(result->message, "Put back the data from before the restore.");
  EXPECT_EQ(result->sourceName, "Before the restore");
  EXPECT_FALSE(result->canUndo);
  EXPECT_FALSE(fs::exists(layout.previous));
  EXPECT_FALSE(fs::exists(layout.previousRecord));
  EXPECT_FALSE(fs::exists(layout.undoRequest));

  // With nothing left to undo, the command says so and the marker alone does nothing.
  EXPECT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).err,
            "There is no restore to undo.\n");
  testing::writeFile(layout.undoRequest, "");
  fs::remove(layout.outcomeRecord);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_FALSE(fs::exists(layout.undoRequest));
  EXPECT_FALSE(outcome());
}

// What a restore could not set aside stays live as the user's own, and its undo leaves it so.
// An undo that could not put everything back keeps the rest, and previous.json, for another
// undo, which puts back just that: what the app wrote in between stays.
TEST_F(LaunchTest, NoUndoDiscardsWhatARestoreOrAnUndoCouldNotMove) {
  const Tree documents = readTree(layout.documents);
  testing::writeFile(layout.preferences / "com.broken.plist", "not a property list");
  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                    {"CORVELSTOW_FAIL", "rename@old.txt,Previous-new/Library/Preferences/com.live.only.plist"}})
                .exitCode,
            0);
  // A settings file that is no property list is set aside as the file it is.
  EXPECT_EQ(outcome()->message,
            "Could not move aside old.txt. Could not move aside com.live.only.plist");
  EXPECT_EQ(readFile(layout.previous / "Library/Preferences/com.broken.plist"),
            "not a property list");
  EXPECT_TRUE(outcome()->canUndo);
  testing::writeFile(layout.documents / "old.txt", "newer old");
  writeDomain(layout.preferences / "com.live.only.plist", domain("k", "newer"));
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  Tree expected = documents;
  expected["old.txt"] = "newer old";
  EXPECT_EQ(readTree(layout.documents), expected);
  EXPECT_EQ(domainIn(layout.preferences / "com.live.only.plist"), domain("k", "newer"));
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "live"));
  EXPECT_EQ(readFile(layout.preferences / "com.broken.plist"), "not a property list");
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  fs::remove(layout.preferences / "com.broken.plist");

  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  ASSERT_EQ(launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                    {"CORVELSTOW_FAIL", "rename@Documents/a.txt"}})
                .exitCode,
            0);
  EXPECT_EQ(outcome()->message, "Could not move aside a.txt. Could not put back a.txt");
  EXPECT_TRUE(outcome()->canUndo);
  EXPECT_EQ(readFile(layout.previous / "Documents/a.txt"), "live a");
  testing::writeFile(layout.documents / "later.txt", "written after the undo");
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  expected["later.txt"] = "written after the undo";
  EXPECT_EQ(readTree(layout.documents), expected);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  EXPECT_FALSE(fs::exists(layout.previous));
  EXPECT_FALSE(fs::exists(layout.previousRecord));
}

TEST_F(LaunchTest, UndoRunsBeforeANewlyStagedRestore) {
  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  stage(StowRestoreScope::documents);
  testing::writeFile(layout.staged / "Documents/new.txt", "second backup");

  ASSERT_EQ(launch().exitCode, 0);
  // The undo put the original documents back; the restore then replaced them, keeping them.
  EXPECT_EQ(readFile(layout.documents / "new.txt"), "second backup");
  EXPECT_EQ(readFile(layout.previous / "Documents/old.txt"), "live old");
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");
  auto result = outcome();
  EXPECT_EQ(result->message, "Restored documents from Notes.");
  EXPECT_TRUE(result->canUndo);
  expectStagingCleared();

  // An undo that cannot put everything back is told, not replaced by the restore staged after
  // it, which waits while Previous holds what the undo kept.
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  stage(StowRestoreScope::documents);
  ASSERT_EQ(launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                    {"CORVELSTOW_FAIL", "rename@Previous/Documents/old.txt"}})
                .exitCode,
            0);
  EXPECT_EQ(outcome()->message, "Could not put back old.txt");
  EXPECT_TRUE(fs::exists(layout.stagedRecord));
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message, "Restored documents from Notes.");
  EXPECT_EQ(readFile(layout.previous / "Documents/old.txt"), "live old");
}

// The system may load the app before the device's first unlock, when its files cannot be read
// yet: an undo and a restore that wait are left, whole, for the launch after.
TEST_F(LaunchTest, LeavesWhatWaitsForALaunchThatCanReadTheFiles) {
  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  stage(StowRestoreScope::documents);
  const Tree before = readTree(layout.home);

  auto locked = launch(
      {{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM}, {"CORVELSTOW_LOCKED_FOLDER", layout.home.string()}});
  ASSERT_EQ(locked.exitCode, 0) << locked.err;
  EXPECT_EQ(readTree(layout.home), before);

  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_FALSE(fs::exists(layout.undoRequest));
  EXPECT_EQ(outcome()->message, "Restored documents from Notes.");
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");  // undone
  expectStagingCleared();
}

// A launch killed at each rename in turn (of the swap, its journal, its records and settings),
// then launched again, ends exactly as a launch that was never killed: the backup's data live,
// every pre-restore file in Previous. Likewise for the launch that performs an undo, which
// must bring the pre-restore data back.
TEST_P(LaunchScopeTest, ALaunchKilledAtAnyRenameIsFinishedByTheNext) {
  const StowRestoreScope scope = GetParam();
  stage(scope);
  const Tree original = movableFiles(layout.home), backup = movableFiles(layout.staged);
  // What an older restore kept, which this one replaces.
  testing::writeFile(layout.previous / "Documents/older.txt", "kept by an older restore");
  StowStagedRestore older = *readRecord<StowStagedRestore>(layout.stagedRecord);
  older.manifest.appName = "Before the restore";
  older.token = newStagingToken();
  writeRecord(older, layout.previousRecord);
  const fs::path beforeRestore = folder / "before restore", beforeUndo = folder / "before undo";
  auto save = [&](const fs::path& copy) {
    fs::copy(layout.home, copy, fs::copy_options::recursive);
  };
  auto reset = [&](const fs::path& copy) {
    fs::remove_all(layout.home);
    fs::copy(copy, layout.home, fs::copy_options::recursive);
  };
  auto requestUndo = [&] {
    ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  };

  // The uninterrupted restore and undo that every interrupted one must end like.
  save(beforeRestore);
  const Tree pristine = state();
  ASSERT_EQ(launch().exitCode, 0);
  const Tree restored = state();
  if (scope != StowRestoreScope::settings) {
    for (const auto& [path, contents] : backup) {
      if (path.rfind("Documents/", 0) == 0 || scope == StowRestoreScope::everything) {
        EXPECT_EQ(readFile(layout.home / path), contents) << path;
      }
    }
    for (const auto& [path, contents] : original) {
      // A backup without caches leaves the app's own in place.
      if (path.rfind("Documents/", 0) == 0 ||
          (scope == StowRestoreScope::everything && path.rfind("Library/Caches/", 0) != 0)) {
        EXPECT_EQ(readFile(layout.previous / path), contents) << path;
      }
    }
  }
  requestUndo();
  save(beforeUndo);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree undone = state();
  EXPECT_EQ(movableFiles(layout.home), original);

  for (const auto& [name, before, after] :
       {std::tuple{"restore", beforeRestore, restored}, std::tuple{"undo", beforeUndo, undone}}) {
    int kills = 0;
    for (;; ++kills) {
      reset(before);
      auto killed = launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                            {"CORVELSTOW_KILL", "rename#" + std::to_string(kills + 1)}});
      if (killed.exitCode == 0) break;  // the launch needs fewer renames than this
      ASSERT_EQ(killed.exitCode, 128 + SIGKILL);
      auto again = launch();
      ASSERT_EQ(again.exitCode, 0) << again.err;
      EXPECT_EQ(state(), after) << name << " killed at rename " << kills + 1;
      if (std::string(name) == "restore") {  // and the undo after it still puts everything back
        requestUndo();
        ASSERT_EQ(launch().exitCode, 0);
        EXPECT_EQ(state(), undone) << "undo after a restore killed at rename " << kills + 1;
      }
    }
    std::cout << rawValue(scope) << ": " << name << " killed at each of its " << kills
              << " renames, then launched again\n";
  }
  reset(beforeRestore);
  EXPECT_EQ(state(), pristine);
}

// A swap that cannot start moves nothing: the outcome says why, the staged restore waits for a
// later launch, and no undo point appears that an undo could empty the app with.
TEST_F(LaunchTest, ASwapThatCannotStartMovesNothingAndWaits) {
  stage(StowRestoreScope::everything);
  const fs::path pristine = folder / "pristine", elsewhere = folder / "elsewhere";
  fs::copy(layout.home, pristine, fs::copy_options::recursive);
  testing::writeFile(elsewhere / "foreign.txt", "not the app's");
  auto linkTo = [&](const fs::path& place) {
    return [&, place] {
      fs::remove_all(place);
      fs::create_directory_symlink(elsewhere, place);
    };
  };
  struct Case {
    std::map<std::string, std::string> faults;
    std::function<void()> arrange;
    std::string message;
  };
  const Case cases[] = {
      {{{"CORVELSTOW_FAIL", "mkdir@Previous-new"}},
       {},
       "Nothing was moved: could not create Previous-new: No space left on device."},
      {{{"CORVELSTOW_FAIL", "mkdir@Previous-new/Library/Preferences"}},
       {},
       "Nothing was moved: could not create Previous-new/Library/Preferences: No space left on "
       "device."},
      {{{"CORVELSTOW_FAIL", "rename@swap.json"}},
       {},
       "Nothing was moved: could not write swap.json: Input/output error."},
      {{}, linkTo(layout.previous), "Nothing was moved: Library/CorvelStow/Previous is a link."},
      {{}, linkTo(layout.documents), "Nothing was moved: Documents is a link."},
  };
  for (const Case& c : cases) {
    fs::remove_all(layout.home);
    fs::copy(pristine, layout.home, fs::copy_options::recursive);
    if (c.arrange) c.arrange();
    Tree before = state();
    auto environment = c.faults;
    environment["LD_PRELOAD"] = CORVELSTOW_FAULT_SEAM;
    ASSERT_EQ(launch(environment).exitCode, 0);

    auto result = outcome();
    ASSERT_TRUE(result) << c.message;
    EXPECT_EQ(result->message, c.message);
    EXPECT_FALSE(result->succeeded || result->canUndo) << c.message;
    Tree after = state();
    after.erase("Library/CorvelStow/outcome.json");
    EXPECT_EQ(after, before) << c.message;
    EXPECT_EQ(readTree(elsewhere), (Tree{{"foreign.txt", "not the app's"}}));
    EXPECT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).err,
              "There is no restore to undo.\n");
  }
  // Once the disk has room again, the restore that waited is applied.
  fs::remove_all(layout.home);
  fs::copy(pristine, layout.home, fs::copy_options::recursive);
  launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM}, {"CORVELSTOW_FAIL", "mkdir@Previous-new"}});
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message, "Restored everything from Notes.");
  EXPECT_EQ(readFile(layout.previous / "Documents/old.txt"), "live old");

  // An undo that cannot start keeps its request, and a restore staged after it waits with it.
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  stage(StowRestoreScope::documents);
  Tree before = state();
  launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM}, {"CORVELSTOW_FAIL", "mkdir@Previous-new"}});
  EXPECT_EQ(outcome()->message,
            "Nothing was moved: could not create Previous-new: No space left on device.");
  EXPECT_EQ(outcome()->sourceName, "Before the restore");
  Tree after = state();
  after.erase("Library/CorvelStow/outcome.json");
  before.erase("Library/CorvelStow/outcome.json");
  EXPECT_EQ(after, before);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message, "Restored documents from Notes.");
  EXPECT_EQ(readFile(layout.previous / "Documents/old.txt"), "live old");  // the undo ran first
}

// A failure text that names a file whose name is not UTF-8 is still recorded, and the restore
// is not repeated at the next launch.
TEST_F(LaunchTest, AFailureNamingAFileThatIsNotUtf8IsRecordedOnce) {
  const std::string name = "caf\xe9";
  testing::writeFile(layout.documents / name, "live caf\xc3\xa9");
  stage(StowRestoreScope::documents);
  ASSERT_EQ(
      launch({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM}, {"CORVELSTOW_FAIL", "rename@" + name}}).exitCode,
      0);
  auto result = outcome();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->message, "Could not move aside caf\xef\xbf\xbd");
  expectStagingCleared();
  Tree documents = readTree(layout.documents);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readTree(layout.documents), documents);
  EXPECT_EQ(readFile(layout.documents / name), "live caf\xc3\xa9");
  // The undo knows it by its bytes, not by the text with U+FFFD, and leaves it live.
  ASSERT_EQ(testing::runCommand({"--home", layout.home.string(), "undo"}).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readFile(layout.documents / name), "live caf\xc3\xa9");
  EXPECT_EQ(readFile(layout.documents / "old.txt"), "live old");
}

// Two launches at once: the second waits for the first, or leaves the work to it when it takes
// longer; either way the restore is applied once and ends as a lone launch does.
TEST_F(LaunchTest, TwoLaunchesAtOnceApplyTheRestoreOnce) {
  stage(StowRestoreScope::everything);
  const fs::path pristine = folder / "pristine";
  fs::copy(layout.home, pristine, fs::copy_options::recursive);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree alone = state();

  for (const char* renameMilliseconds : {"10", "60"}) {  // the second waits; it gives up
    fs::remove_all(layout.home);
    fs::copy(pristine, layout.home, fs::copy_options::recursive);
    auto first = startLaunch(
        {{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM}, {"CORVELSTOW_SLOW_RENAMES", renameMilliseconds}});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto second = launch();
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_EQ(first->wait().exitCode, 0);
    EXPECT_EQ(state(), alone) << "renames of " << renameMilliseconds << " ms";
  }
}

}  // namespace
}  // namespace corvelstow
