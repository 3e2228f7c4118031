// The Linux dispatcher with real threads. No test waits for time to pass: delays are zero or
// a few milliseconds, and only the order of what runs is checked.

#include "platform/posix/run_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace corvelstow::platform {
namespace {

TEST(RunLoopDispatcherTest, BackgroundWorkRunsOneItemAtATimeOffTheMainThreadInOrder) {
  RunLoopDispatcher dispatcher;
  const std::thread::id main = std::this_thread::get_id();
  std::vector<int> finished;  // touched on the main thread only
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::atomic<bool> offMain{true};

  for (int i = 0; i < 20; ++i) {
    dispatcher.inBackground([&, i] {
      if (running.fetch_add(1) != 0) overlapped = true;
      if (std::this_thread::get_id() == main) offMain = false;
      std::this_thread::yield();
      running.fetch_sub(1);
      dispatcher.onMain([&, i] {
        EXPECT_EQ(std::this_thread::get_id(), main);
        finished.push_back(i);
      });
    });
  }
  dispatcher.runUntil([&] { return finished.size() == 20; });

  EXPECT_FALSE(overlapped);
  EXPECT_TRUE(offMain);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(finished[i], i);
}

TEST(RunLoopDispatcherTest, DelayedTasksRunByDueTimeAndCancelledOnesNever) {
  RunLoopDispatcher dispatcher;
  std::vector<std::string> ran;
  dispatcher.after(0.004, [&] { ran.push_back("third"); });
  auto cancelled = dispatcher.after(0, [&] { ran.push_back("cancelled"); });
  dispatcher.after(0.002, [&] { ran.push_back("second"); });
  dispatcher.after(0, [&] { ran.push_back("first"); });
  cancelled->cancel();
  EXPECT_TRUE(cancelled->cancelled());

  dispatcher.runUntil([&] { return ran.size() == 3; });
  EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third"}));
}

TEST(RunLoopDispatcherTest, MainWorkQueuedFromMainWorkRunsAfterWhatWasQueuedBefore) {
  RunLoopDispatcher dispatcher;
  std::vector<std::string> ran;
  dispatcher.onMain([&] {
    ran.push_back("a");
    dispatcher.onMain([&] { ran.push_back("c"); });
  });
  dispatcher.onMain([&] { ran.push_back("b"); });
  dispatcher.runUntil([&] { return ran.size() == 3; });
  EXPECT_EQ(ran, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(RunLoopDispatcherTest, ADelayedTaskReleasesWhatItHoldsWhenCancelled) {
  RunLoopDispatcher dispatcher;
  auto held = std::make_shared<int>(1);
  std::weak_ptr<int> watch = held;
  auto task = dispatcher.after(3600, [held] {});
  held.reset();
  EXPECT_FALSE(watch.expired());
  task->cancel();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace corvelstow::platform
