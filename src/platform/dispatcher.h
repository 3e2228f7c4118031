#pragma once

// The dispatcher part of the platform seam: where the user interface's work runs.
//
// The model touches its state only on the main queue. Long work goes to the background queue,
// which runs one item at a time in the order given, at user-initiated priority; it reports back
// by posting to the main queue. Apple: the main dispatch queue, a serial queue of class
// QOS_CLASS_USER_INITIATED, and dispatch_after on the main queue. Linux: RunLoopDispatcher
// (platform/posix/run_loop.h). Tests: a manual clock that runs what is due by hand.

#include <functional>
#include <memory>
#include <utility>

namespace corvelstow::platform {

/// Work scheduled for later on the main queue, which can still be called off. Created, fired
/// and cancelled on the main queue only.
class DelayedTask {
 public:
  explicit DelayedTask(std::function<void()> action) : action_(std::move(action)) {}
  DelayedTask(const DelayedTask&) = delete;
  DelayedTask& operator=(const DelayedTask&) = delete;

  /// Calls the task off: it never runs, and what its action holds is released at once.
  void cancel() {
    cancelled_ = true;
    action_ = nullptr;
  }

  bool cancelled() const { return cancelled_; }

  /// Runs the action once, unless the task was cancelled; the dispatcher calls this when due.
  void fire() {
    if (cancelled_ || !action_) return;
    auto action = std::move(action_);
    action_ = nullptr;
    action();
  }

 private:
  std::function<void()> action_;
  bool cancelled_ = false;
};

/// The queues of the user interface.
class Dispatcher {
 public:
  virtual ~Dispatcher() = default;

  /// Runs `work` on the main queue, after everything already queued there. Callable from any
  /// thread.
  virtual void onMain(std::function<void()> work) = 0;

  /// Runs `work` on the background queue: user-initiated priority, one item at a time, in the
  /// order given. Callable from any thread.
  virtual void inBackground(std::function<void()> work) = 0;

  /// Runs `action` on the main queue `seconds` from now, unless the returned task is cancelled
  /// first. Called on the main queue.
  virtual std::shared_ptr<DelayedTask> after(double seconds, std::function<void()> action) = 0;
};

}  // namespace corvelstow::platform
