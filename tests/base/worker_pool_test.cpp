#include "base/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

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

}  // namespace
}  // namespace corvelstow
