#include "startup/swap.h"

#include <gtest/gtest.h>

#include "container_fixture.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;

class SwapTest : public testing::ContainerFixture {
 protected:
  // Applies the staged restore and gives the outcome it wrote.
  StowOutcome swap() {
    StowSwapResult result = performSwap(layout, kHostID, StowSwapKind::restore,
                                        *readRecord<StowStagedRestore>(layout.stagedRecord));
    EXPECT_TRUE(result == StowSwapResult::succeeded || result == StowSwapResult::failed);
    EXPECT_FALSE(fs::exists(layout.swapJournal));
    return readRecord<StowOutcome>(layout.outcomeRecord).value_or(StowOutcome{});
  }
  void TearDown() override { ::unsetenv("CORVELSTOW_FAIL"); }
};

TEST_F(SwapTest, EverythingReplacesDataAndSettingsAndKeepsWhatItReplaced) {
  stage(StowRestoreScope::everything);
  StowOutcome outcome = swap();

  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.message, "Restored everything from Notes.");
  EXPECT_EQ(outcome.sourceName, "Notes");
  EXPECT_EQ(outcome.sourceDate, *parseInternetDate("2024-05-01T09:30:00Z"));
  EXPECT_TRUE(outcome.canUndo);
  EXPECT_FALSE(outcome.announced);

  EXPECT_EQ(readTree(layout.documents),
            (std::map<std::string, std::string>{{"a.txt", "backup a"}, {"new.txt", "backup new"}}));
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "backup db");
  // The backup had no caches: the app's own stay, and are not kept in Previous.
  EXPECT_EQ(readFile(layout.library / "Caches/c.bin"), "live cache");
  EXPECT_FALSE(fs::exists(layout.previous / "Library/Caches"));
  // System folders are never moved, in either direction.
  EXPECT_EQ(readTree(layout.library / "SplashBoard"),
            (std::map<std::string, std::string>{{"s", "splash"}}));
  EXPECT_EQ(readFile(layout.library / "Saved Application State/st"), "state");

  // Settings go through the store: staged domains are installed, a live one absent from the
  // backup is removed, and the folder itself is never moved as files.
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "backup"));
  EXPECT_EQ(domainIn(layout.preferences / "group.shared.plist"), domain("g", "backup group"));
  EXPECT_FALSE(fs::exists(layout.preferences / "com.live.only.plist"));
  EXPECT_FALSE(fs::exists(layout.preferences / "notes.txt"));

  auto previous = readTree(layout.previous);
  EXPECT_EQ(previous["Documents/a.txt"], "live a");
  EXPECT_EQ(previous["Documents/old.txt"], "live old");
  EXPECT_EQ(previous["Documents/Folder/x.txt"], "live x");
  EXPECT_EQ(previous["Documents/.hidden"], "live hidden");
  EXPECT_EQ(previous["Library/Application Support/db"], "live db");
  EXPECT_EQ(domainIn(layout.previous / "Library/Preferences/com.example.notes.plist"),
            domain("theme", "live"));
  EXPECT_EQ(domainIn(layout.previous / "Library/Preferences/com.live.only.plist"),
            domain("k", "live only"));
  EXPECT_FALSE(fs::exists(layout.previousNew));
  // The staging is cleared, what was not moved in with it.
  EXPECT_FALSE(fs::exists(layout.staged));
  EXPECT_FALSE(fs::exists(layout.stagedRecord));

  auto kept = readRecord<StowStagedRestore>(layout.previousRecord);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->manifest.appName, "Before the restore");
  EXPECT_EQ(kept->manifest.bundleIdentifier, kHostID);
  EXPECT_EQ(kept->scope, StowRestoreScope::everything);
  EXPECT_EQ(kept->manifest.createdAt, outcome.sourceDate);
}

TEST_F(SwapTest, BackupCachesReplaceTheAppsCaches) {
  stage(StowRestoreScope::everything, kHostID, /*withCaches=*/true);
  swap();
  EXPECT_EQ(readTree(layout.library / "Caches"),
            (std::map<std::string, std::string>{{"c2.bin", "backup cache"}}));
  EXPECT_EQ(readFile(layout.previous / "Library/Caches/c.bin"), "live cache");
}

TEST_F(SwapTest, AnotherAppsDomainIsInstalledUnderThisAppsIdentifier) {
  stage(StowRestoreScope::settings, "com.other.app");
  swap();
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "backup"));
  EXPECT_FALSE(fs::exists(layout.preferences / "com.other.app.plist"));
  EXPECT_EQ(domainIn(layout.preferences / "group.shared.plist"), domain("g", "backup group"));
  EXPECT_FALSE(fs::exists(layout.preferences / "com.live.only.plist"));
  // Previous names this app, so that an undo installs its settings back under the same names.
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.previousRecord)->manifest.bundleIdentifier,
            kHostID);
}

