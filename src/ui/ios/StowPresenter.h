#pragma once

#import <UIKit/UIKit.h>

NS_ASSUME_NONNULL_BEGIN

/// Puts the overlay on screen and listens for the holds that open the panel. One per process,
/// made on first use and kept for the life of the process: it owns the panel model, the
/// overlay window and the record of which host windows carry its recognizers. Main thread only.
@interface StowPresenter : NSObject <UIGestureRecognizerDelegate>

/// The process's presenter, made at the first call.
@property(class, nonatomic, readonly) StowPresenter* shared;

/// Puts the overlay window over `scene` (made again only when the scene differs), gives each
/// of its host windows the two holds once, and at the first attach schedules the model's
/// greeting 1.2 s later. Called for every activation of a window scene.
- (void)attachScene:(UIWindowScene*)scene;

/// The action of both holds: opens the panel once the hold is recognized.
- (void)pressed:(UILongPressGestureRecognizer*)recognizer;

@end

NS_ASSUME_NONNULL_END
