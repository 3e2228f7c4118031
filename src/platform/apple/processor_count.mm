#import <Foundation/Foundation.h>

#include <algorithm>

#include "platform/platform.h"

namespace corvelstow::platform {

// The processors the system lets the app use now, which may be fewer than the device has.
unsigned processorCount() {
  return static_cast<unsigned>(
      std::max<NSUInteger>(NSProcessInfo.processInfo.activeProcessorCount, 1));
}

}  // namespace corvelstow::platform
