#include "platform/apple/foundation_bridge.h"
#include "platform/apple/picked_files.h"
#include "platform/platform.h"

namespace corvelstow::platform {
namespace apple {
namespace {

// Path → the picker's location. Made on first use; the picker writes on the main queue while
// the model's background work reads.
NSMutableDictionary<NSString*, NSURL*>* pickedFiles() {
  static NSMutableDictionary<NSString*, NSURL*>* files;
  static dispatch_once_t once;
  dispatch_once(&once, ^{
    files = [NSMutableDictionary dictionary];
  });
  return files;
}

}  // namespace

void rememberPickedFile(NSURL* location) {
  NSString* path = location.path;
  if (!location.isFileURL || path.length == 0) return;
  NSMutableDictionary<NSString*, NSURL*>* files = pickedFiles();
  @synchronized(files) {
    files[path] = location;
  }
}

NSURL* pickedFileLocation(NSString* path) {
  NSMutableDictionary<NSString*, NSURL*>* files = pickedFiles();
  @synchronized(files) {
    if (NSURL* location = files[path]) return location;
  }
  return [NSURL fileURLWithPath:path];
}

}  // namespace apple

ScopedFileAccess::ScopedFileAccess(const fs::path& file) noexcept {
  grant_ = apple::catchingAll(static_cast<void*>(nullptr), [&file]() -> void* {
    NSString* path =
        [NSFileManager.defaultManager stringWithFileSystemRepresentation:file.c_str()
                                                                  length:file.native().size()];
    if (path.length == 0) return nullptr;
    NSURL* location = apple::pickedFileLocation(path);
    if (![location startAccessingSecurityScopedResource]) return nullptr;
    // Held until the destructor, which ends the access on the same location.
    return (__bridge_retained void*)location;
  });
}

ScopedFileAccess::~ScopedFileAccess() {
  if (grant_ == nullptr) return;
  NSURL* location = (__bridge_transfer NSURL*)grant_;
  grant_ = nullptr;
  apple::catchingAll([location] { [location stopAccessingSecurityScopedResource]; });
}

}  // namespace corvelstow::platform
