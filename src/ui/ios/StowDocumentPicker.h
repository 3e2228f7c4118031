#pragma once

#import <UIKit/UIKit.h>

#include "ui/ios/StowRuntimeName.h"

NS_ASSUME_NONNULL_BEGIN

/// Receives the picked file, or nil when the user cancelled.
typedef void (^StowPickedFile)(NSURL* _Nullable location);

/// The document picker with which the user chooses a backup: it opens a copy of the file (so
/// that the app always works on its own copy) of the zip type, the generic data type, or the
/// type of the ".corvelappdata" extension when the system can form it. Only the first picked
/// file counts.
STOW_RUNTIME_NAME(StowDocumentPicker)
@interface StowDocumentPicker : NSObject

- (instancetype)initWithDone:(StowPickedFile)done NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;

/// Called once, with the first picked location or with nil.
@property(nonatomic, readonly) StowPickedFile done;

/// A new system picker whose delegate is this picker's coordinator. The picker must be kept
/// while its controller is shown: the controller holds its delegate weakly.
- (UIDocumentPickerViewController*)makeController;

@end

NS_ASSUME_NONNULL_END
