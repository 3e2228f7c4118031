// The launch-time work in real processes: the example host started through `corvelstow run`,
// with the library preloaded as an app that carries it is opened on a device.

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <tuple>

#include "container_fixture.h"
#include "store/container_lock.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;
using testing::Tree;
using Scope = StowRestoreScope;

Tree operator+(Tree a, const Tree& b) {
  for (const auto& [path, contents] : b) a[path] = contents;
  return a;
}

// The fixture's container and its staged backup, by part, as data() shows them.
const Tree kLiveA{{"Documents/a.txt", "live a"}};
const Tree kLiveRest{{"Documents/old.txt", "live old"},
                     {"Documents/Folder/x.txt", "live x"},
                     {"Documents/.hidden", "live hidden"}};
const Tree kLiveDocuments = kLiveA + kLiveRest;
const Tree kLiveDb{{"Library/Application Support/db", "live db"}};
const Tree kLiveCaches{{"Library/Caches/c.bin", "live cache"}};
const Tree kSystem{{"Library/SplashBoard/s", "splash"},
                   {"Library/Saved Application State/st", "state"}};
const Tree kLiveNotes{{"Library/Preferences/com.example.notes.plist", "theme=live\n"}};
const Tree kLiveOnly{{"Library/Preferences/com.live.only.plist", "k=live only\n"}};
const Tree kBackupDocuments{{"Documents/a.txt", "backup a"}, {"Documents/new.txt", "backup new"}};
const Tree kBackupDb{{"Library/Application Support/db", "backup db"}};
const Tree kBackupSettings{{"Library/Preferences/com.example.notes.plist", "theme=backup\n"},
                           {"Library/Preferences/group.shared.plist", "g=backup group\n"}};
// What a restore of everything keeps in Previous.
const Tree kKeptByEverything = kLiveDocuments + kLiveDb + kLiveNotes + kLiveOnly;

class LaunchTest : public testing::ContainerFixture {
 protected:
  void expectStagingCleared() {
    EXPECT_FALSE(fs::exists(layout.staged));
    EXPECT_FALSE(fs::exists(layout.stagedRecord));
    EXPECT_FALSE(fs::exists(layout.previousNew));
  }
  testing::ProcessResult undoRequest() { return command({"undo"}); }
};

