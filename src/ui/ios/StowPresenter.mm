#import "ui/ios/StowPresenter.h"

#include <memory>
#include <optional>
#include <vector>

#include "platform/apple/foundation_bridge.h"
#include "platform/apple/foundation_formatters.h"
#include "platform/apple/gcd_dispatcher.h"
#include "platform/apple/uikit_app_control.h"
#include "store/host_app.h"
#include "store/layout.h"
#include "ui/attachments.h"
#include "ui/hit_test.h"
#import "ui/ios/StowHostController.h"
#import "ui/ios/StowWindow.h"
#include "ui/model.h"

using corvelstow::StowAttachments;
using corvelstow::StowModel;
using Placement = StowAttachments::Placement;
namespace apple = corvelstow::platform::apple;

namespace {

StowAttachments::Identity identity(id _Nullable object) { return (__bridge const void*)object; }

}  // namespace

#pragma mark - StowHoldRecognizer

/// A hold that opens the panel. The recognizer carries what it is, so that nothing has to be
/// remembered about it elsewhere: a window carries the holds when one of its recognizers is one.
STOW_RUNTIME_NAME(StowHoldRecognizer)
@interface StowHoldRecognizer : UILongPressGestureRecognizer
@property(nonatomic) corvelstow::StowHold hold;
@end

@implementation StowHoldRecognizer
@end

namespace {

bool carriesHolds(UIWindow* window) {
  for (UIGestureRecognizer* recognizer in window.gestureRecognizers) {
    if ([recognizer isKindOfClass:StowHoldRecognizer.class]) return true;
  }
  return false;
}

}  // namespace

#pragma mark - StowPresenter

@interface StowPresenter () {
  /// The queues, formatters and app control that the model and the panel work with; they
  /// outlive the model, which refers to them.
  std::unique_ptr<apple::GcdDispatcher> _dispatcher;
  std::unique_ptr<apple::FoundationFormatters> _formatters;
  std::unique_ptr<apple::UIKitAppControl> _appControl;
  /// The panel model, for the life of the process; null when it could not be made (no app
  /// container), and then the presenter shows nothing.
  std::shared_ptr<StowModel> _model;
  /// Whether the greeting is scheduled.
  StowAttachments _attachments;
}

/// The overlay window, made at the first attach and again when it moves to another scene.
@property(nonatomic, nullable) StowWindow* window;

/// The scene the overlay window was made for, while that scene exists.
@property(nonatomic, weak, nullable) UIWindowScene* overlayScene;

@end

@implementation StowPresenter

#pragma mark - Lifecycle

+ (StowPresenter*)shared {
  static StowPresenter* presenter;
  static dispatch_once_t once;
  dispatch_once(&once, ^{
    presenter = [[StowPresenter alloc] init];
  });
  return presenter;
}

- (instancetype)init {
  if ((self = [super init])) {
    _dispatcher = std::make_unique<apple::GcdDispatcher>();
    _formatters = std::make_unique<apple::FoundationFormatters>();
    _appControl = std::make_unique<apple::UIKitAppControl>();
    _model = apple::catchingAll(std::shared_ptr<StowModel>(), [self] {
      return StowModel::create({corvelstow::StowLayout::shared(), corvelstow::StowHostApp::shared(),
                                *_dispatcher, *_appControl});
    });
    // The presenter lives as long as the process: the observations are never removed.
    NSNotificationCenter* center = NSNotificationCenter.defaultCenter;
    [center addObserver:self
               selector:@selector(sceneDidDisconnect:)
                   name:UISceneDidDisconnectNotification
                 object:nil];
    [center addObserver:self
               selector:@selector(voiceOverChanged)
                   name:UIAccessibilityVoiceOverStatusDidChangeNotification
                 object:nil];
    [self voiceOverChanged];
  }
  return self;
}

- (void)voiceOverChanged {
  if (!_model) return;
  BOOL running = UIAccessibilityIsVoiceOverRunning();
  apple::catchingAll([self, running] { _model->setVoiceOverRunning(running); });
}

#pragma mark - Scenes

// The overlay window as the attach rules see it now.
- (StowAttachments::Overlay)overlay {
  return {identity(self.window != nil ? self.overlayScene : nil), _model && _model->panelShown()};
}

- (void)attachScene:(UIWindowScene*)scene {
  if (!_model) return;
  // An external display, or a screen shown on a TV, is no scene of the app's own to serve.
  BOOL application = [scene.session.role isEqualToString:UIWindowSceneSessionRoleApplication];
  Placement placement = StowAttachments::activated(identity(scene), application, self.overlay);
  if (placement == Placement::ignore) return;
  if (placement == Placement::moveHere) [self makeWindowForScene:scene];
  [self instrumentWindowsOfScene:scene];
  if (_attachments.scheduleGreeting()) {
    std::weak_ptr<StowModel> model = _model;
    _dispatcher->after(StowAttachments::kGreetDelay, [model] {
      if (auto greeted = model.lock()) greeted->greet();
    });
  }
}

