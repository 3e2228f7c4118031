#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

namespace corvelstow::platform {

int compareNames(std::string_view a, std::string_view b) {
  const int bytes = a.compare(b);
  return apple::catchingAll(bytes, [&] {
    NSString* first = apple::nsStringFrom(a);
    NSString* second = apple::nsStringFrom(b);
    if (first == nil || second == nil) return bytes;
    return static_cast<int>([first compare:second]);
  });
}

}  // namespace corvelstow::platform