// Each scope replaces its part alone, before the host runs, and keeps what it replaced in
// Previous; settings go through the store (staged domains installed, one under this app's
// identifier, a live one absent from the backup removed); system folders never move; the app's
// caches stay unless the backup has some. A move that fails leaves its entry where it was and
// moves nothing in over it; the failures are told in order, three at most.
TEST_F(LaunchTest, AppliesTheStagedRestoreBeforeTheHostRuns) {
  struct Row {
    Scope scope;
    std::string source, failing;  // the backup's app; the renames that fail
    bool caches;
    std::string message;
    Tree live, previous;
  };
  const std::string aside = "Previous-new/Library/Preferences/";
  const Row rows[] = {
      {Scope::everything, kHostID, "", false, "Restored everything from Notes.",
       kBackupDocuments + kBackupDb + kLiveCaches + kSystem + kBackupSettings, kKeptByEverything},
      {Scope::everything, kHostID, "", true, "Restored everything from Notes.",
       kBackupDocuments + kBackupDb + Tree{{"Library/Caches/c2.bin", "backup cache"}} + kSystem +
           kBackupSettings,
       kKeptByEverything + kLiveCaches},
      {Scope::documents, kHostID, "", false, "Restored documents from Notes.",
       kBackupDocuments + kLiveDb + kLiveCaches + kSystem + kLiveNotes + kLiveOnly, kLiveDocuments},
      {Scope::settings, "com.other.app", "", false, "Restored settings from Notes.",
       kLiveDocuments + kLiveDb + kLiveCaches + kSystem + kBackupSettings, kLiveNotes + kLiveOnly},
      {Scope::everything, kHostID, "Previous-new/Documents/a.txt,Application Support", false,
       "Could not move aside a.txt. Could not put back a.txt. Could not move aside Application "
       "Support",
       kBackupDocuments + kLiveA + kLiveDb + kLiveCaches + kSystem + kBackupSettings,
       kLiveRest + kLiveNotes + kLiveOnly},
      {Scope::settings, kHostID, aside + "com.example.notes.plist", false,
       "Could not move aside com.example.notes.plist. Could not put back com.example.notes.plist",
       kLiveDocuments + kLiveDb + kLiveCaches + kSystem + kBackupSettings + kLiveNotes, kLiveOnly},
      {Scope::settings, kHostID, aside + "com.live.only.plist", false,
       "Could not move aside com.live.only.plist",
       kLiveDocuments + kLiveDb + kLiveCaches + kSystem + kBackupSettings + kLiveOnly, kLiveNotes},
  };
  const fs::path pristine = folder / "pristine";
  save(pristine);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    reset(pristine);
    stage(row.scope, row.source, row.caches);
    auto run = launch(row.failing.empty()
                          ? testing::Environment{}
                          : testing::Environment{{"CORVELSTOW_FAIL", "rename@" + row.failing}});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // The host already sees the restored data, and its own children do not load the library.
    EXPECT_EQ(run.out.find("(LD_PRELOAD unset)") != std::string::npos, row.failing.empty());
    EXPECT_EQ(run.out.find("\nDocuments/new.txt 10") != std::string::npos,
              row.live.contains("Documents/new.txt"));
    EXPECT_EQ(data(layout.home), row.live);
    EXPECT_EQ(data(layout.previous), row.previous);
    const StowOutcome result = *outcome();
    EXPECT_EQ(result.message, row.message);
    EXPECT_EQ(result.succeeded, row.failing.empty());
    EXPECT_EQ(std::tuple(result.sourceName, result.sourceDate, result.canUndo, result.announced),
              std::tuple("Notes", *parseInternetDate("2024-05-01T09:30:00Z"), true, false));
    auto kept = *readRecord<StowStagedRestore>(layout.previousRecord);
    EXPECT_EQ(std::tuple(kept.manifest.appName, kept.manifest.bundleIdentifier, kept.scope),
              std::tuple("Before the restore", kHostID, row.scope));
    expectStagingCleared();
  }
}

// Dates far before and after 1933 to 2069, and fractions before 2001, come through a settings
// restore exactly: in the store and in Previous. Python's plistlib reads them as written.
TEST_F(LaunchTest, SettingsKeepEveryDate) {
  auto dates = [](double shift) {
    return PlistDictionary{{"year1", PlistValue{PlistDate{-63113904000 + shift}}},
                           {"1900", PlistValue{PlistDate{-3187296000.5 + shift}}},
                           {"beforeFraction", PlistValue{PlistDate{-0.25 + shift}}},
                           {"2100", PlistValue{PlistDate{3124137600.75 + shift}}},
                           {"distantFuture", PlistValue{PlistDate{63113904000 + shift}}}};
  };
  stage(Scope::settings);
  writeDomain(layout.preferences / "com.example.notes.plist", dates(0));
  writeDomain(layout.staged / "Library/Preferences/com.example.notes.plist", dates(60));
  ASSERT_EQ(launch().exitCode, 0);
  const fs::path kept = layout.previous / "Library/Preferences/com.example.notes.plist";
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), dates(60));
  EXPECT_EQ(domainIn(kept), dates(0));
  auto read = testing::runProcess({"python3", "-c",
                                   "import plistlib, sys\n"
                                   "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
                                   "print(d['year1'], d['beforeFraction'], d['distantFuture'])",
                                   kept.string()});
  EXPECT_EQ(read.out, "0001-01-01 00:00:00 2000-12-31 23:59:59.750000 4001-01-01 00:00:00\n")
      << read.err;
}

