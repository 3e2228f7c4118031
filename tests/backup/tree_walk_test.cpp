// The usage survey and the tree walk under it, also run by scripts/test with the sanitizers.

#include "backup/tree_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "backup/usage.h"
#include "base/scope_guard.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::writeFile;

class UsageTest : public ::testing::Test {
 protected:
  testing::TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");

  // The survey with only `spare` descriptors free: the limit lowered, every other slot taken.
  StowUsage surveyWithSpare(std::size_t spare) {
    rlimit saved{};
    ::getrlimit(RLIMIT_NOFILE, &saved);
    rlimit low = saved;
    low.rlim_cur = 256;
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    ScopeGuard restore([&] { ::setrlimit(RLIMIT_NOFILE, &saved); });
    std::vector<UniqueFd> taken;
    while (UniqueFd fd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}) taken.push_back(std::move(fd));
    taken.resize(taken.size() - spare);
    return surveyUsage(layout);
  }
};

TEST_F(UsageTest, MeasuresDocumentsLibraryAndCachesApart) {
  EXPECT_EQ(surveyUsage(layout), StowUsage{});
  writeFile(layout.library / "Application Support/db", "1234567890");
  EXPECT_EQ(surveyUsage(layout), (StowUsage{0, 10, 0, 1}));  // no Documents: none counted

  writeFile(layout.documents / "a.txt", "12345");
  writeFile(layout.documents / ".hidden", "123");
  writeFile(layout.documents / "deep/er/b", "1234567");
  fs::create_symlink("a.txt", layout.documents / "top-link");      // counts, as a file
  fs::create_symlink("../a.txt", layout.documents / "deep/link");  // deeper down it does not
  writeFile(layout.library / "Caches/c", "123456789012");
  writeFile(layout.workFolder / "Staged/Documents/x", "never counted");
  writeFile(layout.library / "SplashBoard/s", "never counted");
  writeFile(layout.library / "Saved Application State/s", "never counted");
  // A link's size is its target's length; a.txt, .hidden, b, top-link and db are counted.
  EXPECT_EQ(surveyUsage(layout), (StowUsage{5 + 3 + 7 + 5, 10, 12, 4 + 1}));
}

// Two trees 300 levels deep side by side, a file at each level, and a third from 20 levels down
// the first, beside its deeper levels, are walked with FolderChain::kMaxOpen + 2 descriptors: the
// root, the deepest open levels and a listing. With one fewer, each folder from kMaxOpen levels
// down cannot be listed and counts as empty, and the walk goes on with the other tree, whichever
// comes first.
TEST_F(UsageTest, DeepTreesNeedAFewDescriptors) {
  const auto writeTree = [](fs::path path, int levels) {
    for (int level = 0; level < levels; ++level, path /= "d") writeFile(path / "f", "x");
  };
  writeTree(layout.documents / "trees/a", 300);
  writeTree(layout.documents / "trees/b", 300);
  fs::path branch = layout.documents / "trees/a";
  for (int level = 0; level < 20; ++level) branch /= "d";
  writeTree(branch / "e", 50);
  EXPECT_EQ(surveyWithSpare(FolderChain::kMaxOpen + 2), (StowUsage{650, 0, 0, 650}));
  // Documents, trees, the top of a tree and 12 levels below it are listed.
  EXPECT_EQ(surveyWithSpare(FolderChain::kMaxOpen + 1), (StowUsage{2 * 13, 0, 0, 2 * 13}));
}

}  // namespace
}  // namespace corvelstow
