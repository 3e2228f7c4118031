#pragma once

#import <UIKit/UIKit.h>

#include <memory>

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
/// app's window when the panel closes. Holds the model strongly. The status bar, the home
/// indicator, the deferred screen edges and the orientations are the app's own: it asks the
/// controller in front of the app's window, down the chain of children that decide each.
@interface StowHostController : UIViewController

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
