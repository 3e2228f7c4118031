#include "store/container_lock.h"

#include <gtest/gtest.h>

#include "base/file_error.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using std::chrono::milliseconds;
using testing::TempFolder;

TEST(ContainerLockTest, ASecondHolderWaitsThenIsToldAnotherOperationRuns) {
  TempFolder root;
  StowLayout layout = StowLayout::forRoots(root.path() / "home", root.path() / "tmp");
  {
    auto first = StowContainerLock::acquire(layout, milliseconds(0));  // makes the work folder
    EXPECT_FALSE(StowContainerLock::tryAcquire(layout, milliseconds(30)));
    try {
      StowContainerLock::acquire(layout, milliseconds(30));
      FAIL() << "a second lock was granted";
    } catch (const StowFileError& error) {
      EXPECT_STREQ(error.what(), "Another CorvelStow operation is running on this app's data.");
    }
    // Another container is not held up.
    StowLayout other = StowLayout::forRoots(root.path() / "other", root.path() / "tmp");
    EXPECT_TRUE(StowContainerLock::tryAcquire(other, milliseconds(0)));
  }
  EXPECT_TRUE(StowContainerLock::tryAcquire(layout, milliseconds(0)));  // released with its holder
}

}  // namespace
}  // namespace corvelstow