- (void)sceneDidDisconnect:(NSNotification*)notification {
  if (!StowAttachments::detaches(identity(notification.object), self.overlay)) return;
  // The overlay goes with its scene, and the panel with it: the next hold opens it elsewhere.
  self.window.hidden = YES;
  self.window = nil;
  if (_model) apple::catchingAll([self] { _model->closePanel(); });
}

- (void)makeWindowForScene:(UIWindowScene*)scene {
  StowWindow* window = [[StowWindow alloc] initWithWindowScene:scene];
  window.model = _model;
  window.windowLevel = UIWindowLevelAlert + 1.0;
  window.backgroundColor = UIColor.clearColor;
  StowHostController* controller = [[StowHostController alloc] initWithModel:_model
                                                                  formatters:*_formatters];
  window.rootViewController = controller;
  controller.overlayWindow = window;
  self.window.hidden = YES;
  self.window = window;
  self.overlayScene = scene;
  // Shown, without becoming key, only while it has something to show: the app's key window and
  // first responder stay as they are.
  [controller reconcile];
}

- (void)reconcileOverlay {
  [(StowHostController*)self.window.rootViewController reconcile];
}

- (void)instrumentWindowsOfScene:(UIWindowScene*)scene {
  NSArray<UIWindow*>* windows = scene.windows;
  std::vector<StowAttachments::SceneWindow> listed;
  listed.reserve(windows.count);
  for (UIWindow* window in windows) {
    listed.push_back(
        {static_cast<bool>([window isKindOfClass:StowWindow.class]), carriesHolds(window)});
  }
  for (std::size_t position : StowAttachments::windowsToInstrument(listed)) {
    UIWindow* window = windows[position];
    for (const corvelstow::StowHold& hold :
         {corvelstow::kThreeFingerHold, corvelstow::kOneFingerHold}) {
      [window addGestureRecognizer:[self recognizerFor:hold]];
    }
    [self offerPanelToVoiceOverIn:window];
  }
}

// VoiceOver takes the holds' gestures for its own (three fingers scroll, one finger explores):
// its users open the panel with a custom action of the app's window, in its actions rotor,
// whatever the pill shows.
- (void)offerPanelToVoiceOverIn:(UIWindow*)window {
  __weak StowPresenter* weakSelf = self;
  __weak UIWindow* weakWindow = window;
  UIAccessibilityCustomAction* action =
      [[UIAccessibilityCustomAction alloc] initWithName:@"App Data Backups"
                                          actionHandler:^BOOL(UIAccessibilityCustomAction*) {
                                            UIWindowScene* scene = weakWindow.windowScene;
                                            if (scene == nil) return NO;
                                            [weakSelf openPanelInScene:scene];
                                            return YES;
                                          }];
  NSArray<UIAccessibilityCustomAction*>* actions = window.accessibilityCustomActions;
  window.accessibilityCustomActions =
      actions != nil ? [actions arrayByAddingObject:action] : @[ action ];
}

- (StowHoldRecognizer*)recognizerFor:(const corvelstow::StowHold&)hold {
  StowHoldRecognizer* recognizer = [[StowHoldRecognizer alloc] initWithTarget:self
                                                                       action:@selector(pressed:)];
  recognizer.hold = hold;
  recognizer.numberOfTouchesRequired = static_cast<NSUInteger>(hold.touches);
  recognizer.minimumPressDuration = hold.seconds;
  recognizer.cancelsTouchesInView = NO;
  recognizer.delegate = self;
  return recognizer;
}

#pragma mark - Holds

- (void)pressed:(UILongPressGestureRecognizer*)recognizer {
  if (recognizer.state != UIGestureRecognizerStateBegan) return;
  // Ends the gesture at once, so that it does not go on tracking.
  recognizer.enabled = NO;
  recognizer.enabled = YES;
  [self openPanelInScene:recognizer.view.window.windowScene];
}

// The panel opens in the scene that was held, not wherever the overlay was last.
- (void)openPanelInScene:(nullable UIWindowScene*)scene {
  if (!_model) return;
  if (scene != nil && StowAttachments::held(identity(scene), self.overlay) == Placement::moveHere) {
    [self makeWindowForScene:scene];
  }
  apple::catchingAll([self] { _model->openPanel(); });
  // A panel the model holds shown but that nothing presents is presented again.
  [self reconcileOverlay];
}

#pragma mark - UIGestureRecognizerDelegate

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)recognizer shouldReceiveTouch:(UITouch*)touch {
  std::optional<corvelstow::StowWindowTouch> inWindow;
  if ([recognizer.view isKindOfClass:UIWindow.class]) {
    UIWindow* window = (UIWindow*)recognizer.view;
    inWindow = corvelstow::StowWindowTouch{
        window.safeAreaInsets.top, [touch locationInView:window].y,
        static_cast<bool>(window.windowScene.statusBarManager.statusBarHidden)};
  }
  BOOL stripOnly = [recognizer isKindOfClass:StowHoldRecognizer.class] &&
                   ((StowHoldRecognizer*)recognizer).hold.stripOnly;
  return corvelstow::holdTakesTouch(stripOnly, inWindow);
}

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)recognizer
    shouldRecognizeSimultaneouslyWithGestureRecognizer:(UIGestureRecognizer*)other {
  // The app's own recognizers go on working beside the holds.
  return YES;
}

@end
