#import "ui/ios/StowWindow.h"

#include "ui/hit_test.h"
#include "ui/model.h"

#if !__has_feature(objc_arc)
#error "The iOS views are built with ARC (-fobjc-arc)."
#endif

@implementation StowWindow

#pragma mark - Hit test

- (BOOL)pointInside:(CGPoint)point withEvent:(nullable UIEvent*)event {
  std::shared_ptr<corvelstow::StowModel> model = self.model.lock();
  BOOL panelPresented = self.rootViewController.presentedViewController != nil;
  return corvelstow::overlayTakesPoint(model.get(), panelPresented, {point.x, point.y});
}

@end
