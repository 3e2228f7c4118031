// corvelstow restore cut short, refused, or run twice at once: a staged restore is always whole
// (staged.json describes exactly what Staged holds) or absent, and the launch after it applies
// only a whole one.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "../startup/container_fixture.h"
#include "archive/zip_writer.h"
#include "store/container_lock.h"
#include "support/process.h"

namespace corvelstow {
namespace {

using testing::readTree;
using Tree = std::map<std::string, std::string>;
using Clock = std::chrono::steady_clock;

class RestoreInterruptionTest : public testing::ContainerFixture {
 protected:
  static constexpr int kFiles = 250;

  // A backup named `app` whose Documents hold kFiles files; what it stages, by path.
  Tree writeBackup(const fs::path& archive, const std::string& app) {
    StowManifest manifest;
    manifest.bundleIdentifier = kHostID;
    manifest.appName = app;
    manifest.createdAt = currentDate();
    manifest.includedPaths = {"Documents", "Library"};
    manifest.fileCount = kFiles;
    StowZipWriter writer(archive);
    writer.add(encodeRecord(manifest), "manifest.json", currentDate());
    Tree staged;
    for (int i = 0; i < kFiles; ++i) {
      std::string path = "Documents/" + app + "/" + std::to_string(i) + ".txt";
      std::string contents = app + " file " + std::to_string(i);
      writer.add(contents, "container/" + path, currentDate());
      staged[path] = contents;
      staged["Documents/" + app] = "/";
    }
    staged["Documents"] = "/";
    writer.finish();
    return staged;
  }

  std::vector<std::string> restoreCommand(const fs::path& archive) {
    return {CORVELSTOW_COMMAND, "--home", layout.home.string(), "restore", archive.string()};
  }

  // The last line of a command's standard error: its error, after any progress lines.
  static std::string lastLine(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text.substr(text.rfind('\n') + 1);  // npos + 1 is 0: the whole of one line
  }

  testing::ProcessResult restore(const fs::path& archive,
                                 const std::map<std::string, std::string>& environment = {}) {
    return testing::ChildProcess(restoreCommand(archive), environment).wait();
  }

  // The staged restore's name, after checking that its staging (in Staged, or still in
  // Staged-new when the restore was killed as it put it in place) holds exactly that backup;
  // empty when there is none.
  std::string stagedBackup(const std::map<std::string, Tree>& backups) {
    auto record = readRecord<StowStagedRestore>(layout.stagedRecord);
    if (!record) return "";
    const std::string marker = stagingMarker(*record->token);
    Tree staged = readTree(fs::exists(layout.staged / marker) ? layout.staged : layout.stagedNew);
    EXPECT_EQ(staged.erase(marker), 1u);
    EXPECT_EQ(staged, backups.at(record->manifest.appName));
    return record->manifest.appName;
  }

  void reset(const fs::path& copy) {
    fs::remove_all(layout.home);
    fs::copy(copy, layout.home, fs::copy_options::recursive);
  }
};

// A restore killed at any point while it replaces an earlier staged restore leaves that one
// whole, the new one whole, or none; the next launch applies only a whole one.
TEST_F(RestoreInterruptionTest, ARestoreKilledAtAnyPointLeavesNoHalfStaging) {
  const fs::path first = folder / "first.corvelappdata", second = folder / "second.corvelappdata";
  const std::map<std::string, Tree> backups{{"First", writeBackup(first, "First")},
                                            {"Second", writeBackup(second, "Second")}};
  const Tree original = readTree(layout.documents);
  ASSERT_EQ(restore(first).exitCode, 0);
  const fs::path withFirstStaged = folder / "with first staged";
  fs::copy(layout.home, withFirstStaged, fs::copy_options::recursive);

  auto start = Clock::now();
  ASSERT_EQ(restore(second).exitCode, 0);
  const auto whole = Clock::now() - start;

  constexpr int kKills = 24;
  std::map<std::string, int> left;
  for (int kill = 0; kill < kKills; ++kill) {
    reset(withFirstStaged);
    {
      testing::ChildProcess restoring(restoreCommand(second));
      std::this_thread::sleep_for(whole * (kill + 0.5) / kKills);
      restoring.kill();
      restoring.wait();
    }
    std::string staged = stagedBackup(backups);
    ++left[staged.empty() ? "none" : staged];
    ASSERT_EQ(launch().exitCode, 0);
    Tree documents = readTree(layout.documents);
    if (staged.empty()) {
      EXPECT_EQ(documents, original) << "kill " << kill;
    } else {
      Tree expected;
      for (const auto& [path, contents] : backups.at(staged)) {
        if (path != "Documents") expected[path.substr(std::string("Documents/").size())] = contents;
      }
      EXPECT_EQ(documents, expected) << "kill " << kill;
    }
  }
  std::cout << "restore killed at " << kKills << " points over its "
            << std::chrono::duration<double, std::milli>(whole).count() << " ms: first left staged "
            << left["First"] << ", second " << left["Second"] << ", none " << left["none"] << '\n';
}

// Two restores at once: the second waits for the first and stages after it, or is told that
// another operation runs; never are two backups mixed in Staged.
TEST_F(RestoreInterruptionTest, TwoRestoresAtOnceNeverMix) {
  const fs::path first = folder / "first.corvelappdata", second = folder / "second.corvelappdata";
  const std::map<std::string, Tree> backups{{"First", writeBackup(first, "First")},
                                            {"Second", writeBackup(second, "Second")}};
  // The first lingers as it writes staged.json, holding the data for 0.3 s or for longer than
  // the second waits.
  for (const auto& [linger, staged, secondExit] :
       {std::tuple{"300", "Second", 0}, std::tuple{"2600", "First", 1}}) {
    fs::remove_all(layout.workFolder);
    testing::ChildProcess slow(restoreCommand(first), {{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                                                       {"CORVELSTOW_SLOW_RENAMES", linger}});
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    auto other = restore(second);
    EXPECT_EQ(other.exitCode, secondExit) << other.err;
    if (secondExit != 0) {
      EXPECT_EQ(lastLine(other.err), StowContainerLock::kBusyText);
    }
    EXPECT_EQ(slow.wait().exitCode, 0);
    EXPECT_EQ(stagedBackup(backups), staged) << "first lingering " << linger << " ms";
  }
}

// A restore that cannot write staged.json, or that would replace the staging of a swap cut
// short, fails with its reason and leaves the staging as it found it.
TEST_F(RestoreInterruptionTest, ARestoreThatCannotFinishSaysWhyAndLeavesNoHalfStaging) {
  const fs::path archive = folder / "backup.corvelappdata";
  writeBackup(archive, "Notes");
  auto failed = restore(archive, {{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                                  {"CORVELSTOW_FAIL", "rename@staged.json"}});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_EQ(lastLine(failed.err), "Could not write staged.json: Input/output error.");
  EXPECT_EQ(failed.out.find("is ready"), std::string::npos) << failed.out;
  EXPECT_FALSE(fs::exists(layout.staged));
  EXPECT_FALSE(fs::exists(layout.stagedRecord));

  stage(StowRestoreScope::everything);
  testing::writeFile(layout.swapJournal, "{}");
  const Tree before = readTree(layout.workFolder);  // the lock file is there already
  auto refused = restore(archive);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(lastLine(refused.err),
            "The last restore or undo has not finished yet: it finishes the next time the app "
            "opens.");
  EXPECT_EQ(readTree(layout.workFolder), before);
}

}  // namespace
}  // namespace corvelstow
