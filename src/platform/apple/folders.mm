#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

// The two roots of every location, the app's sandbox container and its temporary folder, and
// the room left on their volume.
namespace corvelstow::platform {

std::optional<fs::path> containerFolder() {
  return apple::catchingAll(std::optional<fs::path>(),
                            [] { return apple::pathFrom(NSHomeDirectory()); });
}

fs::path temporaryFolder() {
  // NSTemporaryDirectory() always answers inside the sandbox; the fallback is never used there.
  return apple::catchingAll(fs::path("/tmp"), [] {
    return apple::pathFrom(NSTemporaryDirectory()).value_or(fs::path("/tmp"));
  });
}

std::optional<std::uint64_t> freeSpace(const fs::path& folder) {
  return apple::catchingAll(std::optional<std::uint64_t>(), [&]() -> std::optional<std::uint64_t> {
    NSString* path = apple::nsStringFrom(folder.string());
    if (path == nil) return std::nullopt;
    NSURL* url = [NSURL fileURLWithPath:path isDirectory:YES];
    NSNumber* capacity = nil;
    if (![url getResourceValue:&capacity
                        forKey:NSURLVolumeAvailableCapacityForImportantUsageKey
                         error:nil] ||
        capacity == nil) {
      return std::nullopt;
    }
    return capacity.unsignedLongLongValue;
  });
}

// The work folder holds a full copy of the data from before a restore, and the staged backup:
// neither belongs in the user's iCloud or computer backups.
bool excludeFromBackup(const fs::path& folder) {
  return apple::catchingAll(false, [&folder] {
    NSString* path = apple::nsStringFrom(folder.string());
    if (path == nil) return false;
    NSURL* url = [NSURL fileURLWithPath:path isDirectory:YES];
    return static_cast<bool>([url setResourceValue:@YES
                                            forKey:NSURLIsExcludedFromBackupKey
                                             error:nil]);
  });
}

}  // namespace corvelstow::platform
