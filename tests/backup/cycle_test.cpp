// A whole backup and restore from the command line, across relaunches of the example host.

#include <gtest/gtest.h>

#include "../startup/container_fixture.h"
#include "backup/inspection.h"
#include "support/process.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;
using testing::runCommand;
using testing::writeFile;
using Tree = std::map<std::string, std::string>;

class CycleTest : public testing::ContainerFixture,
                  public ::testing::WithParamInterface<StowRestoreScope> {
 protected:
  std::map<std::string, std::string> env() {
    return {{"CORVELSTOW_HOME", layout.home.string()},
            {"CORVELSTOW_BUNDLE", bundle.string()},
            {"TMPDIR", (folder / "tmp").string()}};
  }

  Tree documents() { return readTree(layout.documents); }
};

TEST_P(CycleTest, BackUpChangeRestoreRelaunchUndo) {
  const StowRestoreScope scope = GetParam();
  writeFile(layout.documents / "Folder/Deeper/y.txt", "live y");
  // Names that are not UTF-8, as Linux allows: each comes back byte for byte, neither lost.
  writeFile(layout.documents / "r\xE9sum\xE9.txt", "acute");
  writeFile(layout.documents / "r\xE8sum\xE8.txt", "grave");
  fs::create_symlink("a.txt", layout.documents / "link");
  fs::create_directories(folder / "tmp");
  const Tree backedUpDocuments = [&] {
    Tree tree = documents();
    tree.erase("link");  // links are not backed up
    return tree;
  }();
  const auto backedUpSettings = domainIn(layout.preferences / "com.example.notes.plist");

  auto backup = runCommand({"backup"}, env());
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  std::string archive = backup.out.substr(0, backup.out.find('\n'));
  EXPECT_NE(backup.err.find("Backing up: 10 of"), std::string::npos) << backup.err;

  // The app goes on changing its data.
  writeFile(layout.documents / "a.txt", "changed a");
  writeFile(layout.documents / "added.txt", "added after the backup");
  writeFile(layout.library / "Application Support/db", "changed db");
  writeDomain(layout.preferences / "com.example.notes.plist", domain("theme", "changed"));
  const Tree changedDocuments = documents();

  auto restore = runCommand({"restore", archive, "--scope", std::string(rawValue(scope))}, env());
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  EXPECT_EQ(documents(), changedDocuments);  // nothing changes before the next launch
  ASSERT_EQ(launch().exitCode, 0);

  bool documentsRestored = scope != StowRestoreScope::settings;
  bool settingsRestored = scope != StowRestoreScope::documents;
  EXPECT_EQ(documents(), documentsRestored ? backedUpDocuments : changedDocuments);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"),
            scope == StowRestoreScope::everything ? "live db" : "changed db");
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"),
            settingsRestored ? backedUpSettings : domain("theme", "changed"));
  EXPECT_EQ(readFile(layout.library / "Caches/c.bin"), "live cache");  // not in the backup
  EXPECT_TRUE(readRecord<StowOutcome>(layout.outcomeRecord)->succeeded);

  auto undo = runCommand({"undo"}, env());
  ASSERT_EQ(undo.exitCode, 0) << undo.err;
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(documents(), changedDocuments);
  EXPECT_EQ(readFile(layout.library / "Application Support/db"), "changed db");
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "changed"));
  EXPECT_EQ(readRecord<StowOutcome>(layout.outcomeRecord)->message,
            "Put back the data from before the restore.");
}

INSTANTIATE_TEST_SUITE_P(Scopes, CycleTest,
                         ::testing::Values(StowRestoreScope::everything,
                                           StowRestoreScope::documents,
                                           StowRestoreScope::settings),
                         [](const auto& info) { return std::string(rawValue(info.param)); });

class BackupCommandTest : public testing::ContainerFixture {};

// The format is shared with another app: a backup written by other code restores here, its
// settings renamed to this app's identifier.
TEST_F(BackupCommandTest, ABackupWrittenElsewhereRestoresAcrossARelaunch) {
  const fs::path archive = folder / "elsewhere.corvelappdata";
  const std::string settings = *platform::encodeBinaryPropertyList(PlistValue{domain("theme", "theirs")});
  const std::string script = R"(
import json, sys, zipfile
manifest = {"schemaVersion": 1, "bundleIdentifier": "com.other.notes", "appName": "Other Notes",
            "createdAt": "2024-05-01T09:30:00+02:00", "includedPaths": ["Documents", "Library"],
            "fileCount": 2, "totalBytes": 21, "signerIdentity": "kept as it is"}
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("manifest.json", json.dumps(manifest))
    z.writestr("container/Documents/Notes/from elsewhere.txt", "written by other code")
    z.writestr("container/Library/Preferences/com.other.notes.plist", open(sys.argv[2], "rb").read())
)";
  writeFile(folder / "settings.plist", settings);
  auto python = testing::runProcess({"python3", "-c", script, archive.string(),
                                     (folder / "settings.plist").string()});
  ASSERT_EQ(python.exitCode, 0) << python.err;

  auto restore = runCommand({"--home", layout.home.string(), "--bundle", bundle.string(),
                             "restore", archive.string()});
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  ASSERT_EQ(launch().exitCode, 0);
  EXPECT_EQ(readTree(layout.documents),
            (Tree{{"Notes", "/"}, {"Notes/from elsewhere.txt", "written by other code"}}));
  EXPECT_EQ(domainIn(layout.preferences / "com.example.notes.plist"), domain("theme", "theirs"));
  EXPECT_FALSE(fs::exists(layout.preferences / "com.other.notes.plist"));
  auto outcome = readRecord<StowOutcome>(layout.outcomeRecord);
  EXPECT_EQ(outcome->message, "Restored everything from Other Notes.");
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.previousRecord)->manifest.signerIdentity,
            "kept as it is");
}

