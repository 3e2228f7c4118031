#import <UIKit/UIKit.h>

#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

namespace corvelstow::platform {

// From iOS 16 an app without the user-assigned device name entitlement is told the model
// ("iPhone") rather than the name the user chose; the manifest then says that.
std::string deviceName() {
  return apple::catchingAll(std::string("iPhone"), [] {
    UIDevice* device = UIDevice.currentDevice;
    return apple::stringFrom(device.name)
        .value_or(apple::stringFrom(device.model).value_or("iPhone"));
  });
}

}  // namespace corvelstow::platform
