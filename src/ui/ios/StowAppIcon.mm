#import "ui/ios/StowAppIcon.h"

#include <algorithm>
#include <string>

#include "platform/apple/foundation_bridge.h"
#include "ui/app_icon.h"

namespace apple = corvelstow::platform::apple;

namespace {

// How round an app icon's corners are, as a share of its side.
constexpr CGFloat kIconCornerShare = 0.2237;
constexpr CGFloat kIconSide = 60;

UIImage* _Nullable lookUpAppIcon() {
  return apple::catchingAll((UIImage*)nil, []() -> UIImage* {
    NSBundle* bundle = NSBundle.mainBundle;
    NSURL* folder = bundle.bundleURL;
    for (const std::string& name :
         corvelstow::appIconFileNames(apple::plistDictionaryFrom(bundle.infoDictionary))) {
      NSString* file = apple::nsStringFrom(name);
      if (file == nil || folder == nil) continue;
      NSString* path = [folder URLByAppendingPathComponent:file isDirectory:NO].path;
      UIImage* image = [[UIImage alloc] initWithContentsOfFile:path];
      if (image.CGImage != nullptr) return image;
    }
    return nil;
  });
}

}  // namespace

@interface StowAppIcon ()
/// The icon, or nothing over the placeholder's fill.
@property(nonatomic, readonly) UIImageView* imageView;
@end

@implementation StowAppIcon

+ (nullable UIImage*)appIcon {
  static UIImage* icon;
  static dispatch_once_t once;
  dispatch_once(&once, ^{
    icon = lookUpAppIcon();
  });
  return icon;
}

- (instancetype)initWithFrame:(CGRect)frame {
  if ((self = [super initWithFrame:frame])) {
    UIImage* icon = StowAppIcon.appIcon;
    _imageView = [[UIImageView alloc] initWithImage:icon];
    _imageView.contentMode = UIViewContentModeScaleAspectFill;
    _imageView.frame = self.bounds;
    _imageView.autoresizingMask =
        UIViewAutoresizingFlexibleWidth | UIViewAutoresizingFlexibleHeight;
    [self addSubview:_imageView];
    self.backgroundColor = icon != nil ? UIColor.clearColor : UIColor.tertiarySystemFillColor;
    self.layer.cornerCurve = kCACornerCurveContinuous;
    self.layer.masksToBounds = YES;
    self.isAccessibilityElement = NO;
  }
  return self;
}

- (CGSize)intrinsicContentSize {
  return CGSizeMake(kIconSide, kIconSide);
}

- (void)layoutSubviews {
  [super layoutSubviews];
  self.layer.cornerRadius =
      std::min(self.bounds.size.width, self.bounds.size.height) * kIconCornerShare;
}

@end
