#include "backup/usage.h"

#include <gtest/gtest.h>

#include "support/temp_folder.h"

namespace corvelstow {
namespace {

TEST(UsageTest, MeasuresDocumentsLibraryAndCachesApart) {
  testing::TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  EXPECT_EQ(surveyUsage(layout), StowUsage{});

  testing::writeFile(layout.documents / "a.txt", "12345");
  testing::writeFile(layout.documents / ".hidden", "123");
  testing::writeFile(layout.documents / "deep/er/b", "1234567");
  fs::create_symlink("a.txt", layout.documents / "top-link");       // counts, as a file
  fs::create_symlink("../a.txt", layout.documents / "deep/link");  // deeper down it does not
  testing::writeFile(layout.library / "Application Support/db", "1234567890");
  testing::writeFile(layout.library / "Caches/c", "123456789012");
  testing::writeFile(layout.workFolder / "Staged/Documents/x", "never counted");
  testing::writeFile(layout.library / "SplashBoard/s", "never counted");
  testing::writeFile(layout.library / "Saved Application State/s", "never counted");

  StowUsage usage = surveyUsage(layout);
  EXPECT_EQ(usage.documentsBytes, 5 + 3 + 7 + 5);  // a link's size is its target's length
  EXPECT_EQ(usage.libraryBytes, 10);
  EXPECT_EQ(usage.cachesBytes, 12);
  EXPECT_EQ(usage.files, 4 + 1);  // a.txt, .hidden, b, top-link; db
}

}  // namespace
}  // namespace corvelstow
