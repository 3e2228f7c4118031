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

using Ran = std::vector<std::string>;

TEST(RunLoopDispatcherTest, BackgroundWorkRunsOneItemAtATimeOffTheMainThreadInOrder) {
  RunLoopDispatcher dispatcher;
  const std::thread::id main = std::this_thread::get_id();
  std::vector<int> finished;  // touched on the main thread only
  std::atomic<int> running{0};
  std::atomic<bool> overlappedOrOnMain{false};
  for (int i = 0; i < 20; ++i) {
    dispatcher.inBackground([&, i] {
      if (running.fetch_add(1) != 0 || std::this_thread::get_id() == main)
        overlappedOrOnMain = true;
      std::this_thread::yield();
      running.fetch_sub(1);
      dispatcher.onMain([&, i] {
        EXPECT_EQ(std::this_thread::get_id(), main);
        finished.push_back(i);
      });
    });
  }
  dispatcher.runUntil([&] { return finished.size() == 20; });
  EXPECT_FALSE(overlappedOrOnMain);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(finished[i], i);
}

TEST(RunLoopDispatcherTest, MainWorkRunsInOrderQueuedAndDelayedTasksByDueTimeUnlessCancelled) {
  RunLoopDispatcher dispatcher;
  Ran main;
  Ran delayed;
  dispatcher.after(3600, [&] { delayed.push_back("an hour later"); });
  dispatcher.after(0.004, [&] { delayed.push_back("third"); });
  auto held = std::make_shared<int>(1);
  std::weak_ptr<int> watch = held;
  auto cancelled = dispatcher.after(0, [&, held] { delayed.push_back("cancelled"); });
  held.reset();
  dispatcher.after(0.002, [&] { delayed.push_back("second"); });
  dispatcher.after(0, [&] { delayed.push_back("first"); });
  cancelled->cancel();
  EXPECT_TRUE(watch.expired());  // what it held is released at once
  dispatcher.onMain([&] {
    main.push_back("a");
    dispatcher.onMain([&] { main.push_back("c"); });
  });
  dispatcher.onMain([&] { main.push_back("b"); });
  // Keeps the loop waiting a while with the hour-long task pending.
  dispatcher.inBackground([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    dispatcher.onMain([&] { main.push_back("from the background"); });
  });
  dispatcher.runUntil([&] { return main.size() == 4 && delayed.size() >= 3; });
  EXPECT_EQ(main, (Ran{"a", "b", "c", "from the background"}));
  EXPECT_EQ(delayed, (Ran{"first", "second", "third"}));
}

}  // namespace
}  // namespace corvelstow::platform
