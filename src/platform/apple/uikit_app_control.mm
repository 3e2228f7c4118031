#include "platform/apple/uikit_app_control.h"

#import <UIKit/UIKit.h>

#include <cstdlib>

#include "platform/apple/foundation_bridge.h"

namespace corvelstow::platform::apple {

void UIKitAppControl::impactHaptic() {
  catchingAll([] {
    UIImpactFeedbackGenerator* generator =
        [[UIImpactFeedbackGenerator alloc] initWithStyle:UIImpactFeedbackStyleMedium];
    [generator impactOccurred];
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

void UIKitAppControl::terminate() { std::exit(0); }

}  // namespace corvelstow::platform::apple
