#include "backup/ordered_work.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

namespace corvelstow {
namespace {

// Runs work on `count` indexes and `threads` threads, noting which indexes start. An index
// named in `failing` fails with its number as the sentence.
class OrderedWorkTest : public ::testing::Test {
 protected:
  std::string run(std::size_t count, unsigned threads, const std::set<std::size_t>& failing,
                  const std::function<void(const StowWorkSlot&)>& wait,
                  const std::function<bool(std::size_t)>& early = {}) {
    try {
      runInOrder(
          count, threads, 1,
          [&](const StowWorkSlot& slot) {
            {
              std::lock_guard lock(mutex);
              started.insert(slot.index);
            }
            wait(slot);
            if (failing.count(slot.index)) throw std::runtime_error(std::to_string(slot.index));
            return true;
          },
          [](std::size_t) {}, early);
      return "no failure";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  bool hasStarted(std::size_t index) {
    std::lock_guard lock(mutex);
    return started.count(index) > 0;
  }

  static void until(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
  }

  std::mutex mutex;
  std::set<std::size_t> started;
};

// Index 0 fails only after index 2 has, and index 1 finishes only then too: the failure passed
// on is index 0's, and nothing after index 2 starts.
TEST_F(OrderedWorkTest, TheLowestFailingIndexWinsWhenItFailsLast) {
  const auto wait = [&](const StowWorkSlot& slot) {
    if (slot.index < 2) until([&] { return slot.cutoff->load() <= 3; });
  };
  EXPECT_EQ(run(6, 3, {0, 2}, wait), "0");
  EXPECT_EQ(started, (std::set<std::size_t>{0, 1, 2}));
}

// Indexes 5 to 8 are taken first, by two threads: 5 fails once 6 has started, and 6 finishes
// only then, so that both threads next meet 7 and 8, past the failure: those never start, the
// indexes below it still run, and the failure of index 2 is the one passed on.
TEST_F(OrderedWorkTest, IndexesTakenFirstLeaveTheLowerOnesToRunAfterAFailure) {
  const auto wait = [&](const StowWorkSlot& slot) {
    if (slot.index == 5) until([&] { return hasStarted(6); });
    if (slot.index == 6) until([&] { return slot.cutoff->load() <= 6; });
  };
  EXPECT_EQ(run(9, 2, {2, 5}, wait, [](std::size_t index) { return index >= 5; }), "2");
  EXPECT_EQ(started.count(7) + started.count(8), 0u);
}

}  // namespace
}  // namespace corvelstow
