#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

namespace corvelstow::platform {

Bundle mainBundle() {
  return apple::catchingAll(Bundle{}, [] {
    NSBundle* main = NSBundle.mainBundle;
    Bundle bundle;
    bundle.identifier = apple::stringFrom(main.bundleIdentifier);
    bundle.info = apple::plistDictionaryFrom(main.infoDictionary);
    bundle.folder = apple::pathFrom(main.bundlePath);
    // Present in apps installed from a developer or enterprise profile; absent in the simulator.
    NSURL* profile = [main URLForResource:@"embedded" withExtension:@"mobileprovision"];
    if (profile != nil) {
      NSData* bytes = [NSData dataWithContentsOfURL:profile options:0 error:nil];
      if (bytes != nil) bundle.provisioningProfile = apple::bytesFrom(bytes);
    }
    return bundle;
  });
}

}  // namespace corvelstow::platform
