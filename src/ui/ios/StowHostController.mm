#import "ui/ios/StowHostController.h"

#include <cstdlib>

#include "platform/apple/foundation_bridge.h"
#include "ui/ios/StowObservation.h"
#import "ui/ios/StowOverlay.h"
#import "ui/ios/StowPanel.h"
#import "ui/ios/StowWindow.h"
#include "ui/model.h"

using corvelstow::StowModel;
namespace apple = corvelstow::platform::apple;

@interface StowHostController () <UIAdaptivePresentationControllerDelegate> {
  /// The panel model, held strongly.
  std::shared_ptr<StowModel> _model;
  /// For the panel's numbers and dates; owned by the presenter.
  const corvelstow::platform::Formatters* _formatters;
  /// The observation of panelShown.
  corvelstow::StowObservation _observation;
}
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
    StowPanel* panel = [[StowPanel alloc] initWithModel:_model formatters:*_formatters];
    panel.presentationController.delegate = self;
    [self presentViewController:panel animated:YES completion:nil];
  } else if (!_model->panelShown() && [presented isKindOfClass:StowPanel.class]) {
    [self dismissViewControllerAnimated:YES
                             completion:^{
                               [weakSelf updatePanel];
                             }];
  }
}

#pragma mark - UIAdaptivePresentationControllerDelegate

- (void)presentationControllerDidDismiss:(UIPresentationController*)presentationController {
  // The panel cannot be swiped away; should the system dismiss it, the model hears of it.
  apple::catchingAll([self] { _model->closePanel(); });
}

#pragma mark - The app's status bar and orientations

// The controller in front of the app's key window, which decides for the app.
- (nullable UIViewController*)hostController {
  for (UIWindow* window in self.view.window.windowScene.windows) {
    if (!window.isKeyWindow || [window isKindOfClass:StowWindow.class]) continue;
    UIViewController* controller = window.rootViewController;
    while (controller.presentedViewController != nil) {
      controller = controller.presentedViewController;
    }
    return controller;
  }
  return nil;
}

- (UIStatusBarStyle)preferredStatusBarStyle {
  UIViewController* host = self.hostController;
  return host != nil ? host.preferredStatusBarStyle : [super preferredStatusBarStyle];
}

- (BOOL)prefersStatusBarHidden {
  UIViewController* host = self.hostController;
  return host != nil ? host.prefersStatusBarHidden : [super prefersStatusBarHidden];
}

- (UIInterfaceOrientationMask)supportedInterfaceOrientations {
  UIViewController* host = self.hostController;
  return host != nil ? host.supportedInterfaceOrientations : [super supportedInterfaceOrientations];
}

@end
