#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

// The two roots of every location: the app's sandbox container and its temporary folder.
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

}  // namespace corvelstow::platform
