#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "platform/dispatcher.h"

namespace corvelstow::testing {

/// A dispatcher whose clock moves only when a test moves it, and whose queues run only when a
/// test runs them, all on the test's own thread: "a second pill 5 s into a 10 s pill" takes no
/// time at all.
class ManualDispatcher final : public platform::Dispatcher {
 public:
  void onMain(std::function<void()> work) override { main_.push_back(std::move(work)); }
  void inBackground(std::function<void()> work) override { background_.push_back(std::move(work)); }
  std::shared_ptr<platform::DelayedTask> after(double seconds,
                                               std::function<void()> action) override {
    auto task = std::make_shared<platform::DelayedTask>(std::move(action));
    timers_.emplace(now_ + seconds, task);
    return task;
  }

  /// Seconds since the dispatcher was made.
  double now() const { return now_; }

  /// How many background items wait to run.
  std::size_t backgroundWaiting() const { return background_.size(); }

  /// Runs the background queue one item at a time, each followed by the main queue, until
  /// both are empty. The clock does not move.
  void settle() {
    runMain();
    while (!background_.empty()) {
      runFront(background_);
      runMain();
    }
  }

  /// Drops everything queued and every timer, unrun.
  void drop() {
    main_.clear();
    background_.clear();
    timers_.clear();
  }

  /// Moves the clock forward by `seconds`; each delayed task due by then runs at its due time,
  /// in order, followed by the main queue.
  void advance(double seconds) {
    const double until = now_ + seconds;
    runMain();
    while (!timers_.empty() && timers_.begin()->first <= until) {
      now_ = timers_.begin()->first;
      auto task = std::move(timers_.begin()->second);
      timers_.erase(timers_.begin());
      task->fire();
      runMain();
    }
    now_ = until;
  }

 private:
  using Queue = std::deque<std::function<void()>>;

  static void runFront(Queue& queue) {
    auto work = std::move(queue.front());
    queue.pop_front();
    work();
  }

  // Runs the main queue until it is empty, including what its items add to it.
  void runMain() {
    while (!main_.empty()) runFront(main_);
  }

  double now_ = 0;
  Queue main_;
  Queue background_;
  std::multimap<double, std::shared_ptr<platform::DelayedTask>> timers_;
};

}  // namespace corvelstow::testing
