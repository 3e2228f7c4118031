#import <UIKit/UIKit.h>

#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"
#import "ui/ios/StowPresenter.h"

namespace corvelstow::platform {

// Hands every window scene that becomes active to the presenter, on the main queue, for the
// life of the process: the observation is never removed, so its token is not kept. Whether
// the scene is new, and what to install or announce, is the presenter's business.
void finishStartup() {
  apple::catchingAll([] {
    [NSNotificationCenter.defaultCenter addObserverForName:UISceneDidActivateNotification
                                                    object:nil
                                                     queue:NSOperationQueue.mainQueue
                                                usingBlock:^(NSNotification* notification) {
                                                  apple::catchingAll([notification] {
                                                    id scene = notification.object;
                                                    if (![scene isKindOfClass:UIWindowScene.class])
                                                      return;
                                                    [StowPresenter.shared attachScene:scene];
                                                  });
                                                }];
  });
}

// Once the main queue runs, the app has finished launching: the work then goes to a background
// queue, where it takes nothing from the app's start.
void afterLaunch(std::function<void()> work) {
  apple::catchingAll([&work] {
    std::function<void()> job = std::move(work);
    dispatch_async(dispatch_get_main_queue(), ^{
      dispatch_async(dispatch_get_global_queue(QOS_CLASS_UTILITY, 0), ^{
        apple::catchingAll([&job] { job(); });
      });
    });
  });
}

}  // namespace corvelstow::platform
