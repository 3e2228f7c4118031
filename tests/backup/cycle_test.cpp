// A whole backup and restore from the command line, across relaunches of the example host.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "../archive/archive_test_support.h"
#include "../startup/container_fixture.h"
#include "archive/zip_reader.h"
#include "backup/inspection.h"
#include "support/process.h"

namespace corvelstow {
namespace {

using testing::readFile;
using testing::readTree;
using testing::runCommand;
using testing::writeFile;
using Tree = std::map<std::string, std::string>;

// The command's environment for the fixture's container, with `extra` added.
class CommandFixture : public testing::ContainerFixture {
 protected:
  std::map<std::string, std::string> env(const std::map<std::string, std::string>& extra = {}) {
    std::map<std::string, std::string> all{{"CORVELSTOW_HOME", layout.home.string()},
                                           {"CORVELSTOW_BUNDLE", bundle.string()},
                                           {"TMPDIR", (folder / "tmp").string()}};
    for (const auto& [name, value] : extra) all[name] = value;
    return all;
  }
};

class CycleTest : public CommandFixture, public ::testing::WithParamInterface<StowRestoreScope> {
 protected:
  Tree documents() { return readTree(layout.documents); }

  // Whatever names the app gives its files, they come back byte for byte: names drawn at random
  // (from a fixed seed) out of backslashes, colons, line ends, leading dashes, quotes, bytes that
  // are not UTF-8, composed and decomposed forms, in folders and files, and 255-byte names.
  void writeFilesWithAnyName(unsigned seed) {
    const std::string pieces[] = {"\\",   ":",        "\n",     "\r",      "\t",
                                  " ",    "\"",       "*?",     ".",       "a",
                                  "\xE9", "\xFF\xFE", "\u00E9", "e\u0301", "\u65E5\u672C"};
    std::mt19937 random(seed);
    const auto name = [&] {
      std::string text = random() % 4 == 0 ? "-" : "";
      for (auto n = 1 + random() % 6; n > 0; --n) text += pieces[random() % std::size(pieces)];
      return text == "." || text == ".." ? text + "a" : text;
    };
    writeFile(layout.documents / std::string(255, 'n'), "255 bytes");
    writeFile(layout.documents / name() / (std::string(253, 'n') + "\u00E9"), "255 bytes too");
    for (int i = 0; i < 16; ++i) {
      const fs::path top = layout.documents / name();
      const fs::path file = random() % 2 ? top / name() : top;
      if (!fs::exists(file) && !fs::is_regular_file(file.parent_path())) {
        writeFile(file, std::to_string(i));
      }
    }
  }
};

TEST_P(CycleTest, BackUpChangeRestoreRelaunchUndo) {
  const StowRestoreScope scope = GetParam();
  writeFile(layout.documents / "Folder/Deeper/y.txt", "live y");
  writeFilesWithAnyName(static_cast<unsigned>(scope) + 1);
  fs::create_symlink("a.txt", layout.documents / "link");
  fs::create_directories(folder / "tmp");
  const Tree backedUpDocuments = [&] {
    Tree tree = documents();
    tree.erase("link");  // links are not backed up
    return tree;
  }();
  const auto backedUpSettings = domainIn(layout.preferences / "com.example.notes.plist");

  auto backup = runCommand({"--progress", "backup"}, env());
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  std::string archive = backup.out.substr(0, backup.out.find('\n'));
  EXPECT_TRUE(backup.err.starts_with("Backing up: Starting (0%)\n")) << backup.err;

  // The app goes on changing its data.
  writeFile(layout.documents / "a.txt", "changed a");
  writeFile(layout.documents / "added.txt", "added after the backup");
  writeFile(layout.library / "Application Support/db", "changed db");
  writeDomain(layout.preferences / "com.example.notes.plist", domain("theme", "changed"));
  const Tree changedDocuments = documents();

  auto restore = runCommand({"restore", archive, "--scope", std::string(rawValue(scope))}, env());
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  EXPECT_EQ(restore.err, "");                // no progress where stderr is no terminal
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
                                           StowRestoreScope::documents, StowRestoreScope::settings),
                         [](const auto& info) { return std::string(rawValue(info.param)); });

class BackupCommandTest : public CommandFixture {
 protected:
  // The names of the finished exports (temporary files are hidden).
  static std::vector<std::string> exportsIn(const fs::path& exports) {
    std::vector<std::string> names;
    for (const auto& [name, kind] : readTree(exports)) {
      if (name[0] != '.') names.push_back(name);
    }
    return names;
  }

