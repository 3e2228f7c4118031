#include "backup/staging.h"

#include <gtest/gtest.h>

#include "../archive/archive_test_support.h"
#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "backup/inspection.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::readTree;
using testing::TempFolder;

// Each case on one thread and on four: the outcome is the same.
class StagingTest : public ::testing::TestWithParam<unsigned> {
 protected:
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  fs::path archive = folder / "backup.corvelappdata";
  std::vector<std::string> details;

  static std::string manifestJson(std::int64_t fileCount) {
    return encodeRecord(StowManifest{1,
                                     "com.example.notes",
                                     "Notes",
                                     std::nullopt,
                                     *parseInternetDate("2024-05-01T09:30:00Z"),
                                     std::nullopt,
                                     {"Documents", "Library"},
                                     fileCount,
                                     0,
                                     std::nullopt,
                                     std::nullopt,
                                     std::nullopt});
  }

  // An archive of `entries` (name, contents; a name ending in "/" is a folder), after the
  // manifest unless `manifest` is empty. Contents of 1 MiB or more are deflated, as a backup
  // deflates a file; the others are stored.
  void writeArchive(const std::vector<std::pair<std::string, std::string>>& entries,
                    const std::string& manifest) {
    StowZipWriter writer(archive);
    StowDate now = currentDate();
    if (!manifest.empty()) writer.add(manifest, "manifest.json", now);
    for (const auto& [name, contents] : entries) {
      if (name.back() == '/') {
        writer.addDirectory(name, now);
      } else if (contents.size() >= (1 << 20)) {
        testing::writeFile(folder / "large", contents);
        writer.addFile(folder / "large", name);
      } else {
        writer.add(contents, name, now);
      }
    }
    writer.finish();
  }

  void stage(StowRestoreScope scope) {
    stageRestore(layout, archive, scope, GetParam(),
                 [&](double, const std::string& detail) { details.push_back(detail); });
  }

  std::map<std::string, std::string> stagedTree() { return testing::readStagedTree(layout.staged); }

  // Staging fails with exactly `message` and leaves the staging that was there (none, or an
  // earlier one) as it was.
  void expectFailure(StowRestoreScope scope, const std::string& message) {
    const auto staged = readTree(layout.staged);
    const auto record = testing::readFile(layout.stagedRecord);
    try {
      stage(scope);
      ADD_FAILURE() << "staging succeeded; expected: " << message;
    } catch (const std::exception& error) {
      EXPECT_EQ(std::string(error.what()), message);
    }
    EXPECT_EQ(readTree(layout.staged), staged);
    EXPECT_EQ(testing::readFile(layout.stagedRecord), record);
    EXPECT_FALSE(fs::exists(layout.stagedNew));
  }
};

TEST_P(StagingTest, UnpacksTheChosenPartAndRecordsIt) {
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
  EXPECT_EQ(stagedTree(), (std::map<std::string, std::string>{
                              {"Documents", "/"},
                              {"Documents/notes", "/"},
                              {"Documents/notes/a.txt", "a"},
                              {"Documents/b.txt", "b"},
                              {"Library", "/"},
                              {"Library/Preferences", "/"},
                              {"Library/Preferences/com.example.notes.plist", "p"},
                              {"Library/Application Support", "/"},
                              {"Library/Application Support/db", "db"}}));
  EXPECT_EQ(fs::status(layout.staged / "Documents/b.txt").permissions(), fs::perms(0644));
  auto staged = readRecord<StowStagedRestore>(layout.stagedRecord);
  ASSERT_TRUE(staged);
  EXPECT_EQ(staged->scope, StowRestoreScope::everything);
  EXPECT_EQ(staged->manifest, readManifest(archive));

  stage(StowRestoreScope::settings);  // a second staging replaces the first
  EXPECT_EQ(stagedTree(), (std::map<std::string, std::string>{
                              {"Library", "/"},
                              {"Library/Preferences", "/"},
                              {"Library/Preferences/com.example.notes.plist", "p"}}));
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.stagedRecord)->scope, StowRestoreScope::settings);
  EXPECT_EQ(details.back(), "1 of 1 files");
}

TEST_P(StagingTest, ReportsEveryEighthFileAndTheLast) {
  std::vector<std::pair<std::string, std::string>> entries;
  for (int i = 0; i < 17; ++i)
    entries.push_back({"container/Documents/f" + std::to_string(i), "x"});
  writeArchive(entries, manifestJson(17));
  stage(StowRestoreScope::documents);
  EXPECT_EQ(details,
            (std::vector<std::string>{"8 of 17 files", "16 of 17 files", "17 of 17 files"}));
}

