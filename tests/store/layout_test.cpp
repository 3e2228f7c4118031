#include "store/layout.h"

#include <gtest/gtest.h>

#include "support/temp_folder.h"

namespace corvelstow {
namespace {

TEST(LayoutTest, TheWorkFolderLiesInLibraryAndIsExcludedFromItByName) {
  StowLayout layout = StowLayout::forRoots("/c", "/t");
  EXPECT_EQ(layout.workFolder.parent_path(), layout.library);
  EXPECT_TRUE(excludedLibraryNames().count(layout.workFolder.filename().string()));
  EXPECT_EQ(layout.exports.parent_path(), "/t/CorvelStow Exports");  // outside the container
}

// Each container exports into a folder of its own, named for it and its real path.
TEST(LayoutTest, ExportsAreKeyedByTheContainersRealPath) {
  testing::TempFolder folder;
  fs::create_directories(folder / "one/home");
  fs::create_directory_symlink("one/home", folder / "link");
  auto exports = [&](const fs::path& home) {
    return StowLayout::forRoots(home, folder / "tmp").exports;
  };
  const fs::path one = exports(folder / "one/home");
  EXPECT_EQ(one.filename().string().substr(0, 5), "home-");
  EXPECT_EQ(one.filename().string().size(), 5u + 8u);
  EXPECT_NE(exports(folder / "two/home"), one);
  EXPECT_EQ(exports(folder / "link"), one);
  EXPECT_EQ(exports(folder.path().string() + "/one/./home/"), one);
  EXPECT_EQ(exports("/").filename().string().size(), 8u);
}

TEST(LayoutTest, SharedLayoutIsBuiltOnceFromTheEnvironment) {
  const char* temporary = std::getenv("TMPDIR");
  std::string saved = temporary ? temporary : "";
  ::setenv("CORVELSTOW_HOME", "/first", 1);
  ::setenv("TMPDIR", "/scratch", 1);
  const StowLayout& layout = StowLayout::shared();
  saved.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", saved.c_str(), 1);
  ::setenv("CORVELSTOW_HOME", "/second", 1);
  EXPECT_EQ(&StowLayout::shared(), &layout);
  EXPECT_EQ(StowLayout::shared().home, "/first");
  EXPECT_EQ(StowLayout::shared().exports.parent_path(), "/scratch/CorvelStow Exports");
}

}  // namespace
}  // namespace corvelstow
