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
namespace apple = corvelstow::platform::apple;

namespace {

StowAttachments::Identity identity(id _Nullable object) { return (__bridge const void*)object; }

}  // namespace

@interface StowPresenter () {
  /// The queues, formatters and app control that the model and the panel work with; they
  /// outlive the model, which refers to them.
  std::unique_ptr<apple::GcdDispatcher> _dispatcher;
  std::unique_ptr<apple::FoundationFormatters> _formatters;
  std::unique_ptr<apple::UIKitAppControl> _appControl;
  /// The panel model, for the life of the process; null when it could not be made (no app
  /// container), and then the presenter shows nothing.
  std::shared_ptr<StowModel> _model;
  /// The host windows that carry the holds (`watched`), the strip-only recognizers
  /// (`stripRecognizers`) and whether the greeting is scheduled.
  StowAttachments _attachments;
}

/// The overlay window, made at the first attach and again when the scene changes.
@property(nonatomic, nullable) StowWindow* window;

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
  }
  return self;
}

#pragma mark - Attach

- (void)attachScene:(UIWindowScene*)scene {
  if (!_model) return;
  if (StowAttachments::needsOverlayWindow(identity(self.window.windowScene), identity(scene))) {
    [self makeWindowForScene:scene];
  }
  [self instrumentWindowsOfScene:scene];
  if (_attachments.scheduleGreeting()) {
    std::weak_ptr<StowModel> model = _model;
    _dispatcher->after(StowAttachments::kGreetDelay, [model] {
      if (auto greeted = model.lock()) greeted->greet();
    });
  }
}

- (void)makeWindowForScene:(UIWindowScene*)scene {
  StowWindow* window = [[StowWindow alloc] initWithWindowScene:scene];
  window.model = _model;
  window.windowLevel = UIWindowLevelAlert + 1.0;
  window.backgroundColor = UIColor.clearColor;
  window.rootViewController = [[StowHostController alloc] initWithModel:_model
                                                             formatters:*_formatters];
  // Shown without becoming key: the app's key window and first responder stay as they are.
  window.hidden = NO;
  self.window.hidden = YES;
  self.window = window;
}

- (void)instrumentWindowsOfScene:(UIWindowScene*)scene {
  NSArray<UIWindow*>* windows = scene.windows;
  std::vector<StowAttachments::SceneWindow> listed;
  listed.reserve(windows.count);
  for (UIWindow* window in windows) {
    listed.push_back({identity(window), [window isKindOfClass:StowWindow.class]});
  }
  for (std::size_t position : _attachments.instrument(listed)) {
    UIWindow* window = windows[position];
    for (const corvelstow::StowHold& hold :
         {corvelstow::kThreeFingerHold, corvelstow::kOneFingerHold}) {
      UILongPressGestureRecognizer* recognizer = [self recognizerFor:hold];
      [window addGestureRecognizer:recognizer];
      if (hold.stripOnly) _attachments.addStripRecognizer(identity(recognizer));
    }
  }
}

- (UILongPressGestureRecognizer*)recognizerFor:(const corvelstow::StowHold&)hold {
  UILongPressGestureRecognizer* recognizer =
      [[UILongPressGestureRecognizer alloc] initWithTarget:self action:@selector(pressed:)];
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
  if (!_model) return;
  apple::catchingAll([self] { _model->openPanel(); });
}

#pragma mark - UIGestureRecognizerDelegate

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)recognizer shouldReceiveTouch:(UITouch*)touch {
  std::optional<corvelstow::StowWindowTouch> inWindow;
  if ([recognizer.view isKindOfClass:UIWindow.class]) {
    UIWindow* window = (UIWindow*)recognizer.view;
    inWindow =
        corvelstow::StowWindowTouch{window.safeAreaInsets.top, [touch locationInView:window].y};
  }
  return corvelstow::holdTakesTouch(_attachments.isStripRecognizer(identity(recognizer)), inWindow);
}

- (BOOL)gestureRecognizer:(UIGestureRecognizer*)recognizer
    shouldRecognizeSimultaneouslyWithGestureRecognizer:(UIGestureRecognizer*)other {
  // The app's own recognizers go on working beside the holds.
  return YES;
}

@end
