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

}  // namespace corvelstow::platform
