#import "ui/ios/StowTraits.h"

#import <objc/message.h>

BOOL StowObserveDrawingTraits(UIView* view, SEL action) {
  // The version is asked of NSProcessInfo: @available calls into the compiler's runtime library,
  // which Debian's clang does not have for iOS.
  const NSOperatingSystemVersion iOS17 = {17, 0, 0};
  if (![NSProcessInfo.processInfo isOperatingSystemAtLeastVersion:iOS17]) return NO;
  // Named at run time: the SDK the library is built with may predate iOS 17. The traits are
  // classes there (UITraitUserInterfaceStyle and its kind).
  SEL registration = NSSelectorFromString(@"registerForTraitChanges:withAction:");
  NSMutableArray* traits = [NSMutableArray array];
  for (NSString* name in @[
         @"UITraitUserInterfaceStyle", @"UITraitDisplayScale",
         @"UITraitPreferredContentSizeCategory"
       ]) {
    Class trait = NSClassFromString(name);
    if (trait != Nil) [traits addObject:trait];
  }
  if (![view respondsToSelector:registration] || traits.count == 0) return NO;
  using Register = id (*)(id, SEL, NSArray*, SEL);
  reinterpret_cast<Register>(objc_msgSend)(view, registration, traits, action);
  return YES;
}
