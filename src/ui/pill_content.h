#pragma once

#include <optional>
#include <string>

#include "ui/model.h"

namespace corvelstow {

/// A colour as sRGB red, green and blue from 0 to 1.
struct StowColor {
  double red = 0;
  double green = 0;
  double blue = 0;

  bool operator==(const StowColor&) const = default;
};

/// The overlay's three tints.
namespace tint {
inline constexpr StowColor kPink{1.0, 0.17647, 0.33333};   ///< 255, 45, 85: the invitation
inline constexpr StowColor kGreen{0.20392, 0.82745, 0.6};  ///< 52, 211, 153: good news
inline constexpr StowColor kRed{1.0, 0.0, 0.43137};        ///< 255, 0, 110: problems
}  // namespace tint

/// What the pill draws for one state, left to right: the symbol in its tint, the title over
/// the subtitle, and the button.
struct StowPillContent {
  std::string symbol;  ///< a system symbol name
  StowColor tint;
  std::string title;
  std::optional<std::string> subtitle;
  std::optional<std::string> buttonLabel;  ///< "Open" or "Details"; none for a message
  bool tapOpensPanel = false;              ///< whether a tap on the pill opens the panel

  bool operator==(const StowPillContent&) const = default;
};

/// How the pill is laid out, in points (the view applies them).
namespace pill_layout {
inline constexpr double kMaxWidth = 440;         ///< the pill is never wider, on any screen
inline constexpr double kSymbolFrame = 34;       ///< the symbol's square frame
inline constexpr double kSymbolSize = 16;        ///< semibold
inline constexpr double kSymbolBackdrop = 0.14;  ///< the tint's opacity behind the symbol
inline constexpr double kTitleSize = 14;         ///< semibold
inline constexpr double kSubtitleSize = 11;      ///< regular
inline constexpr double kButtonSize = 13;        ///< semibold, on the tint
inline constexpr double kButtonPaddingX = 14;
inline constexpr double kButtonPaddingY = 7;
inline constexpr double kShadowOpacity = 0.35;  ///< black
/// The texts and the symbol follow the user's text size (Dynamic Type) up to this many times
/// their size above, so that at the accessibility sizes the card stays one row under the
/// status bar rather than covering the app.
inline constexpr double kLargestTextScale = 1.35;
inline constexpr int kTitleLines = 2;  ///< longer texts end in an ellipsis
inline constexpr int kSubtitleLines = 2;
// The card: a rounded rectangle with a thin stroke, over a shadow.
inline constexpr double kCornerRadius = 22;
inline constexpr double kPadding = 10;  ///< inside the card, on every side
inline constexpr double kSpacing = 8;   ///< between the symbol, the texts and the button
inline constexpr double kShadowRadius = 12;
inline constexpr double kShadowOffsetY = 6;  ///< the shadow falls this far below the card
/// The symbol's backdrop; the button is a capsule.
inline constexpr double kSymbolCornerRadius = 10;
// Where the card sits in the overlay: at the top, centred under the status bar.
inline constexpr double kSideMargin = 12;  ///< at least this far from the safe area's sides
inline constexpr double kTopMargin = 8;    ///< below the safe area's top
}  // namespace pill_layout

/// The pill's width in a safe area `safeAreaWidth` points wide, for content that needs
/// `contentWidth` points on one line: that width, but never more than the safe area less the
/// side margins nor kMaxWidth, and never negative. A pill no wider than its content leaves the
/// navigation bar's leading and trailing buttons beside it within reach.
double pillWidth(double safeAreaWidth, double contentWidth);

/// The pill's frame, `width` by `height` points, in the coordinates of `safeArea` (the overlay
/// window's bounds less its safe-area insets): centred across the safe area, kTopMargin below
/// its top.
StowRect pillFrame(const StowRect& safeArea, double width, double height);

/// The width of a one-pixel line on a screen of `displayScale` pixels per point (a trait
/// collection's displayScale, 0 while it is not known yet: then one point).
double hairline(double displayScale);

/// What the pill shows for `pill`; nothing for `none`, when nothing is drawn.
std::optional<StowPillContent> pillContent(const StowModel::Pill& pill);

}  // namespace corvelstow
