#include "backup/ordered_work.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
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

// Indexes 5 to 8 are taken first, by two threads: 5 fails once 6 has started, and 6 finishes
// only then, so that both threads next meet 7 and 8, past the failure: those never start, the
// indexes below it still run, and the failure of index 2 is the one passed on.
TEST(OrderedWorkTest, IndexesTakenFirstLeaveTheLowerOnesToRunAfterAFailure) {
  std::mutex mutex;
  std::set<std::size_t> started;
  const auto hasStarted = [&](std::size_t index) {
    std::lock_guard lock(mutex);
    return started.count(index) > 0;
  };
  try {
    runInOrder(
        9, 2, 1,
        [&](const StowWorkSlot& slot) {
          {
            std::lock_guard lock(mutex);
            started.insert(slot.index);
          }
          while (slot.index == 5 && !hasStarted(6)) std::this_thread::yield();
          while (slot.index == 6 && slot.cutoff->load() > 6) std::this_thread::yield();
          if (slot.index == 5 || slot.index == 2) {
            throw std::runtime_error(std::to_string(slot.index));
          }
          return true;
        },
        [](std::size_t) {}, [](std::size_t index) { return index >= 5; });
    ADD_FAILURE() << "no failure came out";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "2");
  }
  EXPECT_EQ(started.count(7) + started.count(8), 0u);
}

}  // namespace
}  // namespace corvelstow
