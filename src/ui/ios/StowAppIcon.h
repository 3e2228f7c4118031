#pragma once

#import <UIKit/UIKit.h>

#include "ui/ios/StowRuntimeName.h"

NS_ASSUME_NONNULL_BEGIN

/// The host app's icon, as the panel's header shows it: the first of the engine's candidate
/// files (appIconFileNames) in the app's bundle folder that loads as an image with a bitmap,
/// or a neutral rounded square when none does.
STOW_RUNTIME_NAME(StowAppIcon)
@interface StowAppIcon : UIView

/// The app's icon, looked up at the first call (main thread); nil when no candidate loads.
+ (nullable UIImage*)appIcon;

@end

NS_ASSUME_NONNULL_END