// A launch with nothing it may do changes nothing: nothing pending, no container named, the
// files not readable yet (before the device's first unlock), or a swap that cannot start. A swap
// that cannot start says why, and no undo point appears that an undo could empty the app with;
// the restore (and an undo before it) waits for a later launch.
TEST_F(LaunchTest, ALaunchThatCannotWorkChangesNothing) {
  const fs::path elsewhere = folder / "elsewhere";
  testing::writeFile(elsewhere / "foreign.txt", "not the app's");
  const auto linkTo = [&](const fs::path& place) {
    return [&, place] {
      fs::remove_all(place);
      fs::create_directories(place.parent_path());
      fs::create_directory_symlink(elsewhere, place);
    };
  };
  const auto withUndoWaiting = [&] {
    stage(Scope::everything);
    ASSERT_EQ(launch().exitCode, 0);
    ASSERT_EQ(undoRequest().exitCode, 0);
  };
  const auto withoutContainer = [&] {
    return testing::runProcess({"/bin/true"}, {{"LD_PRELOAD", CORVELSTOW_LIBRARY_FILE},
                                               {"CORVELSTOW_HOME", ""},
                                               {"HOME", layout.home.string()}});
  };
  const std::string noSpace = "No space left on device.";
  struct Row {
    std::function<void()> arrange;
    std::string fail, message;  // the fault seam's rule; the outcome's message
    bool staged = true;
    std::string lockedFolder = {};
    std::function<testing::ProcessResult()> run = {};
  };
  const Row rows[] = {
      {[] {}, "", "", false},
      {[] {}, "", "", true, "", withoutContainer},
      {withUndoWaiting, "", "", true, layout.home.string()},
      {[] {}, "mkdir@Previous-new", "Nothing was moved: could not create Previous-new: " + noSpace},
      {withUndoWaiting, "mkdir@Previous-new",
       "Nothing was moved: could not create Previous-new: " + noSpace},
      {[] {}, "mkdir@Previous-new/Library/Preferences",
       "Nothing was moved: could not create Previous-new/Library/Preferences: " + noSpace},
      {[] {}, "rename@swap.json",
       "Nothing was moved: could not write swap.json: Input/output error."},
      {linkTo(layout.previous), "", "Nothing was moved: Library/CorvelStow/Previous is a link."},
      {linkTo(layout.documents), "", "Nothing was moved: Documents is a link."},
  };
  const fs::path pristine = folder / "pristine";
  save(pristine);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fail + row.message);
    reset(pristine);
    row.arrange();
    if (row.staged) stage(Scope::everything);
    Tree before = state();
    const std::optional<StowOutcome> earlier = outcome();
    auto run = row.run ? row.run()
                       : launch({{"CORVELSTOW_FAIL", row.fail},
                                 {"CORVELSTOW_LOCKED_FOLDER", row.lockedFolder}});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    Tree after = state();
    if (row.message.empty()) {
      EXPECT_EQ(outcome(), earlier);
    } else {
      EXPECT_EQ(outcome()->message, row.message);
      EXPECT_FALSE(outcome()->succeeded);
      if (!fs::exists(layout.undoRequest)) {
        EXPECT_FALSE(outcome()->canUndo);
        EXPECT_EQ(undoRequest().err, "There is no restore to undo.\n");
      }
    }
    before.erase("Library/CorvelStow/outcome.json");
    after.erase("Library/CorvelStow/outcome.json");
    EXPECT_EQ(after, before);
    EXPECT_EQ(readTree(elsewhere), (Tree{{"foreign.txt", "not the app's"}}));
    // Once the files can be read, or the disk has room again, what waited is done: the undo,
    // then the restore.
    if (!row.staged || row.run) continue;
    if (fs::is_symlink(layout.documents) || fs::is_symlink(layout.previous)) continue;
    ASSERT_EQ(launch().exitCode, 0);
    EXPECT_EQ(outcome()->message, "Restored everything from Notes.");
    EXPECT_EQ(data(layout.previous), kKeptByEverything);  // the undo ran first
  }
}

