#pragma once

#include <cstddef>
#include <vector>

namespace corvelstow {

/// One controller of the app's presentation chain: the front window's root controller first,
/// then each controller presented over the one before, as UIKit's appearance rules see it.
struct StowPresented {
  enum class Style {
    root,            ///< the window's root controller: it decides unless one above takes over
    fullScreen,      ///< UIModalPresentationFullScreen
    overFullScreen,  ///< covers the window, with the controllers beneath left in place
    other,           ///< a sheet, form sheet, popover, or over a part of the window
  };

  Style style = Style::root;
  bool capturesStatusBar = false;  ///< modalPresentationCapturesStatusBarAppearance
};

/// What the app decides for the screen while the overlay is shown over it.
enum class StowHostDecision {
  statusBar,  ///< the status bar's style, whether it is hidden, and how it animates
  window,     ///< the orientations, autorotation, the home indicator, the deferred screen edges and
              ///< the pointer lock
};

/// The position in `chain` of the controller that decides `what`, following UIKit's rule: the
/// status bar belongs to the last controller presented full-screen or capturing the status bar's
/// appearance; the window's other traits belong to the last one that covers the whole window.
/// Either way the root decides when none above does. Zero for an empty chain.
std::size_t decidingPresented(const std::vector<StowPresented>& chain, StowHostDecision what);

/// The overlay's controller and what is presented over it, at one moment.
struct StowOverlayFacts {
  bool pillDrawn = false;       ///< the pill is on screen, fading out included
  bool panelPresented = false;  ///< the panel is presented over the overlay's controller
  bool otherPresented = false;  ///< something else is: a controller the app put there
  bool transitioning = false;   ///< a presentation or dismissal over it is under way
};

/// What to do about the panel so that it is presented exactly while the model shows it.
enum class StowPanelStep {
  none,     ///< they agree, or a transition under way comes back when it ends
  present,  ///< the model shows the panel and nothing is presented: present it
  dismiss,  ///< the panel is presented but the model no longer shows it
  /// The model shows the panel, but something else is presented where it would go: the model
  /// closes it, so that the next hold or tap opens it again rather than finding it "shown".
  closeInModel,
};

/// The overlay window's state for the model's `panelShown` and the facts of the moment.
struct StowOverlayPlan {
  /// The window is shown only while it has something to show: a pill, the panel, or anything
  /// presented over it (also while it comes or goes). Otherwise it is hidden, so that UIKit
  /// asks the app's own windows for the status bar, the home indicator and the orientations,
  /// and no code of the app takes it for its top window.
  bool windowShown = false;
  StowPanelStep panel = StowPanelStep::none;

  bool operator==(const StowOverlayPlan&) const = default;
};

StowOverlayPlan planOverlay(bool panelShown, const StowOverlayFacts& facts);

}  // namespace corvelstow