// A move that fails leaves its entry where it was, and nothing is moved in over it: the live
// entry is never replaced, a settings domain never removed before its copy is kept.
TEST_F(SwapTest, FailedMovesAreReportedInOrderCappedAtThreeAndLoseNothing) {
  using Domains = std::map<std::string, PlistDictionary>;
  const std::string aside = "Previous-new/Library/Preferences/";
  const struct {
    StowRestoreScope scope;
    std::string failing;
    std::string message;
    Domains live;  // the settings afterwards
  } cases[] = {
      {StowRestoreScope::everything,
       "Previous-new/Documents/a.txt,Application Support",
       "Could not move aside a.txt. Could not put back a.txt. "
       "Could not move aside Application Support",
       {{"com.example.notes", domain("theme", "backup")},
        {"group.shared", domain("g", "backup group")}}},
      {StowRestoreScope::settings,
       aside + "com.example.notes.plist",
       "Could not move aside com.example.notes.plist. Could not put back com.example.notes.plist",
       {{"com.example.notes", domain("theme", "live")},
        {"group.shared", domain("g", "backup group")}}},
      {StowRestoreScope::settings,
       aside + "com.live.only.plist",
       "Could not move aside com.live.only.plist",
       {{"com.example.notes", domain("theme", "backup")},
        {"com.live.only", domain("k", "live only")},
        {"group.shared", domain("g", "backup group")}}},
  };
  const fs::path pristine = folder / "pristine";
  fs::copy(layout.home, pristine, fs::copy_options::recursive);
  for (const auto& c : cases) {
    fs::remove_all(layout.home);
    fs::copy(pristine, layout.home, fs::copy_options::recursive);
    stage(c.scope);
    const auto before = readTree(layout.home);
    ::setenv("CORVELSTOW_FAIL", ("rename@" + c.failing).c_str(), 1);
    StowOutcome outcome = swap();
    ::unsetenv("CORVELSTOW_FAIL");

    EXPECT_FALSE(outcome.succeeded);
    EXPECT_TRUE(outcome.canUndo);
    EXPECT_EQ(outcome.message, c.message);
    // Every live file is still live or kept in Previous.
    auto live = readTree(layout.home), previous = readTree(layout.previous);
    for (const auto& [path, contents] : before) {
      if (contents == "/" || path.rfind("Library/CorvelStow", 0) == 0) continue;
      EXPECT_TRUE(live[path] == contents || previous[path] == contents) << path;
    }
    Domains domains;
    for (const auto& name : files::listNames(layout.preferences)) {
      domains[name.substr(0, name.size() - 6)] = domainIn(layout.preferences / name);
    }
    EXPECT_EQ(domains, c.live) << c.failing;
  }
  EXPECT_EQ(readFile(layout.home / "Documents/old.txt"), "live old");
}

// Dates far before and after 1933 to 2069, and fractions before 2001, come through a settings
// restore exactly: in the store and in Previous. Python's plistlib reads them as written.
TEST_F(SwapTest, SettingsKeepEveryDate) {
  auto dates = [](double shift) {
    return PlistDictionary{{"year1", PlistValue{PlistDate{-63113904000 + shift}}},
                           {"1900", PlistValue{PlistDate{-3187296000.5 + shift}}},
                           {"beforeFraction", PlistValue{PlistDate{-0.25 + shift}}},
                           {"2100", PlistValue{PlistDate{3124137600.75 + shift}}},
                           {"distantFuture", PlistValue{PlistDate{63113904000 + shift}}}};
  };
  stage(StowRestoreScope::settings);
  writeDomain(layout.preferences / "com.example.notes.plist", dates(0));
  writeDomain(layout.staged / "Library/Preferences/com.example.notes.plist", dates(60));
  swap();
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), dates(60));
  EXPECT_EQ(domainIn(layout.previous / "Library/Preferences/com.example.notes.plist"), dates(0));

  auto read = testing::runProcess(
      {"python3", "-c",
       "import plistlib, sys\n"
       "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
       "print(d['year1'], d['beforeFraction'], d['distantFuture'])",
       (layout.previous / "Library/Preferences/com.example.notes.plist").string()});
  EXPECT_EQ(read.out, "0001-01-01 00:00:00 2000-12-31 23:59:59.750000 4001-01-01 00:00:00\n")
      << read.err;
}

// A previous.json without the Previous folder it describes undoes nothing: it would only empty
// the app.
TEST_F(SwapTest, AnUndoWithoutPreviousMovesNothing) {
  StowStagedRestore record;
  record.manifest.appName = "Before the restore";
  record.scope = StowRestoreScope::documents;
  writeRecord(record, layout.previousRecord);
  const auto documents = readTree(layout.documents);
  EXPECT_EQ(performUndo(layout, kHostID, record, false), StowSwapResult::failed);
  StowOutcome outcome = *readRecord<StowOutcome>(layout.outcomeRecord);
  EXPECT_EQ(outcome.message, "Nothing was put back: the data from before the restore is missing.");
  EXPECT_FALSE(outcome.canUndo);
  EXPECT_EQ(readTree(layout.documents), documents);
  EXPECT_FALSE(fs::exists(layout.previousRecord));
}

}  // namespace
}  // namespace corvelstow
