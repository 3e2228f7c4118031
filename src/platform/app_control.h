#pragma once

// What the user interface asks of the app around it, beyond files: a haptic tap, and the two
// steps of closing the app. The model decides when; the platform only carries them out.
// Apple: UIImpactFeedbackGenerator (medium), a UIControl sending "suspend" to the shared
// UIApplication, exit(0). The corvelstow command has no app to suspend: see its own
// implementation.

namespace corvelstow::platform {

class AppControl {
 public:
  virtual ~AppControl() = default;

  /// A medium impact haptic; nothing where the device has none.
  virtual void impactHaptic() = 0;

  /// Sends the app to the home screen, as a press of the home button would.
  virtual void suspend() = 0;

  /// Ends the process with exit status 0.
  virtual void terminate() = 0;
};

}  // namespace corvelstow::platform
