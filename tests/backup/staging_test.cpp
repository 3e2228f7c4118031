#include "backup/staging.h"

#include <gtest/gtest.h>

#include "archive/zip_error.h"
#include "archive/zip_writer.h"
#include "backup/inspection.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::readTree;
using testing::TempFolder;

class StagingTest : public ::testing::Test {
 protected:
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  fs::path archive = folder / "backup.corvelappdata";
  std::vector<std::string> details;

  static std::string manifestJson(std::int64_t fileCount) {
    StowManifest manifest;
    manifest.bundleIdentifier = "com.example.notes";
    manifest.appName = "Notes";
    manifest.createdAt = *parseInternetDate("2024-05-01T09:30:00Z");
    manifest.includedPaths = {"Documents", "Library"};
    manifest.fileCount = fileCount;
    return encodeRecord(manifest);
  }

  // An archive of `entries` (name, contents; a name ending in "/" is a folder), after the
  // manifest unless `manifest` is empty.
  void writeArchive(const std::vector<std::pair<std::string, std::string>>& entries,
                    const std::string& manifest) {
    StowZipWriter writer(archive);
    StowDate now = currentDate();
    if (!manifest.empty()) writer.add(manifest, "manifest.json", now);
    for (const auto& [name, contents] : entries) {
      if (name.back() == '/') {
        writer.addDirectory(name, now);
      } else {
        writer.add(contents, name, now);
      }
    }
    writer.finish();
  }

  void stage(StowRestoreScope scope) {
    stageRestore(layout, archive, scope,
                 [&](double, const std::string& detail) { details.push_back(detail); });
  }

  // Staging fails with exactly `message` and leaves neither Staged nor staged.json behind.
  void expectFailure(StowRestoreScope scope, const std::string& message) {
    try {
      stage(scope);
      ADD_FAILURE() << "staging succeeded; expected: " << message;
    } catch (const std::exception& error) {
      EXPECT_EQ(std::string(error.what()), message);
    }
    EXPECT_TRUE(readTree(layout.staged).empty());
    EXPECT_FALSE(fs::exists(layout.stagedRecord));
  }
};

TEST_F(StagingTest, UnpacksTheChosenPartAndRecordsIt) {
  writeArchive({{"container/", ""},
                {"container/Documents/", ""},
                {"container/Documents/notes/a.txt", "a"},
                {"container/Documents/b.txt", "b"},
                {"container/Library/Preferences/com.example.notes.plist", "p"},
                {"container/Library/Application Support/db", "db"},
                {"container/Other/x", "outside the two top folders"},
                {"stray.txt", "outside the container"},
                {"container//Documents/evil", "never selected, so never judged"}},
               manifestJson(4));

  stage(StowRestoreScope::everything);
  EXPECT_EQ(readTree(layout.staged),
            (std::map<std::string, std::string>{
                {"Documents", "/"}, {"Documents/notes", "/"}, {"Documents/notes/a.txt", "a"},
                {"Documents/b.txt", "b"}, {"Library", "/"}, {"Library/Preferences", "/"},
                {"Library/Preferences/com.example.notes.plist", "p"},
                {"Library/Application Support", "/"}, {"Library/Application Support/db", "db"}}));
  auto staged = readRecord<StowStagedRestore>(layout.stagedRecord);
  ASSERT_TRUE(staged);
  EXPECT_EQ(staged->scope, StowRestoreScope::everything);
  EXPECT_EQ(staged->manifest, readManifest(archive));

  stage(StowRestoreScope::settings);  // a second staging replaces the first
  EXPECT_EQ(readTree(layout.staged),
            (std::map<std::string, std::string>{
                {"Library", "/"}, {"Library/Preferences", "/"},
                {"Library/Preferences/com.example.notes.plist", "p"}}));
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.stagedRecord)->scope, StowRestoreScope::settings);
  EXPECT_EQ(details.back(), "1 of 1 files");
}

