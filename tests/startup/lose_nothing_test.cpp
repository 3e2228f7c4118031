// Nothing the user has is lost, and the app is never stuck, when a file call fails, a record is
// damaged, the power goes or something is put in the way: real launches and commands, with the
// fault seam preloaded.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>

#include "base/files.h"
#include "container_fixture.h"

namespace corvelstow {
namespace {

using testing::Environment;
using testing::readFile;
using testing::readTree;
using testing::Tree;
using testing::writeFile;

constexpr const char* kKinds[] = {"rename", "unlink", "mkdir", "create", "write", "sync", "close"};

class LoseNothingTest : public testing::ContainerFixture {
 protected:
  // The app's data as the app sees it: every file of Documents and Library, settings included,
  // but the work folder.
  Tree appData() { return data(layout.home); }

  // How many calls of each kind `run` makes, given the seam's environment.
  std::map<std::string, int> callsOf(const std::function<void(const Environment&)>& run) {
    const fs::path counts = folder / "counts";
    run({{"CORVELSTOW_COUNTS", counts.string()}});
    std::map<std::string, int> calls;
    std::ifstream in(counts);
    std::string kind;
    for (int n = 0; in >> kind >> n;) calls[kind] = n;
    return calls;
  }

  // An undo as the user makes it: asked for, then the app opened; again while the outcome says
  // that something is still kept for another undo.
  void undo() {
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (!readPreviousRestore(layout)) return;
      ASSERT_EQ(command({"undo"}).exitCode, 0);
      ASSERT_EQ(launch().exitCode, 0);
      if (outcome() && (outcome()->succeeded || !outcome()->canUndo)) return;
    }
  }

  testing::ProcessResult restore(const fs::path& archive, Environment environment = {},
                                 StowRestoreScope scope = StowRestoreScope::everything) {
    return command(
        {"restore", archive.string(), "--scope", std::string(rawValue(scope)), "--threads", "1"},
        environment);
  }

