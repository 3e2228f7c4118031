// The worker pool, and work over indexes run in order on several threads.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/ordered_work.h"
#include "base/worker_pool.h"

namespace corvelstow {
namespace {

// Tasks run on the pool's threads, each told its index, or inline on the caller's when the pool
// has none; what a task throws comes out of its future. A pool destroyed with tasks queued drops
// them, lets the running one end and joins its threads.
TEST(WorkerPoolTest, RunsTasksOnItsThreadsCarriesWhatTheyThrowAndStopsWhenDestroyed) {
  for (std::size_t threads : {0, 3}) {
    SCOPED_TRACE(threads);
    WorkerPool pool(threads);
    ASSERT_EQ(pool.threads(), threads);
    const std::thread::id caller = std::this_thread::get_id();
    std::vector<std::future<void>> done;
    std::atomic<int> ran = 0, inline_ = 0, badIndex = 0;
    for (int i = 0; i < 50; ++i) {
      done.push_back(pool.submit([&](std::size_t index) {
        ++ran;
        inline_ += std::this_thread::get_id() == caller;
        badIndex += index >= std::max<std::size_t>(threads, 1);
      }));
    }
    auto failing = pool.submit([](std::size_t) { throw std::runtime_error("no room"); });
    for (auto& task : done) task.get();
    EXPECT_EQ(ran, 50);
    EXPECT_EQ(inline_, threads == 0 ? 50 : 0);
    EXPECT_EQ(badIndex, 0);
    EXPECT_THROW(failing.get(), std::runtime_error);
  }

  // The queued task's future is made ready (broken) as the destructor drops it, which lets the
  // running task end.
  std::promise<void> started, release;
  std::shared_future<void> queued;
  std::atomic<bool> ranQueued = false, ended = false;
  std::thread releaser;
  {
    WorkerPool pool(1);
    pool.submit([&, released = release.get_future().share()](std::size_t) {
      started.set_value();
      released.wait();
      ended = true;
    });
    queued = pool.submit([&](std::size_t) { ranQueued = true; }).share();
    started.get_future().wait();
    releaser = std::thread([&] {
      queued.wait();
      release.set_value();
    });
  }
  EXPECT_TRUE(ended);  // the destructor waited for it
  releaser.join();
  EXPECT_THROW(queued.get(), std::future_error);
  EXPECT_FALSE(ranQueued);
}

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
