#pragma once

// Objective-C++ only: the locations the document picker returned, for ScopedFileAccess.

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

namespace corvelstow::platform::apple {

/// Keeps `location`, as the document picker returned it, under its path: security-scoped
/// access can begin only on that very location, not on one made again from the path, so
/// ScopedFileAccess looks it up here. Callable from any thread.
void rememberPickedFile(NSURL* location);

/// The location remembered for `path`, or a plain file location for it.
NSURL* pickedFileLocation(NSString* path);

}  // namespace corvelstow::platform::apple

NS_ASSUME_NONNULL_END