  // The error a failed command printed after its progress.
  static std::string lastLine(const std::string& text) {
    std::size_t start = text.rfind('\n', text.size() < 2 ? 0 : text.size() - 2);
    return start == std::string::npos ? text : text.substr(start + 1);
  }

  // Every entry's name and data, each checked against its CRC.
  static std::string allData(const fs::path& archive) {
    std::string data;
    StowZipReader reader(archive);
    for (const auto& item : reader.items()) data += item.path + "\n" + reader.data(item) + "\n";
    return data;
  }

  static bool complete(const fs::path& archive) {
    try {
      return !allData(archive).empty();
    } catch (const std::exception&) {
      return false;
    }
  }
};

// Each container has its own exports folder, which only its user can read, and its own options.
TEST_F(BackupCommandTest, ExportsAndOptionsArePerContainerAndPrivate) {
  fs::create_directories(folder / "tmp");
  fs::create_directories(folder / "other");
  fs::copy(layout.home, folder / "other/home", fs::copy_options::recursive);
  ASSERT_EQ(runCommand({"set", "include-caches", "on"}, env()).exitCode, 0);
  EXPECT_TRUE(loadSettings(layout).includeCaches);
  auto first = runCommand({"--json", "backup"}, env());
  ASSERT_EQ(first.exitCode, 0) << first.err;
  const auto printed = nlohmann::json::parse(first.out);
  EXPECT_EQ(printed["manifest"]["fileCount"], 8);  // the fixture's 7 files and its cache
  const fs::path archive = printed["archive"].get<std::string>();
  const std::string archived = readFile(archive);
  std::string otherApp = readFile(bundle / "Info.plist");
  otherApp.replace(otherApp.find(">Notes<"), 7, ">Other<");
  writeFile(folder / "Other.app/Info.plist", otherApp);
  auto second =
      runCommand({"backup"}, env({{"CORVELSTOW_HOME", (folder / "other/home").string()},
                                  {"CORVELSTOW_BUNDLE", (folder / "Other.app").string()}}));
  ASSERT_EQ(second.exitCode, 0) << second.err;

  EXPECT_EQ(archive.parent_path(), layout.exports);
  EXPECT_TRUE(readFile(archive) == archived);  // the other container's backup left it alone
  EXPECT_NE(fs::path(second.out.substr(0, second.out.find('\n'))).parent_path(), layout.exports);
  auto mode = [](const fs::path& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mode & 07777;
  };
  EXPECT_EQ(mode(archive), 0600u);
  EXPECT_EQ(mode(layout.exports), 0700u);
  EXPECT_EQ(mode(layout.exports.parent_path()), 0700u);
}

// Killed at each change it makes to a file, a backup leaves the previous export as it was, or a
// complete new one, and never a partial file under an export's name.
TEST_F(BackupCommandTest, AKilledBackupLosesNoExport) {
  fs::create_directories(folder / "tmp");
  auto good = runCommand({"backup"}, env());
  ASSERT_EQ(good.exitCode, 0) << good.err;
  const fs::path previous = layout.exports / "Notes 2020-01-01 0000.corvelappdata";
  fs::rename(good.out.substr(0, good.out.find('\n')), previous);
  const std::string previousBytes = readFile(previous);

  int kills = 0;
  for (int at = 1; at < 1000; ++at) {
    auto run = runCommand({"backup"}, env({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                                           {"CORVELSTOW_KILL", "change#" + std::to_string(at)}}));
    if (run.exitCode == 0) break;  // it made fewer changes than that
    ASSERT_EQ(run.exitCode, 128 + SIGKILL) << run.err;
    ++kills;
    bool newer = false;
    for (const std::string& name : exportsIn(layout.exports)) {
      EXPECT_TRUE(complete(layout.exports / name)) << name << " after change " << at;
      newer |= name != previous.filename();
    }
    if (!newer) {
      EXPECT_EQ(readFile(previous), previousBytes) << "after change " << at;
    }
    // Back to where the next run starts: the previous export alone.
    for (const auto& entry : fs::directory_iterator(layout.exports)) {
      if (entry.path() != previous) fs::remove(entry.path());
    }
    if (!fs::exists(previous)) writeFile(previous, previousBytes);
  }
  EXPECT_GE(kills, 15);
}

// An app that runs while it is backed up changes its data: a file removed, a folder renamed, a
// file grown, a file or a folder replaced by a link to an outside folder holding a secret, at one
// point of the backup after another. Every backup succeeds; no link is followed; its manifest
// counts what it holds, each file as it was before or after the change, or named as left out;
// and a restore stages exactly what it holds.
TEST_F(BackupCommandTest, AnAppChangingItsDataWhileItIsBackedUpGetsAConsistentArchive) {
  const fs::path outside = folder / "outside";
  writeFile(outside / "x.txt", "secret");
  writeFile(outside / "old.txt", "secret");
  fs::create_directories(folder / "tmp");
  for (int i = 0; i < 20; ++i) writeFile(layout.documents / "Bulk" / std::to_string(i), "bulk");
  const Tree original = readTree(layout.documents);
  struct Change {
    std::string how, path, to;
    std::set<std::string> lost;  // what it may leave out
  };
  const Change changes[] = {
      {"remove", "old.txt", "", {"old.txt"}},
      {"rename", "Folder", "Renamed", {"Folder/x.txt"}},
      {"grow", "a.txt", "", {}},
      {"relink", "old.txt", "../../outside/x.txt", {"old.txt"}},
      {"relink", "Folder", "../../outside", {"Folder/x.txt"}},
  };
  for (const Change& change : changes) {
    for (int at = 1, next = 2;; at = std::exchange(next, at + next)) {  // 1, 2, 3, 5, 8...
      SCOPED_TRACE(change.how + " at change " + std::to_string(at));
      fs::remove_all(layout.documents);
      for (const auto& [name, bytes] : original) {
        if (bytes != "/") writeFile(layout.documents / name, bytes);
      }
      auto run =
          runCommand({"--json", "backup", "--threads", "2"},
                     env({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                          {"CORVELSTOW_CHANGE_AT", "write#" + std::to_string(at)},
                          {"CORVELSTOW_CHANGE", change.how},
                          {"CORVELSTOW_CHANGE_PATH", (layout.documents / change.path).string()},
                          {"CORVELSTOW_CHANGE_TO", (layout.documents / change.to).string()}}));
      ASSERT_EQ(run.exitCode, 0) << run.err;
      Tree changed = readTree(layout.documents);
      if (changed == original) break;  // the backup made fewer changes than that
      const auto printed = nlohmann::json::parse(run.out);
      const fs::path archive = printed["archive"].get<std::string>();
      const auto leftOut = printed["leftOut"].get<std::set<std::string>>();
      Tree held;
      std::int64_t files = 0, bytes = 0;
      StowZipReader reader(archive);
      for (const StowZipItem& item : reader.items()) {
        if (item.path.back() == '/' || item.path == "manifest.json") continue;
        ++files;
        bytes += static_cast<std::int64_t>(item.size);
        const std::string prefix = "container/Documents/";
        if (item.path.starts_with(prefix))
          held[item.path.substr(prefix.size())] = reader.data(item);
      }
      const StowManifest manifest = readManifest(archive);
      EXPECT_EQ(std::make_pair(manifest.fileCount, manifest.totalBytes),
                std::make_pair(files, bytes));
      for (const auto& [name, contents] : original) {
        if (contents == "/") continue;
        if (held.count(name)) {
          EXPECT_TRUE(held[name] == contents || held[name] == changed[name]) << name;
        } else {
          EXPECT_TRUE(change.lost.count(name) && leftOut.count("Documents/" + name)) << name;
        }
      }
      EXPECT_EQ(held.size() + leftOut.size(), 24u);  // the fixture's four files and the bulk

      auto restore = runCommand({"restore", archive.string()}, env());
      ASSERT_EQ(restore.exitCode, 0) << restore.err;
      Tree staged = readTree(layout.staged / "Documents");
      std::erase_if(staged, [](const auto& entry) { return entry.second == "/"; });
      EXPECT_TRUE(staged == held);
    }
  }
  // Documents itself a link: it is not followed, in a backup or in the survey.
  fs::rename(layout.documents, folder / "Documents");
  fs::create_directory_symlink(outside, layout.documents);
  auto linked = runCommand({"--json", "backup"}, env());
  ASSERT_EQ(linked.exitCode, 0) << linked.err;
  const std::string data = allData(nlohmann::json::parse(linked.out)["archive"].get<std::string>());
  EXPECT_EQ(data.find("secret"), std::string::npos);
  EXPECT_NE(data.find("container/Documents/\n"), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(runCommand({"--json", "usage"}, env()).out)["documentsBytes"], 0);
  fs::remove(layout.documents);
  fs::rename(folder / "Documents", layout.documents);

  // Without --json the archive stays the only line on stdout; what was left out goes beside it.
  auto run = runCommand({"backup"},
                        env({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                             {"CORVELSTOW_CHANGE_AT", "write#1"},
                             {"CORVELSTOW_CHANGE", "remove"},
                             {"CORVELSTOW_CHANGE_PATH", (layout.documents / "a.txt").string()}}));
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out.find('\n'), run.out.size() - 1);
  EXPECT_EQ(run.err,
            "Left out Documents/a.txt: the app removed or replaced it while the backup ran.\n");
}

