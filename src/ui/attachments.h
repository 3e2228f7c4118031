#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace corvelstow {

/// A long press that opens the panel, as the presenter installs it on each host window.
struct StowHold {
  int touches = 1;
  double seconds = 0;      ///< the minimum press duration
  bool stripOnly = false;  ///< whether it counts only in the strip under the status bar
};

/// Three fingers held 0.5 s anywhere. Neither hold cancels the app's touches when it is
/// recognised: a game or an instrument played with three fingers keeps its notes and moves when
/// the panel opens over it.
inline constexpr StowHold kThreeFingerHold{3, 0.5, false};
/// One finger held 1.2 s in the strip under the status bar (hit_test.h).
inline constexpr StowHold kOneFingerHold{1, 1.2, true};

/// Where the overlay goes and which windows get the holds, as scenes come, go and are held.
/// Nothing here is remembered between calls: the presenter passes the facts of the moment
/// (the scene the overlay window is in, whether the panel is shown, which windows already
/// carry a hold), read from the live objects, so that an address reused by a new object can
/// never be mistaken for an old one. Scenes are known by identity (their address) only while
/// both are alive. Main queue only.
class StowAttachments {
 public:
  using Identity = const void*;

  /// How long after the first attach the model greets the user, in seconds.
  static constexpr double kGreetDelay = 1.2;

  /// The overlay window at the moment of a scene event.
  struct Overlay {
    Identity scene = nullptr;  ///< its scene; null when there is no window or its scene is gone
    bool panelShown = false;   ///< whether the model's panel is shown (in that scene)
  };

  /// What a scene event does to the overlay window.
  enum class Placement {
    ignore,    ///< nothing at all: the scene is not one the overlay serves
    keep,      ///< the overlay window stays where it is
    moveHere,  ///< a new overlay window is made in this scene, and the old one goes
  };

  /// A window scene became active. Only the app's own interactive scenes (session role
  /// "application") are served: an external display or a screen shared to a TV never gets the
  /// overlay. The overlay follows the last activated scene, except that it never moves while
  /// the panel is shown in a scene still there: moving it would tear the panel down, with its
  /// picker or share sheet.
  static Placement activated(Identity scene, bool applicationRole, const Overlay& overlay);

  /// A hold was recognised in a window of `scene`: the panel opens in that scene, so the
  /// overlay moves there first, unless the panel is shown already in a scene still there (the
  /// hold then does nothing).
  static Placement held(Identity scene, const Overlay& overlay);

  /// A scene was disconnected (closed by the user, or let go by the system): whether it held
  /// the overlay window, which then goes, and the panel with it, so that the next hold in a
  /// scene still there opens the panel again.
  static bool detaches(Identity scene, const Overlay& overlay);

  /// One window of an activated scene.
  struct SceneWindow {
    bool overlay = false;       ///< the presenter's own overlay window: never given holds
    bool carriesHolds = false;  ///< it carries the presenter's holds already
  };

  /// The positions in `windows` (the scene's windows, in order) of those that get the two holds
  /// now: neither an overlay window nor carrying them already. A window is thus given them once
  /// however often its scene activates, and windows that appear later get them at the next.
  static std::vector<std::size_t> windowsToInstrument(const std::vector<SceneWindow>& windows);

  /// A window of the overlay's scene, as the choice of the app's front window sees it.
  struct HostWindow {
    bool overlay = false;     ///< the presenter's overlay window
    bool visible = false;     ///< shown (not hidden)
    bool key = false;         ///< the scene's key window now
    bool remembered = false;  ///< the app's key window from before the panel took key status
  };

  /// The position of the app's front window among `windows`: the one that was key before the
  /// panel opened, while it is still shown; else the app's key window; else its first shown
  /// window. It takes key status back when the panel closes, and the overlay asks it for the
  /// status bar, the home indicator, deferred screen edges and orientations. None when the app
  /// shows no window.
  static std::optional<std::size_t> frontHostWindow(const std::vector<HostWindow>& windows);

  /// True the first time only: the first attach schedules the greeting, kGreetDelay later.
  bool scheduleGreeting();

 private:
  bool greeted_ = false;
};

}  // namespace corvelstow
