#include "backup/ordered_work.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

namespace corvelstow {
namespace {

// Index 0 fails only after index 2 has, and index 1 finishes only then too: the failure passed
// on is index 0's, and nothing after index 2 starts.
TEST(OrderedWorkTest, TheLowestFailingIndexWinsWhenItFailsLast) {
  std::mutex mutex;
  std::set<std::size_t> started;
  const auto afterIndexTwoFailed = [](const StowWorkSlot& slot) {
    while (slot.cutoff->load() > 3) std::this_thread::yield();
  };
  try {
    runInOrder(
        6, 3, 1,
        [&](const StowWorkSlot& slot) {
          {
            std::lock_guard lock(mutex);
            started.insert(slot.index);
          }
          if (slot.index == 2) throw std::runtime_error("two");
          afterIndexTwoFailed(slot);
          if (slot.index == 0) throw std::runtime_error("zero");
          return true;
        },
        [](std::size_t) {});
    ADD_FAILURE() << "no failure came out";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "zero");
  }
  EXPECT_EQ(started, (std::set<std::size_t>{0, 1, 2}));
}

}  // namespace
}  // namespace corvelstow
