#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatcher.h"

namespace corvelstow {

/// Carries the progress of long work from the thread doing it to the main queue, coalesced: at
/// most one delivery waits on the main queue at a time, deliveries are at least kInterval
/// apart, and each delivers the latest report, so that 60,000 small files do not flood the
/// main queue with thousands of panel updates. The last report is never lost: flush delivers
/// it before the work's result is shown. Made and finished on the main queue; reported to
/// from any thread.
class StowProgressRelay : public std::enable_shared_from_this<StowProgressRelay> {
 public:
  /// The shortest time between two deliveries, in seconds.
  static constexpr double kInterval = 0.05;

  /// Receives a report on the main queue.
  using Deliver = std::function<void(double fraction, const std::string& detail)>;

  /// `dispatcher` must outlive the relay.
  static std::shared_ptr<StowProgressRelay> create(platform::Dispatcher& dispatcher,
                                                   Deliver deliver);

  StowProgressRelay(const StowProgressRelay&) = delete;
  StowProgressRelay& operator=(const StowProgressRelay&) = delete;

  /// Any thread: replaces the report waiting to be delivered, and asks the main queue for a
  /// delivery unless one is asked for already.
  void report(double fraction, const std::string& detail);

  /// Main queue: delivers the report still waiting, if any, at once; afterwards nothing more
  /// is delivered. Called when the work is done, before its result is shown.
  void finish();

 private:
  struct Report {
    double fraction = 0;
    std::string detail;
  };

  StowProgressRelay(platform::Dispatcher& dispatcher, Deliver deliver);

  void drain();
  std::optional<Report> takeWaiting();
  void deliverWaiting();

  platform::Dispatcher& dispatcher_;
  Deliver deliver_;

  // Shared with the working thread.
  std::mutex mutex_;
  std::optional<Report> waiting_;
  bool drainAsked_ = false;

  // Main queue only.
  std::shared_ptr<platform::DelayedTask> pause_;  ///< the interval after the last delivery
  bool finished_ = false;
};

}  // namespace corvelstow