TEST_P(StagingTest, RejectsBadBackupsWithTheirTextsAndLeavesNothing) {
  const std::string noManifest = "That file is not an app data backup: it has no manifest.";
  std::string huge = manifestJson(0);  // too large to be a manifest
  huge.insert(huge.size() - 2, ", \"padding\": \"" + std::string(17 << 20, ' ') + "\"");
  std::vector<std::pair<std::string, std::string>> nine;
  for (int i = 0; i < 9; ++i) nine.push_back({"container/Library/f" + std::to_string(i), "x"});
  const std::pair<std::string, std::string> a{"container/Documents/a.txt", "a"};
  struct Case {
    std::vector<std::pair<std::string, std::string>> entries;
    std::string manifest;
    StowRestoreScope scope;
    std::string message;
  };
  const Case cases[] = {
      {{a}, "", StowRestoreScope::everything, noManifest},
      {{{"Manifest.json", manifestJson(1)}, {"container/manifest.json", manifestJson(1)}},
       "",
       StowRestoreScope::everything,
       noManifest},
      {{a}, "{\"appName\": \"Notes\"}", StowRestoreScope::everything, noManifest},
      {{}, huge, StowRestoreScope::everything, noManifest},
      {{a},
       manifestJson(1),
       StowRestoreScope::settings,
       "That backup holds nothing for the part you chose."},
      {{a, {"container/Documents/../x", "escape"}},
       manifestJson(2),
       StowRestoreScope::everything,
       "The archive holds an unsafe path: container/Documents/../x"},
      {nine, manifestJson(10), StowRestoreScope::everything,
       "The backup should hold 10 files but only 9 came out of it."},
  };
  for (const Case& c : cases) {
    writeArchive(c.entries, c.manifest);
    expectFailure(c.scope, c.message);
  }
  EXPECT_FALSE(fs::exists(layout.workFolder / "x"));
  testing::writeFile(archive, "not a zip archive at all");
  expectFailure(StowRestoreScope::everything, "That file is not a zip archive.");
}

// Among many files, large and small, the first damaged entry in archive order is named, however
// long its own unpacking takes; the restore staged before stays whole.
TEST_P(StagingTest, TheFirstDamagedEntryStopsStagingAndKeepsTheOneBefore) {
  std::vector<std::pair<std::string, std::string>> entries{
      {"container/Documents/large.json", testing::sampleText(5 << 20)},
      {"container/Library/Caches/", ""},
      {"container/Library/Caches/noise.bin", testing::randomBytes(3 << 20)}};
  std::map<std::string, std::string> tree{
      {"Documents", "/"}, {"Library", "/"}, {"Library/Caches", "/"}, {"Documents/many", "/"}};
  for (int i = 0; i < 300; ++i) {
    entries.push_back(
        {"container/Documents/many/" + std::to_string(i), "file " + std::to_string(i)});
  }
  for (const auto& [name, contents] : entries) {
    if (name.back() != '/') tree[name.substr(std::string("container/").size())] = contents;
  }
  writeArchive(entries, manifestJson(302));
  stage(StowRestoreScope::everything);
  EXPECT_TRUE(stagedTree() == tree);

  std::string bytes = testing::readFile(archive);
  for (const char* contents : {"file 20", "file 170"}) bytes[bytes.find(contents) + 3] ^= 0x20;
  testing::writeFile(archive, bytes);
  expectFailure(StowRestoreScope::everything,
                "container/Documents/many/20 is damaged: its checksum does not match.");

  const StowZipItem large = StowZipReader(archive).items().at(1);
  bytes[large.headerOffset + large.compressedSize] ^= 0x20;  // near the end of its data
  testing::writeFile(archive, bytes);
  expectFailure(StowRestoreScope::everything,
                "container/Documents/large.json is damaged: its checksum does not match.");
}

TEST_P(StagingTest, PartialScopesAndEmptyBackupsAreNotCounted) {
  std::vector<std::pair<std::string, std::string>> nine;
  for (int i = 0; i < 9; ++i) nine.push_back({"container/Documents/f" + std::to_string(i), "x"});
  writeArchive(nine, manifestJson(10));
  EXPECT_NO_THROW(stage(StowRestoreScope::documents));

  writeArchive({{"container/", ""}, {"container/Documents/", ""}}, manifestJson(0));
  EXPECT_NO_THROW(stage(StowRestoreScope::everything));
  EXPECT_TRUE(fs::exists(layout.staged / "Documents"));
  EXPECT_TRUE(fs::exists(layout.stagedRecord));
}

INSTANTIATE_TEST_SUITE_P(Threads, StagingTest, ::testing::Values(1u, 4u));

}  // namespace
}  // namespace corvelstow
