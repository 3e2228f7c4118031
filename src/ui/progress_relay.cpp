#include "ui/progress_relay.h"

#include <utility>

namespace corvelstow {

std::shared_ptr<StowProgressRelay> StowProgressRelay::create(platform::Dispatcher& dispatcher,
                                                             Deliver deliver) {
  return std::shared_ptr<StowProgressRelay>(new StowProgressRelay(dispatcher, std::move(deliver)));
}

StowProgressRelay::StowProgressRelay(platform::Dispatcher& dispatcher, Deliver deliver)
    : dispatcher_(dispatcher), deliver_(std::move(deliver)) {}

void StowProgressRelay::report(double fraction, const std::string& detail) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiting_ = Report{fraction, detail};
    if (drainAsked_) return;
    drainAsked_ = true;
  }
  dispatcher_.onMain([relay = shared_from_this()] { relay->drain(); });
}

void StowProgressRelay::drain() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    drainAsked_ = false;
  }
  // Within the interval the end of the pause delivers what waits by then.
  if (!pause_) deliverWaiting();
}

std::optional<StowProgressRelay::Report> StowProgressRelay::takeWaiting() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(waiting_, std::nullopt);
}

void StowProgressRelay::deliverWaiting() {
  if (finished_) return;
  std::optional<Report> report = takeWaiting();
  if (!report) return;
  deliver_(report->fraction, report->detail);
  std::weak_ptr<StowProgressRelay> weak = weak_from_this();
  pause_ = dispatcher_.after(kInterval, [weak] {
    if (auto relay = weak.lock()) {
      relay->pause_.reset();
      relay->deliverWaiting();
    }
  });
}

void StowProgressRelay::finish() {
  if (finished_) return;
  finished_ = true;
  if (pause_) pause_->cancel();
  pause_.reset();
  if (std::optional<Report> report = takeWaiting()) deliver_(report->fraction, report->detail);
}

}  // namespace corvelstow
