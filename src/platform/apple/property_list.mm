#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

namespace corvelstow::platform {

std::optional<PlistValue> parsePropertyList(std::string_view bytes) {
  if (bytes.empty()) return std::nullopt;
  return apple::catchingAll(std::optional<PlistValue>(), [bytes] {
    // The bytes outlive the call: Foundation may read them in place.
    NSData* data = [NSData dataWithBytesNoCopy:const_cast<char*>(bytes.data())
                                        length:bytes.size()
                                  freeWhenDone:NO];
    id object = [NSPropertyListSerialization propertyListWithData:data
                                                          options:NSPropertyListImmutable
                                                           format:nil
                                                            error:nil];
    return apple::plistValueFrom(object);
  });
}

std::optional<std::string> encodeBinaryPropertyList(const PlistValue& value) {
  return apple::catchingAll(std::optional<std::string>(), [&value]() -> std::optional<std::string> {
    id object = apple::foundationObjectFrom(value);
    if (object == nil) return std::nullopt;
    NSData* data = [NSPropertyListSerialization dataWithPropertyList:object
                                                              format:NSPropertyListBinaryFormat_v1_0
                                                             options:0
                                                               error:nil];
    if (data == nil) return std::nullopt;
    return apple::bytesFrom(data);
  });
}

}  // namespace corvelstow::platform
