#include "store/layout.h"

#include <gtest/gtest.h>

#include "support/temp_folder.h"

namespace corvelstow {
namespace {

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

}  // namespace
}  // namespace corvelstow
