#pragma once

#import <UIKit/UIKit.h>

#include <filesystem>
#include <memory>

#include "ui/ios/StowRuntimeName.h"

@class StowShareItem;

namespace corvelstow {
class StowModel;
namespace platform {
class Formatters;
}
}  // namespace corvelstow

NS_ASSUME_NONNULL_BEGIN

/// The panel: a navigation view titled as the engine says ("App Data") with its "Done"
/// button, over the sections the engine decided (panelContent), drawn again at every change of
/// the model. Its buttons and switches call the model actions the engine names; it presents
/// the document picker and the share sheet from itself. It cannot be swiped away. Its views
/// live in StowInterface.mm.
STOW_RUNTIME_NAME(StowPanel)
@interface StowPanel : UINavigationController

/// `formatters` must outlive the panel.
- (instancetype)initWithModel:(std::shared_ptr<corvelstow::StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters;

- (instancetype)init NS_UNAVAILABLE;
- (instancetype)initWithRootViewController:(UIViewController*)root NS_UNAVAILABLE;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;

/// Whether the document picker is shown.
@property(nonatomic, readonly) BOOL picking;

/// The file the share sheet is shown for, if it is shown.
@property(nonatomic, readonly, nullable) StowShareItem* sharing;

/// Shows the document picker; the picked file goes to the model's chooseBackup.
- (void)pickBackup;

/// Shows the share sheet for `file`, unless it is shown for it already or something else is
/// presented over the panel.
- (void)shareFile:(const std::filesystem::path&)file;

@end

NS_ASSUME_NONNULL_END
