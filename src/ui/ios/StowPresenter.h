#pragma once

#import <UIKit/UIKit.h>

#include "ui/ios/StowRuntimeName.h"

NS_ASSUME_NONNULL_BEGIN

/// Puts the overlay on screen and listens for the holds that open the panel. One per process,
/// made on first use and kept for the life of the process: it owns the panel model and the
/// overlay window, and detaches the overlay from a scene that disconnects. Main thread only.
STOW_RUNTIME_NAME(StowPresenter)
@interface StowPresenter : NSObject <UIGestureRecognizerDelegate>

/// The process's presenter, made at the first call.
@property(class, nonatomic, readonly) StowPresenter* shared;

/// For the app's own scenes only (not an external display): puts the overlay window over
/// `scene` (made again only when the scene differs, and never while the panel is shown), gives
/// each of its host windows the two holds once, and at the first attach schedules the model's
/// greeting 1.2 s later. Called for every activation of a window scene.
- (void)attachScene:(UIWindowScene*)scene;

/// The action of both holds: opens the panel, in the held window's scene, once the hold is
/// recognized.
- (void)pressed:(UILongPressGestureRecognizer*)recognizer;

@end

NS_ASSUME_NONNULL_END
