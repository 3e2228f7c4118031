#import "ui/ios/StowHostController.h"

#include <cstdlib>

#include <vector>

#include "platform/apple/foundation_bridge.h"
#include "ui/attachments.h"
#include "ui/ios/StowObservation.h"
#import "ui/ios/StowOverlay.h"
#import "ui/ios/StowPanel.h"
#import "ui/ios/StowWindow.h"
#include "ui/model.h"

using corvelstow::StowAttachments;
using corvelstow::StowModel;
namespace apple = corvelstow::platform::apple;

namespace {

/// Answers the controller that `controller` hands a decision to (childViewControllerFor...), or
/// nil when it decides itself.
typedef UIViewController* _Nullable (^StowChildFor)(UIViewController* controller);

// Follows the chain of children that `child` names from `controller` down to the controller that
// decides, as UIKit does. A chain longer than any real one is cut short.
UIViewController* _Nullable decidingController(UIViewController* _Nullable controller,
                                               StowChildFor child) {
  for (int depth = 0; controller != nil && depth < 32; ++depth) {
    UIViewController* next = child(controller);
    if (next == nil || next == controller) break;
    controller = next;
  }
  return controller;
}

}  // namespace

@interface StowHostController () <UIAdaptivePresentationControllerDelegate> {
  /// The panel model, held strongly.
  std::shared_ptr<StowModel> _model;
  /// For the panel's numbers and dates; owned by the presenter.
  const corvelstow::platform::Formatters* _formatters;
  /// The observation of panelShown.
  corvelstow::StowObservation _observation;
}
/// The app's key window before the panel took key status, which gets it back afterwards.
@property(nonatomic, weak, nullable) UIWindow* previousKeyWindow;
@end

@implementation StowHostController

#pragma mark - Lifecycle

- (instancetype)initWithModel:(std::shared_ptr<StowModel>)model
                   formatters:(const corvelstow::platform::Formatters&)formatters {
  if ((self = [super initWithNibName:nil bundle:nil])) {
    _model = std::move(model);
    _formatters = &formatters;
  }
  return self;
}

- (nullable instancetype)initWithCoder:(NSCoder*)coder {
  // The overlay is never archived: a controller decoded from a storyboard has no model.
  std::abort();
}

- (void)loadView {
  self.view = [[StowOverlay alloc] initWithModel:_model];
}

- (void)viewDidLoad {
  [super viewDidLoad];
  __weak StowHostController* weakSelf = self;
  _observation = corvelstow::StowObservation(
      _model, [weakSelf](StowModel::Field field, const corvelstow::StowAnimation&) {
        if (field == StowModel::Field::panelShown) [weakSelf updatePanel];
      });
}

- (void)viewDidAppear:(BOOL)animated {
  [super viewDidAppear:animated];
  [self updatePanel];
}

#pragma mark - The panel

// Presents the panel while the model says it is shown, and dismisses it when it is not.
- (void)updatePanel {
  if (self.viewIfLoaded.window == nil) return;  // viewDidAppear comes back here
  UIViewController* presented = self.presentedViewController;
  if (presented.isBeingDismissed) return;  // the dismissal's completion comes back here
  __weak StowHostController* weakSelf = self;
  if (_model->panelShown() && presented == nil) {
    [self presentPanel];
  } else if (!_model->panelShown() && [presented isKindOfClass:StowPanel.class]) {
    [self dismissViewControllerAnimated:YES
                             completion:^{
                               [weakSelf giveKeyBack];
                               [weakSelf updatePanel];
                             }];
  }
}

- (void)presentPanel {
  // The app's keyboard goes down, so that it neither covers the panel nor types into the app.
  [UIApplication.sharedApplication sendAction:@selector(resignFirstResponder)
                                           to:nil
                                         from:nil
                                     forEvent:nil];
  UIWindow* overlay = self.view.window;
  UIWindow* key = overlay.windowScene.keyWindow;
  self.previousKeyWindow = key != overlay ? key : nil;
  StowPanel* panel = [[StowPanel alloc] initWithModel:_model formatters:*_formatters];
  panel.presentationController.delegate = self;
  [self presentViewController:panel
                     animated:YES
                   completion:^{
                     // The panel takes the keyboard and key commands while it is shown.
                     [overlay makeKeyWindow];
                   }];
}

// Hands key status back to the app's front window, if the overlay holds it.
- (void)giveKeyBack {
  UIWindow* overlay = self.viewIfLoaded.window;
  UIWindow* front = self.frontHostWindow;
  self.previousKeyWindow = nil;
  if (overlay.isKeyWindow) [front makeKeyWindow];
}

#pragma mark - UIAdaptivePresentationControllerDelegate

- (void)presentationControllerDidDismiss:(UIPresentationController*)presentationController {
  // The panel cannot be swiped away; should the system dismiss it, the model hears of it.
  [self giveKeyBack];
  apple::catchingAll([self] { _model->closePanel(); });
}

#pragma mark - The app's status bar and orientations

// The app's front window in the overlay's scene: the one that decides for the app.
- (nullable UIWindow*)frontHostWindow {
  NSArray<UIWindow*>* windows = self.viewIfLoaded.window.windowScene.windows;
  UIWindow* remembered = self.previousKeyWindow;
  std::vector<StowAttachments::HostWindow> listed;
  listed.reserve(windows.count);
  for (UIWindow* window in windows) {
    listed.push_back({static_cast<bool>([window isKindOfClass:StowWindow.class]), !window.hidden,
                      static_cast<bool>(window.isKeyWindow), window == remembered});
  }
  std::optional<std::size_t> front = StowAttachments::frontHostWindow(listed);
  return front ? windows[*front] : nil;
}

// The controller in front of the app's front window.
- (nullable UIViewController*)hostController {
  UIViewController* controller = self.frontHostWindow.rootViewController;
  while (controller.presentedViewController != nil) {
    controller = controller.presentedViewController;
  }
  return controller;
}

- (UIStatusBarStyle)preferredStatusBarStyle {
  UIViewController* host = decidingController(self.hostController, ^(UIViewController* c) {
    return c.childViewControllerForStatusBarStyle;
  });
  return host != nil ? host.preferredStatusBarStyle : [super preferredStatusBarStyle];
}

- (BOOL)prefersStatusBarHidden {
  UIViewController* host = decidingController(self.hostController, ^(UIViewController* c) {
    return c.childViewControllerForStatusBarHidden;
  });
  return host != nil ? host.prefersStatusBarHidden : [super prefersStatusBarHidden];
}

- (BOOL)prefersHomeIndicatorAutoHidden {
  UIViewController* host = decidingController(self.hostController, ^(UIViewController* c) {
    return c.childViewControllerForHomeIndicatorAutoHidden;
  });
  return host != nil ? host.prefersHomeIndicatorAutoHidden : [super prefersHomeIndicatorAutoHidden];
}

- (UIRectEdge)preferredScreenEdgesDeferringSystemGestures {
  UIViewController* host = decidingController(self.hostController, ^(UIViewController* c) {
    return c.childViewControllerForScreenEdgesDeferringSystemGestures;
  });
  return host != nil ? host.preferredScreenEdgesDeferringSystemGestures
                     : [super preferredScreenEdgesDeferringSystemGestures];
}

- (UIInterfaceOrientationMask)supportedInterfaceOrientations {
  UIViewController* host = self.hostController;
  return host != nil ? host.supportedInterfaceOrientations : [super supportedInterfaceOrientations];
}

@end
