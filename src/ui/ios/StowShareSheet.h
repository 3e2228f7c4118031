#pragma once

#import <UIKit/UIKit.h>

#include "ui/ios/StowRuntimeName.h"

NS_ASSUME_NONNULL_BEGIN

/// The file the panel's share sheet is shown for: two items are the same when their
/// locations are, so that asking again for the file already shown changes nothing.
STOW_RUNTIME_NAME(StowShareItem)
@interface StowShareItem : NSObject

- (instancetype)initWithURL:(NSURL*)url NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;

@property(nonatomic, readonly) NSURL* url;

@end

/// The system share sheet for one file, with no activities of our own.
STOW_RUNTIME_NAME(StowShareSheet)
@interface StowShareSheet : NSObject

- (instancetype)initWithURL:(NSURL*)url NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;

@property(nonatomic, readonly) NSURL* url;

/// A new activity controller for the file; `done` runs when it is dismissed.
- (UIActivityViewController*)makeControllerWithDone:(void (^)(void))done;

@end

NS_ASSUME_NONNULL_END
