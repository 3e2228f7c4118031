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
  void onMain(std::function<void()> work) override;
  void inBackground(std::function<void()> work) override;
  std::shared_ptr<platform::DelayedTask> after(double seconds,
                                               std::function<void()> action) override;

  /// Seconds since the dispatcher was made.
  double now() const { return now_; }

  /// Runs the main queue until it is empty, including what its items add to it.
  void runMain();

  /// Runs the background queue one item at a time, each followed by the main queue, until
  /// both are empty. The clock does not move.
  void settle();

  /// Moves the clock forward by `seconds`; each delayed task due by then runs at its due time,
  /// in order, followed by the main queue.
  void advance(double seconds);

  /// How many background items wait to run.
  std::size_t backgroundWaiting() const { return background_.size(); }

 private:
  double now_ = 0;
  std::deque<std::function<void()>> main_;
  std::deque<std::function<void()>> background_;
  std::multimap<double, std::shared_ptr<platform::DelayedTask>> timers_;
};

}  // namespace corvelstow::testing
