#include "platform/apple/gcd_dispatcher.h"

#include "platform/apple/foundation_bridge.h"

namespace corvelstow::platform::apple {

GcdDispatcher::GcdDispatcher()
    : background_(dispatch_queue_create("corvelstow.background",
                                        dispatch_queue_attr_make_with_qos_class(
                                            DISPATCH_QUEUE_SERIAL, QOS_CLASS_USER_INITIATED, 0))) {}

void GcdDispatcher::onMain(std::function<void()> work) {
  dispatch_async(dispatch_get_main_queue(), ^{
    catchingAll(work);
  });
}

void GcdDispatcher::inBackground(std::function<void()> work) {
  dispatch_async(background_, ^{
    catchingAll(work);
  });
}

std::shared_ptr<DelayedTask> GcdDispatcher::after(double seconds, std::function<void()> action) {
  auto task = std::make_shared<DelayedTask>(std::move(action));
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(seconds * NSEC_PER_SEC)),
                 dispatch_get_main_queue(), ^{
                   catchingAll([&task] { task->fire(); });
                 });
  return task;
}

}  // namespace corvelstow::platform::apple
