#pragma once

// What the user interface asks of the app around it, beyond files: a haptic tap, time to finish
// work off screen, keeping the screen awake, and the steps of closing the app. The model decides
// when; the platform only carries them out. Apple: UIImpactFeedbackGenerator (medium), UIKit's
// background tasks and idle timer, a UIControl sending "suspend" to the shared UIApplication,
// and _exit(0). The corvelstow command has no app to suspend: see its own implementation.

#include <functional>
#include <memory>
#include <string>

namespace corvelstow::platform {

/// Time the system grants the app to finish work once it leaves the screen, held for as long as
/// this object lives. Made and released on the main queue.
class BackgroundTime {
 public:
  virtual ~BackgroundTime() = default;
};

class AppControl {
 public:
  virtual ~AppControl() = default;

  /// A medium impact haptic; nothing where the device has none.
  virtual void impactHaptic() = 0;

  /// Asks for time to finish the work called `name` should the app leave the screen (the screen
  /// locks, the user switches apps), until the returned object goes. When the system takes the
  /// time back before that, `expired` is called on the main queue and the time ends at once: the
  /// work is then about to be suspended, and should stop cleanly. Nothing where no app can be
  /// suspended (null).
  virtual std::unique_ptr<BackgroundTime> beginBackgroundTime(const std::string& name,
                                                              std::function<void()> expired) {
    (void)name;
    (void)expired;
    return nullptr;
  }

  /// Keeps the screen from locking by itself while `awake` (the idle timer), then gives the app
  /// back its own choice. Nothing where there is no screen.
  virtual void keepScreenAwake(bool awake) { (void)awake; }

  /// Sends the app to the home screen, as a press of the home button would.
  virtual void suspend() = 0;

  /// Calls `then` on the main queue once the app is in the background and its own handlers of
  /// that (its saves) have run; where there is no app to leave the screen, at once.
  virtual void whenInBackground(std::function<void()> then) { then(); }

  /// Ends the process with exit status 0 at once, running no destructors and no handlers: the
  /// app's threads may still be running, and must not see its objects torn down under them.
  virtual void terminate() = 0;
};

}  // namespace corvelstow::platform
