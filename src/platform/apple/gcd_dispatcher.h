#pragma once

// Objective-C++ only: the Apple dispatcher, over Grand Central Dispatch.

#include <dispatch/dispatch.h>

#include "platform/dispatcher.h"

namespace corvelstow::platform::apple {

/// The main dispatch queue; a serial queue of class QOS_CLASS_USER_INITIATED for the
/// background, so that its items run one at a time in the order given; dispatch_after on the
/// main queue for delayed tasks. Whatever a work item throws is dropped at the queue's edge.
class GcdDispatcher final : public Dispatcher {
 public:
  GcdDispatcher();

  void onMain(std::function<void()> work) override;
  void inBackground(std::function<void()> work) override;
  std::shared_ptr<DelayedTask> after(double seconds, std::function<void()> action) override;

 private:
  dispatch_queue_t background_;
};

}  // namespace corvelstow::platform::apple
