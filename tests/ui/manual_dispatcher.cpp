#include "manual_dispatcher.h"

namespace corvelstow::testing {

void ManualDispatcher::onMain(std::function<void()> work) { main_.push_back(std::move(work)); }

void ManualDispatcher::inBackground(std::function<void()> work) {
  background_.push_back(std::move(work));
}

std::shared_ptr<platform::DelayedTask> ManualDispatcher::after(double seconds,
                                                               std::function<void()> action) {
  auto task = std::make_shared<platform::DelayedTask>(std::move(action));
  timers_.emplace(now_ + seconds, task);
  return task;
}

void ManualDispatcher::runMain() {
  while (!main_.empty()) {
    auto work = std::move(main_.front());
    main_.pop_front();
    work();
  }
}

void ManualDispatcher::settle() {
  runMain();
  while (!background_.empty()) {
    auto work = std::move(background_.front());
    background_.pop_front();
    work();
    runMain();
  }
}

void ManualDispatcher::advance(double seconds) {
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

}  // namespace corvelstow::testing