TEST_F(LaunchTest, UndoPutsTheDataBackAtTheNextLaunch) {
  const Tree original = data(layout.home);
  stage(Scope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  ASSERT_EQ(undoRequest().exitCode, 0);
  EXPECT_TRUE(fs::exists(layout.undoRequest));
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(data(layout.home), original);
  auto result = outcome();
  EXPECT_EQ(std::tuple(result->message, result->sourceName, result->canUndo),
            std::tuple("Put back the data from before the restore.", "Before the restore", false));
  EXPECT_FALSE(fs::exists(layout.previous));
  EXPECT_FALSE(fs::exists(layout.previousRecord));
  EXPECT_FALSE(fs::exists(layout.undoRequest));

  // With nothing left to undo, the command says so and the marker alone does nothing.
  EXPECT_EQ(undoRequest().err, "There is no restore to undo.\n");
  testing::writeFile(layout.undoRequest, "");
  fs::remove(layout.outcomeRecord);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_FALSE(fs::exists(layout.undoRequest));
  EXPECT_FALSE(outcome());

  // A previous.json without the Previous folder it describes undoes nothing: it would only empty
  // the app.
  StowStagedRestore record;
  record.manifest.appName = "Before the restore";
  record.scope = Scope::documents;
  writeRecord(record, layout.previousRecord);
  ASSERT_EQ(undoRequest().exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message,
            "Nothing was put back: the data from before the restore is missing.");
  EXPECT_FALSE(outcome()->canUndo);
  EXPECT_EQ(data(layout.home), original);
  EXPECT_FALSE(fs::exists(layout.previousRecord));
}

// What a restore could not set aside stays live as the user's own, and its undo leaves it so.
// An undo that could not put everything back keeps the rest, and previous.json, for another
// undo, which puts back just that: what the app wrote in between stays.
TEST_F(LaunchTest, NoUndoDiscardsWhatARestoreOrAnUndoCouldNotMove) {
  const Tree documents = readTree(layout.documents);
  testing::writeFile(layout.preferences / "com.broken.plist", "not a property list");
  stage(Scope::everything);
  const std::string onlyAside = "Previous-new/Library/Preferences/com.live.only.plist";
  ASSERT_EQ(launch({{"CORVELSTOW_FAIL", "rename@old.txt," + onlyAside}}).exitCode, 0);
  // A settings file that is no property list is set aside as the file it is.
  EXPECT_EQ(outcome()->message,
            "Could not move aside old.txt. Could not move aside com.live.only.plist");
  EXPECT_EQ(readFile(layout.previous / "Library/Preferences/com.broken.plist"),
            "not a property list");
  EXPECT_TRUE(outcome()->canUndo);
  testing::writeFile(layout.documents / "old.txt", "newer old");
  writeDomain(layout.preferences / "com.live.only.plist", domain("k", "newer"));
  ASSERT_EQ(undoRequest().exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  Tree expected = documents;
  expected["old.txt"] = "newer old";
  EXPECT_EQ(readTree(layout.documents), expected);
  EXPECT_EQ(domainIn(layout.preferences / "com.live.only.plist"), domain("k", "newer"));
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "live"));
  EXPECT_EQ(readFile(layout.preferences / "com.broken.plist"), "not a property list");
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  fs::remove(layout.preferences / "com.broken.plist");

  // An undo that cannot put everything back is told; a restore staged after it waits while
  // Previous holds what the undo kept.
  stage(Scope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  ASSERT_EQ(undoRequest().exitCode, 0);
  ASSERT_EQ(launch({{"CORVELSTOW_FAIL", "rename@Documents/a.txt"}}).exitCode, 0);
  EXPECT_EQ(outcome()->message, "Could not move aside a.txt. Could not put back a.txt");
  EXPECT_TRUE(outcome()->canUndo);
  EXPECT_EQ(readFile(layout.previous / "Documents/a.txt"), "live a");
  testing::writeFile(layout.documents / "later.txt", "written after the undo");
  stage(Scope::documents);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_TRUE(fs::exists(layout.stagedRecord));
  fs::remove_all(layout.staged);
  fs::remove(layout.stagedRecord);
  ASSERT_EQ(undoRequest().exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  expected["later.txt"] = "written after the undo";
  EXPECT_EQ(readTree(layout.documents), expected);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  EXPECT_FALSE(fs::exists(layout.previous));
}

// A failure text that names a file whose name is not UTF-8 is still recorded, and the restore
// is not repeated at the next launch; the undo knows the file by its bytes and leaves it live.
TEST_F(LaunchTest, AFailureNamingAFileThatIsNotUtf8IsRecordedOnce) {
  const std::string name = "caf\xe9";
  testing::writeFile(layout.documents / name, "live caf\xc3\xa9");
  stage(Scope::documents);
  ASSERT_EQ(launch({{"CORVELSTOW_FAIL", "rename@" + name}}).exitCode, 0);
  EXPECT_EQ(outcome()->message, "Could not move aside caf\xef\xbf\xbd");
  expectStagingCleared();
  const Tree documents = readTree(layout.documents);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readTree(layout.documents), documents);
  ASSERT_EQ(undoRequest().exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readFile(layout.documents / name), "live caf\xc3\xa9");
  EXPECT_EQ(readFile(layout.documents / "old.txt"), "live old");
}

// A launch killed at each rename in turn (of the swap, its journal, its records and settings),
// then launched again, ends exactly as a launch that was never killed; the undo after it still
// puts everything back. Likewise for the launch that performs an undo.
class LaunchKillTest : public LaunchTest, public ::testing::WithParamInterface<Scope> {};

TEST_P(LaunchKillTest, ALaunchKilledAtAnyRenameIsFinishedByTheNext) {
  stage(GetParam());
  // What an older restore kept, which this one replaces.
  testing::writeFile(layout.previous / "Documents/older.txt", "kept by an older restore");
  StowStagedRestore older = *readRecord<StowStagedRestore>(layout.stagedRecord);
  older.manifest.appName = "Before the restore";
  older.token = newStagingToken();
  writeRecord(older, layout.previousRecord);
  const fs::path beforeRestore = folder / "before restore", beforeUndo = folder / "before undo";
  const Tree original = data(layout.home);
  save(beforeRestore);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree restored = state();
  ASSERT_EQ(undoRequest().exitCode, 0);
  save(beforeUndo);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree undone = state();
  EXPECT_EQ(data(layout.home), original);

  for (const auto& [name, before, after] :
       {std::tuple{"restore", beforeRestore, restored}, std::tuple{"undo", beforeUndo, undone}}) {
    const int kills = testing::killAtEach(
        "rename",
        [&](const testing::Environment& kill) {
          reset(before);
          return launch(kill);
        },
        [&](int n) {
          ASSERT_EQ(launch().exitCode, 0);
          EXPECT_EQ(state(), after) << name << " killed at rename " << n;
          if (std::string(name) == "undo") return;
          ASSERT_EQ(undoRequest().exitCode, 0);
          ASSERT_EQ(launch().exitCode, 0);
          EXPECT_EQ(state(), undone) << "undo after a restore killed at rename " << n;
        });
    EXPECT_GT(kills, 3);
    std::cout << rawValue(GetParam()) << ": " << name << " killed at each of its " << kills
              << " renames, then launched again\n";
  }
}

INSTANTIATE_TEST_SUITE_P(Scopes, LaunchKillTest,
                         ::testing::Values(Scope::everything, Scope::documents, Scope::settings),
                         [](const auto& info) { return std::string(rawValue(info.param)); });

// One operation at a time on a container: while another holds it, a backup and a restore wait
// and then say so, and a launch leaves its work for later; one that finds it busy at first
// waits and goes on.
TEST_F(LaunchTest, BackupRestoreAndLaunchWaitForEachOther) {
  ASSERT_EQ(command({"backup"}).exitCode, 0);
  const std::string archive = fs::directory_iterator(layout.exports)->path().string();
  stage(Scope::everything);
  const Tree before = state();
  const auto busyOnce = testing::Environment{{"CORVELSTOW_FAIL", "lock#1"}};
  {
    auto held = StowContainerLock::acquire(layout);
    for (const auto& arguments :
         {std::vector<std::string>{"backup"}, std::vector<std::string>{"restore", archive}}) {
      auto refused = command(arguments);
      EXPECT_EQ(refused.exitCode, 1) << arguments[0];
      EXPECT_TRUE(refused.err.ends_with(std::string(StowContainerLock::kBusyText) + "\n"))
          << refused.err;
    }
    ASSERT_EQ(launch().exitCode, 0);
    EXPECT_EQ(state(), before);
  }
  ASSERT_EQ(launch(busyOnce).exitCode, 0);
  EXPECT_EQ(outcome()->message, "Restored everything from Notes.");
  EXPECT_EQ(command({"restore", archive}, busyOnce).exitCode, 0);
  EXPECT_EQ(command({"backup"}, busyOnce).exitCode, 0);
}

}  // namespace
}  // namespace corvelstow
