#include "platform/platform.h"

namespace corvelstow::platform {

// Here the start-up registers its observer of window scenes becoming active (on the main
// queue), which hands each scene to the presenter. Until the presenter and its views exist
// (src/ui/ios), the library does its launch-time file work and shows nothing.
void finishStartup() {}

}  // namespace corvelstow::platform