// A backup holds a few descriptors however deep the tree, and so does the survey, even as the
// first descriptor it opens is 0. A folder that cannot be opened stops the backup, naming it,
// whether it may not be read or fails otherwise; the survey counts it as empty.
TEST_F(BackupCommandTest, DeepTreesAreWhollyBackedUpAndUnopenableFoldersNamed) {
  fs::create_directories(folder / "tmp");
  std::string deep = "Documents";
  for (int level = 0; level < 300; ++level) deep += "/d";
  writeFile(layout.home / deep / "bottom.txt", "at the bottom");
  // Reached once the descriptors of the folders above were given back.
  writeFile(layout.documents / "e/after.txt", "after the deep tree");
  auto limited = [&](const std::string& command) {  // and without standard input
    return testing::runProcess(
        {"sh", "-c", "ulimit -n 64 && exec \"$0\" --json " + command + " <&-", CORVELSTOW_COMMAND},
        env());
  };
  auto backup = limited("backup");
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  auto printed = nlohmann::json::parse(backup.out);
  EXPECT_EQ(printed["manifest"]["fileCount"], 9);
  const std::string data = allData(printed["archive"].get<std::string>());
  EXPECT_NE(data.find("container/" + deep + "/bottom.txt\nat the bottom"), std::string::npos);
  EXPECT_NE(data.find("container/Documents/e/after.txt\nafter the deep tree"), std::string::npos);
  auto usage = limited("usage");
  ASSERT_EQ(usage.exitCode, 0) << usage.err;
  EXPECT_EQ(nlohmann::json::parse(usage.out)["files"], 9);

  const std::pair<int, std::string> failures[] = {{EACCES, "Permission denied"},
                                                  {EIO, "Input/output error"}};
  for (const auto& [code, text] : failures) {
    auto fault = env({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                      {"CORVELSTOW_FAIL", "open@Folder=" + std::to_string(code)}});
    auto run = runCommand({"--json", "backup", "--threads", "8"}, fault);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(lastLine(run.err), "Could not open the folder Documents/Folder: " + text + ".\n");
    auto survey = runCommand({"--json", "usage"}, fault);
    ASSERT_EQ(survey.exitCode, 0) << survey.err;
    EXPECT_EQ(nlohmann::json::parse(survey.out)["files"], 8);
  }
}

