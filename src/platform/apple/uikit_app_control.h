#pragma once

// Objective-C++ only: the Apple app control, with UIKit.

#include <optional>

#include "platform/app_control.h"

namespace corvelstow::platform::apple {

/// A medium UIImpactFeedbackGenerator for the haptic; UIApplication's background tasks for
/// background time, and its idle timer to keep the screen awake; for suspending, a fresh
/// UIControl that sends the "suspend" action to the shared UIApplication with no event, as a
/// press of the home button would; the did-enter-background notification to know the app is
/// off screen; _exit(0) to end the process. The main queue only.
class UIKitAppControl final : public AppControl {
 public:
  void impactHaptic() override;
  std::unique_ptr<BackgroundTime> beginBackgroundTime(const std::string& name,
                                                      std::function<void()> expired) override;
  void keepScreenAwake(bool awake) override;
  void suspend() override;
  void whenInBackground(std::function<void()> then) override;
  void terminate() override;

 private:
  /// The app's own choice about the idle timer, while the screen is kept awake for our work.
  std::optional<bool> appKeptScreenAwake_;
};

}  // namespace corvelstow::platform::apple
