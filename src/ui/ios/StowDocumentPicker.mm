#import "ui/ios/StowDocumentPicker.h"

#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

#include "backup/backup.h"
#include "platform/apple/foundation_bridge.h"

namespace apple = corvelstow::platform::apple;

#pragma mark - StowDocumentPickerCoordinator

/// The system picker's delegate: hands the outcome to `done`, once.
STOW_RUNTIME_NAME(StowDocumentPickerCoordinator)
@interface StowDocumentPickerCoordinator : NSObject <UIDocumentPickerDelegate>
- (instancetype)initWithDone:(StowPickedFile)done;
@end

@interface StowDocumentPickerCoordinator ()
/// The picker's callback; nil once called.
@property(nonatomic, copy, nullable) StowPickedFile done;
@end

@implementation StowDocumentPickerCoordinator

- (instancetype)initWithDone:(StowPickedFile)done {
  if ((self = [super init])) _done = [done copy];
  return self;
}

- (void)finishWith:(nullable NSURL*)location {
  StowPickedFile done = self.done;
  self.done = nil;
  if (done != nil) done(location);
}

- (void)documentPicker:(UIDocumentPickerViewController*)controller
    didPickDocumentsAtURLs:(NSArray<NSURL*>*)urls {
  [self finishWith:urls.firstObject];
}

- (void)documentPickerWasCancelled:(UIDocumentPickerViewController*)controller {
  [self finishWith:nil];
}

@end

#pragma mark - StowDocumentPicker

@interface StowDocumentPicker ()
/// The delegate of the controllers this picker makes.
@property(nonatomic, readonly) StowDocumentPickerCoordinator* coordinator;
@end

@implementation StowDocumentPicker

- (instancetype)initWithDone:(StowPickedFile)done {
  if ((self = [super init])) {
    _done = [done copy];
    _coordinator = [[StowDocumentPickerCoordinator alloc] initWithDone:_done];
  }
  return self;
}

- (UIDocumentPickerViewController*)makeController {
  NSMutableArray<UTType*>* types = [NSMutableArray arrayWithObjects:UTTypeZIP, UTTypeData, nil];
  NSString* extension = apple::nsStringFrom(corvelstow::kBackupExtension);
  if (UTType* backup = extension != nil ? [UTType typeWithFilenameExtension:extension
                                                           conformingToType:UTTypeData]
                                        : nil) {
    [types addObject:backup];
  }
  UIDocumentPickerViewController* controller =
      [[UIDocumentPickerViewController alloc] initForOpeningContentTypes:types asCopy:YES];
  controller.allowsMultipleSelection = NO;
  controller.delegate = self.coordinator;
  return controller;
}

@end