// A backup that cannot be written leaves no archive and no stamp. A restore needs room for what
// the backup declares: without a block of it, it is refused and stages nothing; it may just fit.
TEST_F(BackupCommandTest, AFullDiskLeavesNoArchiveNoStampAndNothingStaged) {
  fs::create_directories(folder / "tmp");
  // Noise that makes the files of a backup fill 64 KiB blocks exactly.
  const auto usage = nlohmann::json::parse(runCommand({"--json", "usage"}, env()).out);
  const std::int64_t others =
      usage["documentsBytes"].get<std::int64_t>() + usage["libraryBytes"].get<std::int64_t>();
  const std::int64_t total = (others / 65536 + 5) * 65536;
  writeFile(layout.documents / "big.bin", testing::randomBytes(total - others));
  // A file-size limit stands in for a full disk: past it, writes fail with EFBIG.
  auto run = testing::runProcess(
      {"sh", "-c", "trap '' XFSZ; ulimit -f 64; exec \"$0\" backup", CORVELSTOW_COMMAND}, env());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("File too large."), std::string::npos) << run.err;
  EXPECT_TRUE(readTree(layout.exports).empty());
  EXPECT_FALSE(loadSettings(layout).lastBackupAt);

  auto backup = runCommand({"backup"}, env());
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  const std::string archive = backup.out.substr(0, backup.out.find('\n'));
  ASSERT_EQ(readManifest(archive).totalBytes, total);
  for (const std::int64_t free : {total - 65536, total}) {
    auto restore =
        runCommand({"restore", archive}, env({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                                              {"CORVELSTOW_FREE_BYTES", std::to_string(free)}}));
    EXPECT_EQ(restore.err,
              free == total ? ""
                            : "There isn't enough free space to prepare this restore: it needs " +
                                  std::to_string(total) + " bytes and " + std::to_string(free) +
                                  " bytes are free.\n");
    EXPECT_EQ(fs::exists(layout.stagedRecord), free == total);
  }
}

}  // namespace
}  // namespace corvelstow
