#include "platform/apple/uikit_app_control.h"

#import <UIKit/UIKit.h>

#include <unistd.h>

#include <memory>

#include "platform/apple/foundation_bridge.h"

namespace corvelstow::platform::apple {

namespace {

/// A background task, ended when this object goes, or by the system's expiration handler
/// first, which then tells the work.
class UIKitBackgroundTime final : public BackgroundTime {
 public:
  UIKitBackgroundTime(const std::string& name, std::function<void()> expired)
      : task_(std::make_shared<UIBackgroundTaskIdentifier>(UIBackgroundTaskInvalid)) {
    std::shared_ptr<UIBackgroundTaskIdentifier> task = task_;
    NSString* title = nsStringFrom(name);
    *task_ = [UIApplication.sharedApplication beginBackgroundTaskWithName:title
                                                        expirationHandler:^{
                                                          // On the main thread: the work hears of
                                                          // it, and the task ends at once, as the
                                                          // system requires before it suspends the
                                                          // app.
                                                          catchingAll(expired);
                                                          end(*task);
                                                        }];
  }

  ~UIKitBackgroundTime() override { end(*task_); }

 private:
  static void end(UIBackgroundTaskIdentifier& task) {
    if (task == UIBackgroundTaskInvalid) return;
    [UIApplication.sharedApplication endBackgroundTask:task];
    task = UIBackgroundTaskInvalid;
  }

  std::shared_ptr<UIBackgroundTaskIdentifier> task_;
};

}  // namespace

void UIKitAppControl::impactHaptic() {
  catchingAll([] {
    UIImpactFeedbackGenerator* generator =
        [[UIImpactFeedbackGenerator alloc] initWithStyle:UIImpactFeedbackStyleMedium];
    [generator impactOccurred];
  });
}

std::unique_ptr<BackgroundTime> UIKitAppControl::beginBackgroundTime(
    const std::string& name, std::function<void()> expired) {
  return catchingAll(std::unique_ptr<BackgroundTime>(), [&] {
    return std::unique_ptr<BackgroundTime>(
        std::make_unique<UIKitBackgroundTime>(name, std::move(expired)));
  });
}

void UIKitAppControl::keepScreenAwake(bool awake) {
  catchingAll([this, awake] {
    UIApplication* application = UIApplication.sharedApplication;
    if (awake) {
      if (!appKeptScreenAwake_) appKeptScreenAwake_ = application.idleTimerDisabled;
      application.idleTimerDisabled = YES;
    } else if (appKeptScreenAwake_) {
      application.idleTimerDisabled = *appKeptScreenAwake_;
      appKeptScreenAwake_.reset();
    }
  });
}

void UIKitAppControl::suspend() {
  catchingAll([] {
    // UIApplication answers "suspend" as it answers the home button; no public method does it.
    [[UIControl new] sendAction:NSSelectorFromString(@"suspend")
                             to:UIApplication.sharedApplication
                       forEvent:nil];
  });
}

void UIKitAppControl::whenInBackground(std::function<void()> then) {
  catchingAll([&then] {
    // After the app's own observers of the notification, and what they put on the main queue.
    auto later = [then = std::move(then)] {
      dispatch_async(dispatch_get_main_queue(), ^{
        catchingAll(then);
      });
    };
    if (UIApplication.sharedApplication.applicationState == UIApplicationStateBackground) {
      later();
      return;
    }
    __block id observer = [NSNotificationCenter.defaultCenter
        addObserverForName:UIApplicationDidEnterBackgroundNotification
                    object:nil
                     queue:NSOperationQueue.mainQueue
                usingBlock:^(NSNotification*) {
                  [NSNotificationCenter.defaultCenter removeObserver:observer];
                  observer = nil;
                  later();
                }];
  });
}

void UIKitAppControl::terminate() { ::_exit(0); }

}  // namespace corvelstow::platform::apple
