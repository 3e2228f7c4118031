#pragma once

#include <cstddef>
#include <unordered_set>
#include <vector>

namespace corvelstow {

/// A long press that opens the panel, as the presenter installs it on each host window.
struct StowHold {
  int touches = 1;
  double seconds = 0;      ///< the minimum press duration
  bool stripOnly = false;  ///< whether it counts only in the strip under the status bar
};

/// Three fingers held 0.5 s anywhere.
inline constexpr StowHold kThreeFingerHold{3, 0.5, false};
/// One finger held 1.2 s in the strip under the status bar (hit_test.h).
inline constexpr StowHold kOneFingerHold{1, 1.2, true};

/// What the presenter remembers from one scene activation to the next: which host windows
/// carry its two holds, which recognizers are strip-only, and whether the greeting has been
/// scheduled. Objects are known by identity (their address) alone: nothing here keeps one
/// alive. Main queue only.
class StowAttachments {
 public:
  using Identity = const void*;

  /// How long after the first attach the model greets the user, in seconds.
  static constexpr double kGreetDelay = 1.2;

  /// One window of an activated scene.
  struct SceneWindow {
    Identity window = nullptr;
    bool overlay = false;  ///< the presenter's own overlay window: never instrumented
  };

  /// Whether attaching `scene` makes a new overlay window: when there is none yet, when it has
  /// lost its scene (`overlayScene` is the current window's scene; null for either), or when
  /// it belongs to another scene. Otherwise the window is reused.
  static bool needsOverlayWindow(Identity overlayScene, Identity scene);

  /// The positions in `windows` (the scene's windows, in order) of those that get the two
  /// holds now: neither an overlay window nor instrumented before. From now on they count as
  /// instrumented, so that no window is instrumented twice however often its scene activates.
  std::vector<std::size_t> instrument(const std::vector<SceneWindow>& windows);

  /// Records `recognizer` as strip-only (kOneFingerHold).
  void addStripRecognizer(Identity recognizer);
  bool isStripRecognizer(Identity recognizer) const;

  /// True the first time only: the first attach schedules the greeting, kGreetDelay later.
  bool scheduleGreeting();

 private:
  std::unordered_set<Identity> watched_;
  std::unordered_set<Identity> stripRecognizers_;
  bool greeted_ = false;
};

}  // namespace corvelstow
