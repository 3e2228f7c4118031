#pragma once

#import <UIKit/UIKit.h>

#include <memory>

namespace corvelstow {
class StowModel;
}

NS_ASSUME_NONNULL_BEGIN

/// The overlay's view: transparent, with the pill drawn from the model's pill (pillContent),
/// placed by the engine (pillFrame), shown and hidden with the animation each change asks
/// for. It writes the pill's frame in window coordinates back to the model for the window's
/// hit test. A tap on a pill that opens the panel opens it.
@interface StowOverlay : UIView

- (instancetype)initWithModel:(std::shared_ptr<corvelstow::StowModel>)model;

- (instancetype)initWithFrame:(CGRect)frame NS_UNAVAILABLE;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;

@end

NS_ASSUME_NONNULL_END
