#import "ui/ios/StowHostController.h"

#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/apple/foundation_bridge.h"
#include "ui/attachments.h"
#include "ui/ios/StowObservation.h"
#import "ui/ios/StowOverlay.h"
#import "ui/ios/StowPanel.h"
#import "ui/ios/StowWindow.h"
#include "ui/model.h"
#include "ui/presentation.h"

using corvelstow::StowAttachments;
using corvelstow::StowHostDecision;
using corvelstow::StowModel;
using corvelstow::StowPanelStep;
namespace apple = corvelstow::platform::apple;

namespace {

/// A chain longer than any real one is cut short.
constexpr int kLongestChain = 32;

/// Answers the controller that `controller` hands a decision to (childViewControllerFor...), or
/// nil when it decides itself.
typedef UIViewController* _Nullable (^StowChildFor)(UIViewController* controller);

// Follows the chain of children that `child` names from `controller` down to the controller that
// decides, as UIKit does.
UIViewController* _Nullable decidingChild(UIViewController* _Nullable controller,
                                          StowChildFor child) {
  for (int depth = 0; controller != nil && depth < kLongestChain; ++depth) {
    UIViewController* next = child(controller);
    if (next == nil || next == controller) break;
    controller = next;
  }
  return controller;
}

// How `controller` is presented, as UIKit's appearance rules see it.
corvelstow::StowPresented describe(UIViewController* controller, bool root) {
  using Style = corvelstow::StowPresented::Style;
  if (root) return {};
  Style style = Style::other;
  switch (controller.modalPresentationStyle) {
    case UIModalPresentationFullScreen:
      style = Style::fullScreen;
      break;
    case UIModalPresentationOverFullScreen:
      style = Style::overFullScreen;
      break;
    default:
      break;
  }
  return {style, static_cast<bool>(controller.modalPresentationCapturesStatusBarAppearance)};
}

UIViewController* topmost(UIViewController* controller) {
  for (int depth = 0; controller.presentedViewController != nil && depth < kLongestChain; ++depth) {
    controller = controller.presentedViewController;
  }
  return controller;
}

}  // namespace

@interface StowHostController () <UIAdaptivePresentationControllerDelegate> {
  /// The panel model, held strongly.
  std::shared_ptr<StowModel> _model;
  /// For the panel's numbers and dates; owned by the presenter.
  const corvelstow::platform::Formatters* _formatters;
  /// The observation of the pill and panelShown.
  corvelstow::StowObservation _observation;
  /// Whether reconcile runs, and whether it is asked again meanwhile (showing the window or
  /// closing the panel in the model comes back to it).
  BOOL _reconciling;
  BOOL _reconcileAgain;
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
    __weak StowHostController* weakSelf = self;
    _observation = corvelstow::StowObservation(
        _model, [weakSelf](StowModel::Field field, const corvelstow::StowAnimation& animation) {
          StowHostController* controller = weakSelf;
          if (field == StowModel::Field::pill) {
            // The window is shown first, so that the pill is laid out in it.
            [controller reconcile];
            [controller.overlay showPill:animation];
          } else if (field == StowModel::Field::panelShown) {
            [controller reconcile];
          }
        });
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
  self.overlay.pillGone = ^{
    [weakSelf reconcile];
  };
  // A window made again while a pill is up shows it at once.
  [self.overlay showPill:corvelstow::StowAnimation::standard()];
}

- (void)viewDidAppear:(BOOL)animated {
  [super viewDidAppear:animated];
  [self reconcile];
}

- (StowOverlay*)overlay {
  return (StowOverlay*)self.view;
}

#pragma mark - The window and the panel

- (void)reconcile {
  if (_reconciling) {
    _reconcileAgain = YES;
    return;
  }
  _reconciling = YES;
  do {
    _reconcileAgain = NO;
    apple::catchingAll([self] { [self reconcileOnce]; });
  } while (_reconcileAgain);
  _reconciling = NO;
}

- (void)reconcileOnce {
  UIWindow* window = self.overlayWindow;
  if (window == nil) return;
  UIViewController* presented = self.presentedViewController;
  corvelstow::StowOverlayFacts facts;
  facts.pillDrawn = !_model->pill().isNone() || self.overlay.pillOnScreen;
  facts.panelPresented = [presented isKindOfClass:StowPanel.class];
  facts.otherPresented = presented != nil && !facts.panelPresented;
  facts.transitioning = presented.isBeingPresented || presented.isBeingDismissed;
  const corvelstow::StowOverlayPlan plan = corvelstow::planOverlay(_model->panelShown(), facts);
  const BOOL hidden = !plan.windowShown;
  if (window.hidden != hidden) window.hidden = hidden;
  switch (plan.panel) {
    case StowPanelStep::none:
      break;
    case StowPanelStep::present:
      [self presentPanel];
      break;
    case StowPanelStep::dismiss:
      [self dismissViewControllerAnimated:YES completion:nil];
      break;
    case StowPanelStep::closeInModel:
      _model->closePanel();
      break;
  }
}

- (void)presentPanel {
  // The app's keyboard goes down, so that it neither covers the panel nor types into the app.
  [UIApplication.sharedApplication sendAction:@selector(resignFirstResponder)
                                           to:nil
                                         from:nil
                                     forEvent:nil];
  UIWindow* overlay = self.overlayWindow;
  UIWindow* key = overlay.windowScene.keyWindow;
  self.previousKeyWindow = key != overlay ? key : nil;
  StowPanel* panel = [[StowPanel alloc] initWithModel:_model formatters:*_formatters];
  panel.presentationController.delegate = self;
  __weak StowHostController* weakSelf = self;
  [self presentViewController:panel
                     animated:YES
                   completion:^{
                     // The panel takes the keyboard and key commands while it is shown.
                     [overlay makeKeyWindow];
                     [weakSelf reconcile];
                   }];
}

