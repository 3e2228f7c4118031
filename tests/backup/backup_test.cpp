#include "backup/backup.h"

#include <gtest/gtest.h>

#include <thread>

#include "archive/zip_reader.h"
#include "backup/inspection.h"
#include "store/records.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::writeFile;

class BackupTest : public ::testing::Test {
 protected:
  testing::TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  StowHostApp app{"com.example.notes", "Notes: Pro", std::string("2.4"), std::nullopt};
  std::vector<std::pair<double, std::string>> reports;

  // On several threads; progress is reported on this one.
  fs::path backUp(bool includeCaches = false) {
    return corvelstow::backUp(
               layout, app, "Ada's iPhone", includeCaches, 4,
               [&, caller = std::this_thread::get_id()](double f, const std::string& d) {
                 EXPECT_EQ(std::this_thread::get_id(), caller);
                 reports.emplace_back(f, d);
               })
        .archive;
  }

  static std::vector<std::string> names(const fs::path& archive) {
    std::vector<std::string> names;
    StowZipReader reader(archive);
    for (const auto& item : reader.items()) names.push_back(item.path);
    return names;
  }
};

TEST_F(BackupTest, ArchivesTheContainerInItsOrderWithItsExclusions) {
  fs::path archive = backUp();
  EXPECT_EQ(names(archive),
            (std::vector<std::string>{"manifest.json", "container/", "container/Documents/",
                                      "container/Library/"}));
  EXPECT_EQ(reports, (decltype(reports){{0.0, "Looking through the app's data"}}));

  writeFile(layout.documents / "b.txt", "bee");
  // In the platform's order, "\u00E9" composed and decomposed comes before "f", as on iOS.
  writeFile(layout.documents / "f.txt", "");
  writeFile(layout.documents / "\u00E9.txt", "");
  writeFile(layout.documents / "e\u0301a.txt", "");
  writeFile(layout.documents / "a/deep/x.txt", "ex");
  writeFile(layout.documents / ".hidden", "hidden");
  writeFile(layout.documents / "Caches/kept.txt", "a Documents folder named Caches is data");
  fs::create_symlink("b.txt", layout.documents / "link");
  fs::create_symlink(layout.library, layout.documents / "folder-link");
  writeFile(layout.library / "Application Support/db", "database");
  writeFile(layout.library / "Application Support/Caches/nested", "nested caches are data");
  writeFile(layout.library / "Caches/c.bin", "cache");
  writeFile(layout.library / "SplashBoard/s", "s");
  writeFile(layout.library / "Saved Application State/st", "st");
  writeFile(layout.workFolder / "settings.json",
            R"({"showOnLaunch": false, "includeCaches": false})");
  writeFile(layout.exports / "Older 2020-01-01 0000.corvelappdata", "an older export");

  archive = backUp();
  // Folders come before files; each list starts with Documents, sorted at the top level.
  EXPECT_EQ(
      names(archive),
      (std::vector<std::string>{
          "manifest.json", "container/", "container/Documents/", "container/Documents/Caches/",
          "container/Documents/a/", "container/Documents/a/deep/", "container/Library/",
          "container/Library/Application Support/", "container/Library/Application Support/Caches/",
          "container/Documents/.hidden", "container/Documents/Caches/kept.txt",
          "container/Documents/a/deep/x.txt", "container/Documents/b.txt",
          "container/Documents/\u00E9.txt", "container/Documents/e\u0301a.txt",
          "container/Documents/f.txt", "container/Library/Application Support/Caches/nested",
          "container/Library/Application Support/db"}));
  const StowManifest manifest = readManifest(archive);
  EXPECT_EQ(manifest, (StowManifest{1,
                                    "com.example.notes",
                                    "Notes: Pro",
                                    "2.4",
                                    manifest.createdAt,
                                    "Ada's iPhone",
                                    {"Documents", "Library"},
                                    9,
                                    3 + 2 + 6 + 39 + 8 + 22,
                                    "manual",
                                    std::nullopt,
                                    std::nullopt}));

  // Only the new export remains, it is named after the app, and the settings record it.
  EXPECT_EQ(std::distance(fs::directory_iterator(layout.exports), fs::directory_iterator()), 1);
  EXPECT_EQ(archive.filename(), exportFileName("Notes: Pro", manifest.createdAt));
  StowSettings settings = loadSettings(layout);
  EXPECT_EQ(settings.lastBackupAt, manifest.createdAt);
  EXPECT_FALSE(settings.showOnLaunch);  // the rest of the settings is left as it was

  std::vector<std::string> withCaches = names(backUp(/*includeCaches=*/true));
  EXPECT_NE(std::find(withCaches.begin(), withCaches.end(), "container/Library/Caches/c.bin"),
            withCaches.end());
}

TEST_F(BackupTest, ReportsEveryEighthFileAndTheLast) {
  for (int i = 0; i < 20; ++i) {
    writeFile(layout.documents / ("f" + std::to_string(100 + i)), std::string(10, 'x'));
  }
  backUp();
  std::vector<std::string> details;
  for (const auto& report : reports) details.push_back(report.second);
  EXPECT_EQ(details,
            (std::vector<std::string>{"Looking through the app's data", "1 of 20 files",
                                      "9 of 20 files", "17 of 20 files", "20 of 20 files"}));
  EXPECT_DOUBLE_EQ(reports[2].first, 90.0 / 200.0);  // by bytes
  EXPECT_DOUBLE_EQ(reports.back().first, 1.0);

  // With nothing but empty files the fraction counts files.
  reports.clear();
  fs::remove_all(layout.documents);
  for (int i = 0; i < 9; ++i) writeFile(layout.documents / ("e" + std::to_string(i)), "");
  backUp();
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_DOUBLE_EQ(reports[1].first, 1.0 / 9.0);
  EXPECT_DOUBLE_EQ(reports[2].first, 1.0);
}

TEST_F(BackupTest, ExportNamesDropUnsafeCharactersAndUseLocalTime) {
  ::setenv("TZ", "America/New_York", 1);
  ::tzset();
  StowDate date = *parseInternetDate("2026-03-03T19:05:00Z");  // 14:05 in New York
  EXPECT_EQ(exportFileName("Notes: Pro", date), "Notes Pro 2026-03-03 1405.corvelappdata");
  EXPECT_EQ(exportFileName(" /\\:?%*|\"<> ", date), "App 2026-03-03 1405.corvelappdata");
  EXPECT_EQ(exportFileName("", date), "App 2026-03-03 1405.corvelappdata");
  EXPECT_EQ(exportFileName("Café 日記", date), "Café 日記 2026-03-03 1405.corvelappdata");
  EXPECT_EQ(exportFileName("\n\u00A0\u3000Notes Pro\u2029 \r", date),
            "Notes Pro 2026-03-03 1405.corvelappdata");
  ::unsetenv("TZ");
  ::tzset();
}

}  // namespace
}  // namespace corvelstow
