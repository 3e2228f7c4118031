#import "ui/ios/StowShareSheet.h"

#pragma mark - StowShareItem

@implementation StowShareItem

- (instancetype)initWithURL:(NSURL*)url {
  if ((self = [super init])) _url = [url copy];
  return self;
}

- (BOOL)isEqual:(id)other {
  if (self == other) return YES;
  if (![other isKindOfClass:StowShareItem.class]) return NO;
  return [self.url isEqual:((StowShareItem*)other).url];
}

- (NSUInteger)hash {
  return self.url.hash;
}

@end

#pragma mark - StowShareSheet

@implementation StowShareSheet

- (instancetype)initWithURL:(NSURL*)url {
  if ((self = [super init])) _url = [url copy];
  return self;
}

- (UIActivityViewController*)makeControllerWithDone:(void (^)(void))done {
  UIActivityViewController* controller =
      [[UIActivityViewController alloc] initWithActivityItems:@[ self.url ]
                                        applicationActivities:nil];
  controller.completionWithItemsHandler =
      ^(UIActivityType _Nullable, BOOL, NSArray* _Nullable, NSError* _Nullable) {
        done();
      };
  return controller;
}

@end
