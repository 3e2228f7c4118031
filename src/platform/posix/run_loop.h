#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/dispatcher.h"

namespace corvelstow::platform {

/// The Linux dispatcher: the main queue is a run loop served by whichever thread calls
/// runUntil (the process's main thread), the background queue is one worker thread, and
/// delayed tasks wait on the steady clock.
class RunLoopDispatcher final : public Dispatcher {
 public:
  RunLoopDispatcher();
  /// Lets the background item in progress finish, drops the ones not started, and joins the
  /// worker.
  ~RunLoopDispatcher() override;
  RunLoopDispatcher(const RunLoopDispatcher&) = delete;
  RunLoopDispatcher& operator=(const RunLoopDispatcher&) = delete;

  void onMain(std::function<void()> work) override;
  void inBackground(std::function<void()> work) override;
  std::shared_ptr<DelayedTask> after(double seconds, std::function<void()> action) override;

  /// Serves the main queue on the calling thread, running queued work and due tasks in order,
  /// until `done` answers true. `done` is asked before waiting and after every item.
  void runUntil(const std::function<bool()>& done);

 private:
  using Clock = std::chrono::steady_clock;

  void serveBackground();

  std::mutex mutex_;
  std::condition_variable mainChanged_;
  std::condition_variable backgroundChanged_;
  std::deque<std::function<void()>> main_;
  std::deque<std::function<void()>> background_;
  // Equal due times keep the order they were scheduled in.
  std::multimap<Clock::time_point, std::shared_ptr<DelayedTask>> timers_;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace corvelstow::platform
