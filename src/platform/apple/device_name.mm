#import <UIKit/UIKit.h>

#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

namespace corvelstow::platform {

std::string deviceName() {
  return apple::catchingAll(std::string("iPhone"), [] {
    UIDevice* device = UIDevice.currentDevice;
    return apple::stringFrom(device.name).value_or(
        apple::stringFrom(device.model).value_or("iPhone"));
  });
}

}  // namespace corvelstow::platform