TEST_F(StagingTest, ReportsEveryEighthFileAndTheLast) {
  std::vector<std::pair<std::string, std::string>> entries;
  for (int i = 0; i < 17; ++i) entries.push_back({"container/Documents/f" + std::to_string(i), "x"});
  writeArchive(entries, manifestJson(17));
  stage(StowRestoreScope::documents);
  EXPECT_EQ(details, (std::vector<std::string>{"8 of 17 files", "16 of 17 files", "17 of 17 files"}));
}

TEST_F(StagingTest, RejectsBadBackupsWithTheirTextsAndLeavesNothing) {
  writeArchive({{"container/Documents/a.txt", "a"}}, "");
  expectFailure(StowRestoreScope::everything,
                "That file is not an app data backup: it has no manifest.");
  writeArchive({{"Manifest.json", manifestJson(1)}, {"container/manifest.json", manifestJson(1)}},
               "");
  expectFailure(StowRestoreScope::everything,
                "That file is not an app data backup: it has no manifest.");
  writeArchive({{"container/Documents/a.txt", "a"}}, "{\"appName\": \"Notes\"}");
  expectFailure(StowRestoreScope::everything,
                "That file is not an app data backup: it has no manifest.");

  writeArchive({{"container/Documents/a.txt", "a"}}, manifestJson(1));
  expectFailure(StowRestoreScope::settings, "That backup holds nothing for the part you chose.");

  writeArchive({{"container/Documents/a.txt", "a"}, {"container/Documents/../x", "escape"}},
               manifestJson(2));
  expectFailure(StowRestoreScope::everything,
                "The archive holds an unsafe path: container/Documents/../x");
  EXPECT_FALSE(fs::exists(layout.workFolder / "x"));
  writeArchive({{"container/Documents/a\\..\\..\\x", "escape"}}, manifestJson(1));
  expectFailure(StowRestoreScope::documents,
                "The archive holds an unsafe path: container/Documents/a\\..\\..\\x");

  std::vector<std::pair<std::string, std::string>> nine;
  for (int i = 0; i < 9; ++i) nine.push_back({"container/Library/f" + std::to_string(i), "x"});
  writeArchive(nine, manifestJson(10));
  expectFailure(StowRestoreScope::everything,
                "The backup should hold 10 files but only 9 came out of it.");

  testing::writeFile(archive, "not a zip archive at all");
  expectFailure(StowRestoreScope::everything, "That file is not a zip archive.");
}

TEST_F(StagingTest, ADamagedEntryStopsStagingAndClearsIt) {
  writeArchive({{"container/Documents/a.txt", "first file"},
                {"container/Documents/b.txt", "second file, to be damaged"}},
               manifestJson(2));
  std::string bytes = testing::readFile(archive);
  size_t at = bytes.find("second file");
  bytes[at] ^= 0x20;
  testing::writeFile(archive, bytes);
  expectFailure(StowRestoreScope::documents,
                "container/Documents/b.txt is damaged: its checksum does not match.");
}

TEST_F(StagingTest, PartialScopesAndEmptyBackupsAreNotCounted) {
  std::vector<std::pair<std::string, std::string>> nine;
  for (int i = 0; i < 9; ++i) nine.push_back({"container/Documents/f" + std::to_string(i), "x"});
  writeArchive(nine, manifestJson(10));
  EXPECT_NO_THROW(stage(StowRestoreScope::documents));

  writeArchive({{"container/", ""}, {"container/Documents/", ""}}, manifestJson(0));
  EXPECT_NO_THROW(stage(StowRestoreScope::everything));
  EXPECT_TRUE(fs::exists(layout.staged / "Documents"));
  EXPECT_TRUE(fs::exists(layout.stagedRecord));
}

TEST_F(StagingTest, AManifestTooLargeToBeOneCountsAsNone) {
  std::string huge = manifestJson(0);
  huge.insert(huge.size() - 2, ", \"padding\": \"" + std::string(17 << 20, ' ') + "\"");
  writeArchive({}, huge);
  try {
    readManifest(archive);
    ADD_FAILURE();
  } catch (const StowRestoreError& error) {
    EXPECT_EQ(error.kind(), StowRestoreError::Kind::noManifest);
  }
}

}  // namespace
}  // namespace corvelstow
