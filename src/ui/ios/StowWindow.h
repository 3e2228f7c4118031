#pragma once

#import <UIKit/UIKit.h>

#include <memory>

#include "ui/ios/StowRuntimeName.h"

namespace corvelstow {
class StowModel;
}

NS_ASSUME_NONNULL_BEGIN

/// The overlay window: transparent, above the app's alerts, and in the way of touches only
/// where the engine's hit test (overlayTakesPoint) puts the overlay: around the pill, or
/// everywhere while the panel is presented. It can become the key window only while the panel
/// is presented. It holds no policy of its own.
STOW_RUNTIME_NAME(StowWindow)
@interface StowWindow : UIWindow

/// The panel model, held weakly: the presenter owns it.
@property(nonatomic) std::weak_ptr<corvelstow::StowModel> model;

@end

NS_ASSUME_NONNULL_END
