#include "startup/swap.h"

#include <gtest/gtest.h>

#include "container_fixture.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;

class SwapTest : public testing::ContainerFixture {
 protected:
  StowOutcome swap(bool retain = true) {
    return performSwap(layout, kHostID, *readRecord<StowStagedRestore>(layout.stagedRecord),
                       layout.staged, retain);
  }
  void TearDown() override { ::unsetenv("CORVELSTOW_FAIL_RENAMES"); }
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
  EXPECT_EQ(readTree(layout.library / "SplashBoard"), (std::map<std::string, std::string>{{"s", "splash"}}));
  EXPECT_EQ(readFile(layout.library / "Saved Application State/st"), "state");
  EXPECT_TRUE(fs::exists(layout.staged / "Library/SplashBoard/s2"));

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

TEST_F(SwapTest, DocumentsAndSettingsScopesTouchOnlyTheirPart) {
  auto libraryWithoutWorkFolder = [&] {
    auto tree = readTree(layout.library);
    std::erase_if(tree, [](const auto& entry) { return entry.first.rfind("CorvelStow", 0) == 0; });
    return tree;
  };
  auto library = libraryWithoutWorkFolder();
  stage(StowRestoreScope::documents);
  EXPECT_EQ(swap().message, "Restored documents from Notes.");
  EXPECT_EQ(readFile(layout.documents / "new.txt"), "backup new");
  EXPECT_EQ(libraryWithoutWorkFolder(), library);  // Library, Preferences and all
  EXPECT_EQ(readTree(layout.previous / "Library"), (std::map<std::string, std::string>{}));

  auto documents = readTree(layout.documents);
  fs::remove_all(layout.staged);
  stage(StowRestoreScope::settings);
  EXPECT_EQ(swap().message, "Restored settings from Notes.");
  EXPECT_EQ(readTree(layout.documents), documents);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "live db");
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "backup"));
  EXPECT_FALSE(fs::exists(layout.preferences / "com.live.only.plist"));
  EXPECT_EQ(domainIn(layout.previous / "Library/Preferences/com.live.only.plist"),
            domain("k", "live only"));
  EXPECT_FALSE(fs::exists(layout.previous / "Documents/a.txt"));
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

TEST_F(SwapTest, FailedMovesAreReportedInOrderCappedAtThreeAndLoseNothing) {
  stage(StowRestoreScope::everything);
  auto before = readTree(layout.home);
  auto staged = readTree(layout.staged);
  ::setenv("CORVELSTOW_FAIL_RENAMES", "old.txt,new.txt,Application Support", 1);

  StowOutcome outcome = swap();
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_TRUE(outcome.canUndo);
  EXPECT_EQ(outcome.message,
            "Could not move aside old.txt. Could not put back new.txt. "
            "Could not move aside Application Support");

  // Every live file is still live or kept in Previous; every staged one is live or still staged.
  for (const auto& [path, contents] : before) {
    if (contents == "/" || path.rfind("Library/CorvelStow", 0) == 0 ||
        path.rfind("Library/Preferences", 0) == 0)
      continue;
    auto live = readTree(layout.home);
    auto previous = readTree(layout.previous);
    EXPECT_TRUE(live[path] == contents || previous[path] == contents) << path;
  }
  for (const auto& [path, contents] : staged) {
    if (contents == "/" || path.rfind("Library/Preferences", 0) == 0) continue;
    EXPECT_TRUE(readTree(layout.home)[path] == contents || readTree(layout.staged)[path] == contents)
        << path;
  }
  EXPECT_EQ(readFile(layout.documents / "old.txt"), "live old");
  EXPECT_EQ(readFile(layout.staged / "Documents/new.txt"), "backup new");
}

// With nothing staged, everything live is moved aside and the swap still succeeds.
TEST_F(SwapTest, AMissingSourceEmptiesTheScopeAndSucceeds) {
  StowStagedRestore record;
  record.manifest.appName = "Notes";
  record.scope = StowRestoreScope::documents;
  StowOutcome outcome = performSwap(layout, kHostID, record, folder / "absent", false);
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_FALSE(outcome.canUndo);
  EXPECT_TRUE(readTree(layout.documents).empty());
  EXPECT_FALSE(fs::exists(layout.previous));
  EXPECT_FALSE(fs::exists(layout.previousNew));
}

}  // namespace
}  // namespace corvelstow
