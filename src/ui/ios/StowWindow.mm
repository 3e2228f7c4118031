#import "ui/ios/StowWindow.h"

#include "ui/hit_test.h"
#include "ui/model.h"

#if !__has_feature(objc_arc)
#error "The iOS views are built with ARC (-fobjc-arc)."
#endif

@implementation StowWindow

#pragma mark - Key status

// Only the panel takes the keyboard and key commands: otherwise the app's own window stays key,
// and the app's casts of its key window's root controller keep working.
- (BOOL)canBecomeKeyWindow {
  return self.rootViewController.presentedViewController != nil;
}

#pragma mark - Hit test

- (BOOL)pointInside:(CGPoint)point withEvent:(nullable UIEvent*)event {
  std::shared_ptr<corvelstow::StowModel> model = self.model.lock();
  BOOL panelPresented = self.rootViewController.presentedViewController != nil;
  return corvelstow::overlayTakesPoint(model.get(), panelPresented, {point.x, point.y});
}

@end
