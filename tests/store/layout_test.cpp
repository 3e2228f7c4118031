#include "store/layout.h"

#include <gtest/gtest.h>

namespace corvelstow {
namespace {

TEST(LayoutTest, TheWorkFolderLiesInLibraryAndIsExcludedFromItByName) {
  StowLayout layout = StowLayout::forRoots("/c", "/t");
  EXPECT_EQ(layout.workFolder.parent_path(), layout.library);
  EXPECT_TRUE(excludedLibraryNames().count(layout.workFolder.filename().string()));
  EXPECT_EQ(layout.exports, "/t/CorvelStow Exports");  // outside the container
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
  EXPECT_EQ(StowLayout::shared().exports, "/scratch/CorvelStow Exports");
}

}  // namespace
}  // namespace corvelstow
