#pragma once

#include <optional>

#include "ui/geometry.h"

namespace corvelstow {

class StowModel;

/// How far around the pill's frame a touch still hits it, in points on every side: a margin
/// that makes the small pill easier to hit.
inline constexpr double kPillHitMargin = 8;

/// The height of the strip under the top safe-area inset where a one-finger hold counts.
inline constexpr double kOneFingerStripHeight = 40;

/// The overlay window's hit test (pointInside:withEvent:). `model` is the window's weakly held
/// model, null when it is gone; `panelPresented` says whether the panel is presented over the
/// overlay. The overlay takes the point when the panel is presented, or when a pill is shown
/// and the point lies in its frame grown by the margin; every other point falls through to the
/// app's windows.
bool overlayTakesPoint(const StowModel* model, bool panelPresented, StowPoint point);

/// Whether a one-finger hold at height `y` in its window counts: from the top safe-area inset
/// down to 40 points below it, both edges included.
bool inOneFingerStrip(double safeAreaTop, double y);

/// A touch as a hold recognizer on a host window sees it: the window's top safe-area inset, the
/// touch's height in the window, and whether the app hides the status bar.
struct StowWindowTouch {
  double safeAreaTop = 0;
  double y = 0;
  bool statusBarHidden = false;
};

/// Whether a hold recognizer takes a touch (gestureRecognizer:shouldReceiveTouch:). The
/// three-finger hold takes every touch; a one-finger (strip) hold takes one only in the strip
/// (inOneFingerStrip), unless its view is not a window (`touch` absent), when it takes all.
/// While the app hides the status bar (a game, a video, a landscape iPhone) the strip is not
/// armed at all: there the top of the screen holds the app's own controls, and the strip would
/// take their touches.
bool holdTakesTouch(bool stripRecognizer, const std::optional<StowWindowTouch>& touch);

}  // namespace corvelstow