// A backup that cannot be written, and a restore without room for what the backup declares.
TEST_F(BackupCommandTest, AFullDiskLeavesNoArchiveNoStampAndNothingStaged) {
  std::string noise;
  for (int i = 0; noise.size() < (256 << 10); ++i) noise += std::to_string(i * 2654435761u);
  writeFile(layout.documents / "big.bin", noise);
  fs::create_directories(folder / "tmp");
  // A file-size limit stands in for a full disk: past it, writes fail with EFBIG.
  auto run = testing::runProcess(
      {"sh", "-c", "trap '' XFSZ; ulimit -f 64; exec \"$0\" backup", CORVELSTOW_COMMAND},
      {{"CORVELSTOW_HOME", layout.home.string()},
       {"CORVELSTOW_BUNDLE", bundle.string()},
       {"TMPDIR", (folder / "tmp").string()}});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("File too large."), std::string::npos) << run.err;
  EXPECT_TRUE(readTree(layout.exports).empty());
  EXPECT_FALSE(loadSettings(layout).lastBackupAt);

  auto backup = runCommand({"backup"}, {{"CORVELSTOW_HOME", layout.home.string()},
                                        {"CORVELSTOW_BUNDLE", bundle.string()},
                                        {"TMPDIR", (folder / "tmp").string()}});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  const std::string archive = backup.out.substr(0, backup.out.find('\n'));
  auto restore = runCommand({"restore", archive}, {{"CORVELSTOW_HOME", layout.home.string()},
                                                   {"LD_PRELOAD", CORVELSTOW_FREE_SPACE_FAULT},
                                                   {"CORVELSTOW_FREE_BYTES", "40960"}});
  EXPECT_EQ(restore.exitCode, 1);
  EXPECT_NE(restore.err.find("There isn't enough free space to prepare this restore: it needs " +
                             std::to_string(readManifest(archive).totalBytes) +
                             " bytes and 40960 bytes are free.\n"),
            std::string::npos)
      << restore.err;
  EXPECT_TRUE(readTree(layout.staged).empty());
  EXPECT_FALSE(fs::exists(layout.stagedRecord));
}

TEST_F(BackupCommandTest, OptionsAreSavedAndInspectShowsThePreview) {
  auto set = runCommand({"--home", layout.home.string(), "set", "include-caches", "on"});
  ASSERT_EQ(set.exitCode, 0) << set.err;
  EXPECT_TRUE(loadSettings(layout).includeCaches);
  EXPECT_EQ(runCommand({"--home", layout.home.string(), "set", "show-on-launch", "maybe"}).exitCode, 2);

  fs::create_directories(folder / "tmp");
  auto backup = runCommand({"--json", "backup"}, {{"CORVELSTOW_HOME", layout.home.string()},
                                                  {"CORVELSTOW_BUNDLE", bundle.string()},
                                                  {"TMPDIR", (folder / "tmp").string()}});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  EXPECT_NE(backup.out.find("\"fileCount\": 8"), std::string::npos) << backup.out;  // 7 and a cache
  std::string archive = readTree(layout.exports).begin()->first;

  auto inspect = runCommand({"--bundle", (folder / "Other.app").string(), "inspect",
                             (layout.exports / archive).string()});
  ASSERT_EQ(inspect.exitCode, 0) << inspect.err;
  EXPECT_NE(inspect.out.find("From: Notes\n"), std::string::npos) << inspect.out;
  EXPECT_NE(inspect.out.find("Bundle ID: com.example.notes\n"), std::string::npos);
  EXPECT_NE(inspect.out.find("This backup is from Notes. Its settings will be renamed to this "
                             "app's id."),
            std::string::npos);

  auto notAZip = runCommand({"inspect", (layout.documents / "a.txt").string()});
  EXPECT_EQ(notAZip.exitCode, 1);
  EXPECT_EQ(notAZip.err, "That file is not a zip archive.\n");
}

}  // namespace
}  // namespace corvelstow
