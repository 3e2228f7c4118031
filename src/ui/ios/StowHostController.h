#pragma once

#import <UIKit/UIKit.h>

#include <memory>

#include "ui/ios/StowRuntimeName.h"

namespace corvelstow {
class StowModel;
namespace platform {
class Formatters;
}
}  // namespace corvelstow

NS_ASSUME_NONNULL_BEGIN

/// The overlay window's root: its view is the overlay with the pill (StowOverlay), and while
/// the model's panelShown holds it presents the panel (StowPanel) as a sheet, with the app's
/// keyboard put away and the overlay as the key window, which hands key status back to the
/// app's window when the panel closes. It shows its window only while there is a pill, the
/// panel, or a presentation over it (planOverlay). Holds the model strongly.
///
/// The status bar, the home indicator, the deferred screen edges, the pointer lock and the
/// orientations are the app's own: it asks the controller of the app's front window that
/// UIKit's rule names (decidingPresented), down the chain of children that decide each. It is
/// no presentation host for the app: what the app presents on it goes to the app's front
/// controller, or over the panel while the panel is up.
STOW_RUNTIME_NAME(StowHostController)
@interface StowHostController : UIViewController

/// The overlay window whose root this is, set as it is made: reconcile shows and hides it.
@property(nonatomic, weak, nullable) UIWindow* overlayWindow;

/// Shows or hides the window and presents or dismisses the panel, so that they follow the
/// model. Called on every change of the pill or the panel and whenever a presentation over the
/// overlay ends; also by a hold, so that a panel the model holds "shown" but that nothing
/// presents is presented again.
- (void)reconcile;

/// `formatters` must outlive the controller.
- (instancetype)initWithModel:(std::shared_ptr<corvelstow::StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters;

- (instancetype)init NS_UNAVAILABLE;
- (instancetype)initWithNibName:(nullable NSString*)nibName
                         bundle:(nullable NSBundle*)bundle NS_UNAVAILABLE;
/// Not supported: ends the process.
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_UNAVAILABLE;

@end

NS_ASSUME_NONNULL_END