  // What a power cut leaves of the files written and not synced since (the seam's list of
  // "DEVICE INODE" lines): on a file system that keeps its metadata in order but allocates late,
  // they may come back empty.
  void emptyUnsynced(const fs::path& list) {
    std::set<std::pair<unsigned long, unsigned long>> unsynced;
    std::ifstream in(list);
    for (unsigned long device = 0, inode = 0; in >> device >> inode;) {
      unsynced.insert({device, inode});
    }
    std::error_code error;
    for (fs::recursive_directory_iterator it(layout.home, error), end; !error && it != end;
         it.increment(error)) {
      struct stat info {};
      if (::lstat(it->path().c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
          unsynced.count({info.st_dev, info.st_ino})) {
        fs::resize_file(it->path(), 0);
      }
    }
  }
};

class LoseNothingScopeTest : public LoseNothingTest,
                             public ::testing::WithParamInterface<StowRestoreScope> {};

// Each file-changing call of a restore launch and of an undo launch fails once in turn (ENOSPC
// for writes, creates and folders; EIO for renames, removals, syncs and closes). Then the app is
// opened again, the user undoes (again, while the outcome says something is kept for another
// undo), and restores again: the undo is exact and the later restore applied.
TEST_P(LoseNothingScopeTest, EachFailingCallOfALaunchLosesNothing) {
  const StowRestoreScope scope = GetParam();
  stage(scope);
  const Tree original = appData();
  const fs::path beforeRestore = folder / "before restore", beforeUndo = folder / "before undo";
  save(beforeRestore);
  const auto restoreCalls = callsOf([&](const Environment& counting) { launch(counting); });
  const Tree restored = appData();
  ASSERT_EQ(command({"undo"}).exitCode, 0);
  save(beforeUndo);
  const auto undoCalls = callsOf([&](const Environment& counting) { launch(counting); });
  ASSERT_EQ(appData(), original);

  for (const auto& [operation, before, calls] : {std::tuple{"restore", beforeRestore, restoreCalls},
                                                 std::tuple{"undo", beforeUndo, undoCalls}}) {
    for (const char* kind : kKinds) {
      for (int n = 1; n <= calls.at(kind); ++n) {
        const std::string point = std::string(operation) + ", " + kind + "#" + std::to_string(n);
        reset(before);
        ASSERT_EQ(launch({{"CORVELSTOW_FAIL", point.substr(point.find(' ') + 1)}}).exitCode, 0);
        ASSERT_EQ(launch().exitCode, 0);
        undo();
        EXPECT_EQ(appData(), original) << point << " failing: the undo is not exact";
        stage(scope);
        ASSERT_EQ(launch().exitCode, 0);
        EXPECT_EQ(appData(), restored) << point << " failing: the later restore is not applied";
      }
    }
    std::cout << rawValue(scope) << ": a failing call at each point of the " << operation
              << " launch\n";
  }
}

// A power cut at each call of `restore` and of the launch that applies it: every file written
// and not synced since comes back empty. The next launch never says "Restored" over wrong data,
// and an undo is exact.
TEST_P(LoseNothingScopeTest, APowerCutAtAnyCallNeverRestoresWrongData) {
  const StowRestoreScope scope = GetParam();
  const fs::path archive = backupArchive(scope);
  const Tree original = appData();
  const fs::path pristine = folder / "pristine", staged = folder / "staged";
  save(pristine);
  ASSERT_EQ(restore(archive, {}, scope).exitCode, 0);
  save(staged);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree restored = appData();

  const fs::path unsynced = folder / "unsynced";
  for (const auto& [operation, before] :
       {std::pair{"restore", pristine}, std::pair{"launch", staged}}) {
    const int cuts = testing::killAtEach(
        "change",
        [&](Environment cut) {
          reset(before);
          cut["CORVELSTOW_UNSYNCED"] = unsynced.string();
          return std::string(operation) == "restore" ? restore(archive, cut, scope) : launch(cut);
        },
        [&](int n) {
          emptyUnsynced(unsynced);
          ASSERT_EQ(launch().exitCode, 0);
          if (outcome() && outcome()->succeeded) {
            EXPECT_EQ(appData(), restored) << operation << " cut at call " << n;
          }
          undo();
          EXPECT_EQ(appData(), original) << operation << " cut at call " << n;
        });
    std::cout << rawValue(scope) << ": " << operation << " cut at each of its " << cuts
              << " calls\n";
  }
}

INSTANTIATE_TEST_SUITE_P(Scopes, LoseNothingScopeTest,
                         ::testing::Values(StowRestoreScope::everything,
                                           StowRestoreScope::documents, StowRestoreScope::settings),
                         [](const auto& info) { return std::string(rawValue(info.param)); });

// Each record empty, cut short, garbage, of the wrong JSON type, a folder or a dangling link,
// where it matters: nothing is lost, an outcome or the command says what happened, and a
// restore works afterwards.
TEST_F(LoseNothingTest, ADamagedRecordLosesNothing) {
  const Tree original = appData();
  const fs::path pristine = folder / "pristine";
  save(pristine);
  stage(StowRestoreScope::everything);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree restored = appData();
  const auto restoreAgain = [&] {
    stage(StowRestoreScope::everything);
    ASSERT_EQ(launch().exitCode, 0);
  };
  const auto restoreCutShort = [&] {
    stage(StowRestoreScope::everything);
    launch({{"CORVELSTOW_KILL", "rename#8"}});
  };
  struct Case {
    fs::path record;
    std::function<void()> arrange;  // brings the container where the record matters
    bool askUndo;                   // then `corvelstow undo`, before the app opens again
    std::string message;            // what the outcome then begins with
  };
  const Case cases[] = {
      {layout.stagedRecord, [&] { stage(StowRestoreScope::everything); }, false,
       "The restore that was waiting could not be read (staged.json)"},
      {layout.swapJournal, restoreCutShort, false,
       "The last restore or undo was cut short and swap.json could not be read"},
      {layout.previousRecord, restoreAgain, true, "previous.json could not be read"},
      {layout.previous / "kept.json", restoreAgain, true, "Previous/kept.json could not be read"},
      {layout.outcomeRecord, restoreAgain, true, "Put back the data from before the restore."},
      {layout.settingsRecord, restoreAgain, true, "Put back the data from before the restore."},
      {layout.undoRequest, restoreAgain, false, "Put back the data from before the restore."},
  };
  const std::function<void(const fs::path&)> damages[] = {
      [](const fs::path& file) { writeFile(file, ""); },
      [](const fs::path& file) {
        std::string valid = readFile(file);
        writeFile(file, valid.substr(0, valid.size() / 2));
      },
      [](const fs::path& file) { writeFile(file, "\x01{garbage\xff"); },
      [](const fs::path& file) { writeFile(file, "[\"a record\", 1]"); },
      [](const fs::path& file) { writeFile(file / "inside", "a folder in its place"); },
      [](const fs::path& file) { fs::create_symlink("nowhere", file); },
  };
  for (const Case& c : cases) {
    for (size_t kind = 0; kind < std::size(damages); ++kind) {
      const std::string name = c.record.filename().string() + " damaged #" + std::to_string(kind);
      reset(pristine);
      c.arrange();
      if (kind != 1 && kind != 2) fs::remove_all(c.record);  // #1 and #2 overwrite it
      damages[kind](c.record);
      EXPECT_EQ(command({"status"}).exitCode, 0) << name;
      EXPECT_EQ(command({"greet"}).exitCode, 0) << name;
      if (c.askUndo) {
        ASSERT_EQ(command({"undo"}).exitCode, 0) << name;
      }
      ASSERT_EQ(launch().exitCode, 0) << name;
      ASSERT_TRUE(outcome()) << name;
      EXPECT_TRUE(outcome()->message.starts_with(c.message)) << name << ": " << outcome()->message;
      undo();
      // Nothing lost: every file from before the restore is back.
      const Tree now = appData();
      for (const auto& [path, contents] : original) {
        EXPECT_TRUE(now.count(path) && now.at(path) == contents) << name << ": " << path;
      }
      stage(StowRestoreScope::everything);
      ASSERT_EQ(launch().exitCode, 0) << name;
      EXPECT_EQ(appData(), restored) << name << ": " << outcome()->message;
      EXPECT_FALSE(fs::exists(layout.undoRequest)) << name;  // it would undo the next restore
    }
  }
}

// What a command refuses, and what a failed one leaves: backup and restore wait for a swap cut
// short (a backup would archive half-swapped data and drop the last good export); a restore
// waits while Previous holds what an undo could not put back; a failed restore keeps the restore
// staged before it, which the next launch applies.
TEST_F(LoseNothingTest, CommandsWaitForUnfinishedWorkAndKeepWhatIsThere) {
  const fs::path archive = backupArchive(StowRestoreScope::everything);
  const fs::path damaged = folder / "damaged.corvelappdata";
  writeFile(damaged, "not a zip archive");
  const Tree original = appData();
  const fs::path pristine = folder / "pristine";
  save(pristine);
  const std::string swapUnfinished =
      "The last restore or undo has not finished yet: it finishes the next time the app opens.";
  const auto cutShort = [&] {
    ASSERT_EQ(restore(archive).exitCode, 0);
    launch({{"CORVELSTOW_KILL", "rename#4"}});
  };
  const auto undoKeepingOne = [&] {
    ASSERT_EQ(restore(archive).exitCode, 0);
    ASSERT_EQ(launch().exitCode, 0);
    ASSERT_EQ(command({"undo"}).exitCode, 0);
    launch({{"CORVELSTOW_FAIL", "rename@Previous/Documents/a.txt"}});
  };
  struct Case {
    std::string name;
    std::function<void()> arrange;
    std::vector<std::string> arguments;
    std::string error;  // the command's last line on stderr
    Environment faults = {};
  };
  const Case cases[] = {
      {"backup after a swap cut short", cutShort, {"backup"}, swapUnfinished},
      {"restore after a swap cut short", cutShort, {"restore", archive.string()}, swapUnfinished},
      {"restore after an undo that kept a.txt",
       undoKeepingOne,
       {"restore", archive.string()},
       "The last undo could not put everything back: undo again before restoring."},
      {"a damaged restore after a good one",
       [&] { ASSERT_EQ(restore(archive).exitCode, 0); },
       {"restore", damaged.string()},
       "That file is not a zip archive."},
      {"a restore that cannot write staged.json, after a good one",
       [&] { ASSERT_EQ(restore(archive).exitCode, 0); },
       {"restore", archive.string()},
       "Could not write staged.json: Input/output error.",
       {{"CORVELSTOW_FAIL", "rename@staged.json"}}},
  };
  for (const Case& c : cases) {
    reset(pristine);
    fs::remove_all(folder / "tmp");
    ASSERT_EQ(command({"backup"}).exitCode, 0);  // the last good export
    const Tree exported = readTree(folder / "tmp");
    c.arrange();
    const Tree work = state();
    auto refused = command(c.arguments, c.faults);
    EXPECT_EQ(refused.exitCode, 1) << c.name;
    EXPECT_TRUE(refused.err.ends_with(c.error + "\n")) << c.name << ": " << refused.err;
    EXPECT_EQ(readTree(folder / "tmp"), exported) << c.name;
    EXPECT_EQ(state(), work) << c.name;
    // What waits is finished, and nothing is lost.
    ASSERT_EQ(launch().exitCode, 0);
    undo();
    EXPECT_EQ(appData(), original) << c.name << ": " << outcome()->message;
  }
}

// A link put in the place of a folder while a launch or a restore works is never crossed:
// nothing of the container goes out, nothing from outside comes in, nothing is lost.
TEST_F(LoseNothingTest, ALinkPutInTheWayIsNeverCrossed) {
  writeFile(layout.documents / "Notes/first.txt", "live first");
  const fs::path archive = backupArchive(StowRestoreScope::everything);
  const Tree original = appData();
  const fs::path pristine = folder / "pristine", elsewhere = folder / "elsewhere";
  save(pristine);
  struct Case {
    std::string name;
    fs::path replaced;  // becomes a link to `elsewhere` just before the call
    std::string call;
    bool staged;  // the restore is staged first, and the launch is where the link comes
  };
  const Case cases[] = {
      {"live Documents during the swap", layout.documents, "rename#3", true},
      {"Staged/Documents during the swap", layout.staged / "Documents", "rename#8", true},
      {"Staged-new/Documents during the restore", layout.stagedNew / "Documents", "create#4",
       false},
  };
  for (const Case& c : cases) {
    reset(pristine);
    fs::remove_all(elsewhere);
    writeFile(elsewhere / "foreign.txt", "not the app's");
    const Environment relink{{"CORVELSTOW_CHANGE_AT", c.call},
                             {"CORVELSTOW_CHANGE", "relink"},
                             {"CORVELSTOW_CHANGE_PATH", c.replaced.string()},
                             {"CORVELSTOW_CHANGE_TO", elsewhere.string()}};
    if (c.staged) {
      ASSERT_EQ(restore(archive).exitCode, 0);
      ASSERT_EQ(launch(relink).exitCode, 0);
    } else {
      restore(archive, relink);
    }
    ASSERT_EQ(launch().exitCode, 0);
    EXPECT_EQ(readTree(elsewhere), (Tree{{"foreign.txt", "not the app's"}})) << c.name;
    for (const auto& [path, contents] : readTree(layout.home)) {
      EXPECT_NE(contents, "not the app's") << c.name << ": " << path;
    }
    // Every file from before is live, under its name or the one the link pushed it to, or
    // kept in Previous, where an undo finds it once the link is gone.
    undo();
    std::multiset<std::string> kept;
    for (const Tree& tree : {appData(), data(layout.previous)}) {
      for (const auto& [place, contents] : tree) kept.insert(contents);
    }
    for (const auto& [path, contents] : original) {
      EXPECT_TRUE(kept.count(contents)) << c.name << ": " << path;
    }
  }
}

// Names as long as a file system takes them, and paths longer than any path call takes, restore
// and undo: a settings domain whose name fills the limit, a document's, and a file 20 folders of
// 250-byte names deep, through the real backup and restore.
TEST_F(LoseNothingTest, NamesAtTheLimitsRestore) {
  const std::string longDomain(249, 'd');  // "{domain}.plist" is 255 bytes
  writeDomain(layout.preferences / (longDomain + ".plist"), domain("k", "long"));
  writeFile(layout.documents / std::string(255, 'n'), "a long name");
  // The deep file is made and read one folder at a time: its path is longer than PATH_MAX.
  const std::string piece(250, 'f');
  const auto deep = [&](bool create) {
    UniqueFd at = files::openFolder(layout.documents);
    for (int level = 0; level < 20 && at; ++level) {
      at = create ? files::makeFolder(at.get(), piece) : files::openFolder(at.get(), piece);
    }
    if (create) {
      EXPECT_TRUE(files::writeAtomically(at.get(), "deep.txt", "deep down"));
    }
    return at ? files::readWhole(at.get(), "deep.txt").value_or("") : "";
  };
  deep(true);
  auto backup = command({"backup"});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  const fs::path archive = backup.out.substr(0, backup.out.size() - 1);
  fs::remove_all(layout.documents);
  fs::remove(layout.preferences / (longDomain + ".plist"));
  auto restored = restore(archive);
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  // The app that opens is one that looks at no file: the example host walks by whole paths.
  const auto openApp = [&] { ASSERT_EQ(command({"run", "--", "/bin/true"}).exitCode, 0); };
  openApp();
  EXPECT_TRUE(outcome()->succeeded) << outcome()->message;
  EXPECT_EQ(deep(false), "deep down");
  EXPECT_EQ(readFile(layout.documents / std::string(255, 'n')), "a long name");
  EXPECT_EQ(domainIn(layout.preferences / (longDomain + ".plist")), domain("k", "long"));

  // A restore that replaces it sets the long domain aside, and its undo puts it back.
  stage(StowRestoreScope::settings);
  openApp();
  EXPECT_TRUE(outcome()->succeeded) << outcome()->message;
  EXPECT_FALSE(fs::exists(layout.preferences / (longDomain + ".plist")));
  ASSERT_EQ(command({"undo"}).exitCode, 0);
  openApp();
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  EXPECT_EQ(domainIn(layout.preferences / (longDomain + ".plist")), domain("k", "long"));
}

// Leftovers are trash, never a wall, and the launch only renames: a Previous-new left by an
// undo, a staging killed half-way, the data set a second restore replaces all go to the trash,
// which the next command empties. A journal that cannot be rewritten takes the swap back.
TEST_F(LoseNothingTest, LeftoversGoToTheTrashAndTheNextCommandEmptiesIt) {
  for (int i = 0; i < 300; ++i) writeFile(layout.documents / "many" / std::to_string(i), "x");
  const fs::path archive = backupArchive(StowRestoreScope::everything);
  ASSERT_EQ(restore(archive).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  const Tree restored = appData();
  const auto trash = [&] { return readTree(layout.trash); };

  // A second restore over the first: the launch renames, and removes nothing but its scratch;
  // the data set it replaces (with the 300 files) waits in the trash for the next command.
  ASSERT_EQ(restore(archive).exitCode, 0);
  EXPECT_TRUE(trash().empty());
  const auto calls = callsOf([&](const Environment& counting) { launch(counting); });
  EXPECT_LE(calls.at("unlink"), 2);
  EXPECT_GE(trash().size(), 300u);
  ASSERT_EQ(command({"status"}).exitCode, 0);
  EXPECT_TRUE(trash().empty());

  // What an undo could not discard stays in Previous-new; the next undo goes on.
  writeFile(layout.previousNew / "Documents/left.txt", "left by an undo");
  ASSERT_EQ(command({"undo"}).exitCode, 0);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message, "Put back the data from before the restore.");
  EXPECT_EQ(appData(), restored);

  // A restore killed half-way leaves its Staged-new, which the next command clears.
  restore(archive, {{"CORVELSTOW_KILL", "create#6"}});
  EXPECT_TRUE(fs::exists(layout.stagedNew));
  EXPECT_FALSE(fs::exists(layout.stagedRecord));
  ASSERT_EQ(command({"status"}).exitCode, 0);
  EXPECT_FALSE(fs::exists(layout.stagedNew));
  EXPECT_TRUE(trash().empty());

  // The journal cannot be rewritten, even with the room kept for it: the swap is taken back,
  // says so, and the restore waits for the next launch.
  ASSERT_EQ(restore(archive).exitCode, 0);
  launch({{"CORVELSTOW_FAIL", "rename@swap.json#2;rename@swap.json#3"}});
  EXPECT_EQ(outcome()->message,
            "Nothing was changed: the restore was taken back, as swap.json could not be "
            "written: Input/output error.");
  EXPECT_EQ(appData(), restored);
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(outcome()->message, "Restored everything from Notes.");
  EXPECT_EQ(appData(), restored);
}

}  // namespace
}  // namespace corvelstow
