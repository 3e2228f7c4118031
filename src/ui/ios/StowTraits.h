#pragma once

#import <UIKit/UIKit.h>

NS_ASSUME_NONNULL_BEGIN

/// From iOS 17, where traitCollectionDidChange: is deprecated: registers `action` of `view` for
/// changes of the traits the overlay draws with (the appearance, the display scale and the
/// text size), and answers YES. Before iOS 17 it answers NO, and traitCollectionDidChange: stays
/// the way to hear of them.
BOOL StowObserveDrawingTraits(UIView* view, SEL action);

NS_ASSUME_NONNULL_END