// Hands key status back to the app's front window, if the overlay holds it.
- (void)giveKeyBack {
  UIWindow* overlay = self.overlayWindow;
  UIWindow* front = self.frontHostWindow;
  self.previousKeyWindow = nil;
  if (overlay.isKeyWindow) [front makeKeyWindow];
}

#pragma mark - Presentations over the overlay

- (void)presentViewController:(UIViewController*)controller
                     animated:(BOOL)animated
                   completion:(nullable void (^)(void))completion {
  UIViewController* host =
      [controller isKindOfClass:StowPanel.class] ? nil : self.hostForAppPresentation;
  if (host != nil && host != self) {
    [host presentViewController:controller animated:animated completion:completion];
    return;
  }
  [super presentViewController:controller animated:animated completion:completion];
}

// Where a controller the app presents on the overlay goes instead (app code that presents on
// the key or the last window's root): over the panel while it is up, so that it is seen;
// otherwise on the app's own front controller.
- (nullable UIViewController*)hostForAppPresentation {
  UIViewController* presented = self.presentedViewController;
  if (presented != nil && !presented.isBeingDismissed) return topmost(presented);
  return self.hostFront;
}

- (void)dismissViewControllerAnimated:(BOOL)animated
                           completion:(nullable void (^)(void))completion {
  __weak StowHostController* weakSelf = self;
  [super dismissViewControllerAnimated:animated
                            completion:^{
                              if (completion != nil) completion();
                              // Whatever ended, the window and the panel follow the model again.
                              StowHostController* controller = weakSelf;
                              if (controller.presentedViewController == nil)
                                [controller giveKeyBack];
                              [controller reconcile];
                            }];
}

#pragma mark - UIAdaptivePresentationControllerDelegate

- (void)presentationControllerDidDismiss:(UIPresentationController*)presentationController {
  // The panel cannot be swiped away; should the system dismiss it, the model hears of it.
  [self giveKeyBack];
  apple::catchingAll([self] { _model->closePanel(); });
  [self reconcile];
}

#pragma mark - The app's status bar and orientations

// The app's front window in the overlay's scene: the one that decides for the app.
- (nullable UIWindow*)frontHostWindow {
  NSArray<UIWindow*>* windows = self.overlayWindow.windowScene.windows;
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
- (nullable UIViewController*)hostFront {
  UIViewController* root = self.frontHostWindow.rootViewController;
  return root != nil ? topmost(root) : nil;
}

// The controller of the app's front window that decides `what`: its root, or one presented over
// it that takes the decision over by UIKit's rule.
- (nullable UIViewController*)hostDeciding:(StowHostDecision)what {
  NSMutableArray<UIViewController*>* chain = [NSMutableArray array];
  std::vector<corvelstow::StowPresented> described;
  for (UIViewController* controller = self.frontHostWindow.rootViewController;
       controller != nil && chain.count < kLongestChain;
       controller = controller.presentedViewController) {
    described.push_back(describe(controller, chain.count == 0));
    [chain addObject:controller];
  }
  if (chain.count == 0) return nil;
  return chain[corvelstow::decidingPresented(described, what)];
}

- (nullable UIViewController*)hostDeciding:(StowHostDecision)what
                           throughChildren:(StowChildFor)child {
  return decidingChild([self hostDeciding:what], child);
}

- (UIStatusBarStyle)preferredStatusBarStyle {
  UIViewController* host = [self hostDeciding:StowHostDecision::statusBar
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForStatusBarStyle;
                              }];
  return host != nil ? host.preferredStatusBarStyle : [super preferredStatusBarStyle];
}

- (BOOL)prefersStatusBarHidden {
  UIViewController* host = [self hostDeciding:StowHostDecision::statusBar
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForStatusBarHidden;
                              }];
  return host != nil ? host.prefersStatusBarHidden : [super prefersStatusBarHidden];
}

- (UIStatusBarAnimation)preferredStatusBarUpdateAnimation {
  UIViewController* host = [self hostDeciding:StowHostDecision::statusBar
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForStatusBarHidden;
                              }];
  return host != nil ? host.preferredStatusBarUpdateAnimation
                     : [super preferredStatusBarUpdateAnimation];
}

- (BOOL)prefersHomeIndicatorAutoHidden {
  UIViewController* host = [self hostDeciding:StowHostDecision::window
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForHomeIndicatorAutoHidden;
                              }];
  return host != nil ? host.prefersHomeIndicatorAutoHidden : [super prefersHomeIndicatorAutoHidden];
}

- (UIRectEdge)preferredScreenEdgesDeferringSystemGestures {
  UIViewController* host = [self hostDeciding:StowHostDecision::window
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForScreenEdgesDeferringSystemGestures;
                              }];
  return host != nil ? host.preferredScreenEdgesDeferringSystemGestures
                     : [super preferredScreenEdgesDeferringSystemGestures];
}

- (BOOL)prefersPointerLocked {
  UIViewController* host = [self hostDeciding:StowHostDecision::window
                              throughChildren:^(UIViewController* c) {
                                return c.childViewControllerForPointerLock;
                              }];
  return host != nil ? host.prefersPointerLocked : [super prefersPointerLocked];
}

- (BOOL)shouldAutorotate {
  UIViewController* host = [self hostDeciding:StowHostDecision::window];
  return host != nil ? host.shouldAutorotate : [super shouldAutorotate];
}

- (UIInterfaceOrientationMask)supportedInterfaceOrientations {
  UIViewController* host = [self hostDeciding:StowHostDecision::window];
  return host != nil ? host.supportedInterfaceOrientations : [super supportedInterfaceOrientations];
}

@end
