#pragma once

#import <UIKit/UIKit.h>

#include <memory>

#include "ui/ios/StowRuntimeName.h"

namespace corvelstow {
class StowModel;
struct StowAnimation;
}  // namespace corvelstow

NS_ASSUME_NONNULL_BEGIN

/// The overlay's view: transparent, with the pill drawn from the model's pill (pillContent),
/// as wide as its content and placed by the engine (pillWidth, pillFrame), its texts following
/// the user's text size up to a cap. It writes the pill's frame in window coordinates back to
/// the model for the window's hit test. A tap on a pill that opens the panel opens it; a new
/// pill is announced to VoiceOver, whose escape gesture dismisses it.
STOW_RUNTIME_NAME(StowOverlay)
@interface StowOverlay : UIView

- (instancetype)initWithModel:(std::shared_ptr<corvelstow::StowModel>)model;

- (instancetype)initWithFrame:(CGRect)frame NS_UNAVAILABLE;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;

/// Draws the model's pill as it is now, shown or hidden with `animation`. Called by the
/// overlay's controller at each change of the pill, once the window is shown.
- (void)showPill:(const corvelstow::StowAnimation&)animation;

/// Whether the pill is on screen, fading out included.
@property(nonatomic, readonly) BOOL pillOnScreen;

/// Called when a pill that faded out has left the screen.
@property(nonatomic, copy, nullable) void (^pillGone)(void);

@end

NS_ASSUME_NONNULL_END
