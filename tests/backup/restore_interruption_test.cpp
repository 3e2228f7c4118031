// corvelstow restore cut short: a staged restore is always whole (staged.json describes exactly
// what Staged holds) or absent, and the launch after it applies only a whole one.

#include <gtest/gtest.h>

#include <iostream>

#include "../startup/container_fixture.h"

namespace corvelstow {
namespace {

using testing::readStagedTree;
using testing::Tree;

class RestoreInterruptionTest : public testing::ContainerFixture {};

// A restore killed at each of its calls that change a file, as it replaces an earlier staged
// restore, leaves that one whole, the new one whole, or none; the next launch applies only a
// whole one.
TEST_F(RestoreInterruptionTest, ARestoreKilledAtAnyCallLeavesNoHalfStaging) {
  const fs::path first = backupArchive(StowRestoreScope::everything);
  const fs::path second = backupArchive(StowRestoreScope::everything, /*withCaches=*/true);
  const fs::path pristine = folder / "pristine", firstStaged = folder / "first staged";
  save(pristine);
  // By what is staged: the staging, and the app's data once a launch applied it.
  std::map<std::string, std::pair<Tree, Tree>> outcomes{{"none", {{}, data(layout.home)}}};
  for (const auto& [name, archive] : {std::pair{"first", first}, std::pair{"second", second}}) {
    reset(pristine);
    ASSERT_EQ(command({"restore", archive.string()}).exitCode, 0);
    if (name == std::string("first")) save(firstStaged);
    const Tree staging = readStagedTree(layout.staged);
    ASSERT_EQ(launch().exitCode, 0);
    outcomes[name] = {staging, data(layout.home)};
  }

  std::map<std::string, int> left;
  const int kills = testing::killAtEach(
      "change",
      [&](const testing::Environment& kill) {
        reset(firstStaged);
        return command({"restore", second.string()}, kill);
      },
      [&](int n) {
        std::string staged = "none";
        if (auto record = readRecord<StowStagedRestore>(layout.stagedRecord)) {
          // Still in Staged-new when the restore was killed as it put it in place.
          const fs::path folder = fs::exists(layout.staged / stagingMarker(*record->token))
                                      ? layout.staged
                                      : layout.stagedNew;
          EXPECT_TRUE(fs::exists(folder / stagingMarker(*record->token))) << n;
          for (const auto& [name, outcome] : outcomes) {
            if (outcome.first == readStagedTree(folder)) staged = name;
          }
          EXPECT_NE(staged, "none") << "killed at change " << n;
        }
        ++left[staged];
        ASSERT_EQ(launch().exitCode, 0);
        EXPECT_EQ(data(layout.home), outcomes[staged].second) << "killed at change " << n;
      });
  EXPECT_GT(left["first"], 0);
  EXPECT_GT(left["second"], 0);
  std::cout << "restore killed at each of its " << kills << " changes: first left staged "
            << left["first"] << ", second " << left["second"] << ", none " << left["none"] << '\n';
}

}  // namespace
}  // namespace corvelstow
