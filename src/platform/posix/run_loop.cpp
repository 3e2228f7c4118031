#include "platform/posix/run_loop.h"

namespace corvelstow::platform {

RunLoopDispatcher::RunLoopDispatcher() : worker_([this] { serveBackground(); }) {}

RunLoopDispatcher::~RunLoopDispatcher() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    background_.clear();
  }
  backgroundChanged_.notify_all();
  worker_.join();
}

void RunLoopDispatcher::onMain(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    main_.push_back(std::move(work));
  }
  mainChanged_.notify_all();
}

void RunLoopDispatcher::inBackground(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    background_.push_back(std::move(work));
  }
  backgroundChanged_.notify_all();
}

std::shared_ptr<DelayedTask> RunLoopDispatcher::after(double seconds,
                                                      std::function<void()> action) {
  auto task = std::make_shared<DelayedTask>(std::move(action));
  auto due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(seconds < 0 ? 0 : seconds));
  {
    std::lock_guard lock(mutex_);
    timers_.emplace(due, task);
  }
  mainChanged_.notify_all();
  return task;
}

void RunLoopDispatcher::runUntil(const std::function<bool()>& done) {
  while (!done()) {
    std::function<void()> work;
    std::shared_ptr<DelayedTask> task;
    {
      std::unique_lock lock(mutex_);
      for (;;) {
        if (!main_.empty()) {
          work = std::move(main_.front());
          main_.pop_front();
          break;
        }
        if (!timers_.empty() && timers_.begin()->first <= Clock::now()) {
          task = std::move(timers_.begin()->second);
          timers_.erase(timers_.begin());
          break;
        }
        if (timers_.empty()) {
          mainChanged_.wait(lock);
        } else {
          mainChanged_.wait_until(lock, timers_.begin()->first);
        }
      }
    }
    if (work) work();
    if (task) task->fire();
  }
}

void RunLoopDispatcher::serveBackground() {
  for (;;) {
    std::function<void()> work;
    {
      std::unique_lock lock(mutex_);
      backgroundChanged_.wait(lock, [this] { return stopping_ || !background_.empty(); });
      if (stopping_) return;
      work = std::move(background_.front());
      background_.pop_front();
    }
    work();
  }
}

}  // namespace corvelstow::platform
