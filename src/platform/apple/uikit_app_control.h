#pragma once

// Objective-C++ only: the Apple app control, with UIKit.

#include "platform/app_control.h"

namespace corvelstow::platform::apple {

/// A medium UIImpactFeedbackGenerator for the haptic; for suspending, a fresh UIControl that
/// sends the "suspend" action to the shared UIApplication with no event, as a press of the
/// home button would; exit(0) to end the process. The main queue only.
class UIKitAppControl final : public AppControl {
 public:
  void impactHaptic() override;
  void suspend() override;
  void terminate() override;
};

}  // namespace corvelstow::platform::apple
