#include "platform/apple/foundation_bridge.h"

#include <cstdint>

namespace corvelstow::platform::apple {
namespace {

// Deeper nesting than this is no settings file: refuse it rather than exhaust the stack.
constexpr int kMaxDepth = 512;

std::optional<PlistValue> valueFrom(id _Nullable object, int depth);

std::optional<PlistValue> numberFrom(NSNumber* number) {
  // NSNumber hides three property-list kinds: booleans are CFBoolean, reals are float types.
  if (CFGetTypeID((__bridge CFTypeRef)number) == CFBooleanGetTypeID()) {
    return PlistValue{static_cast<bool>(number.boolValue)};
  }
  if (CFNumberIsFloatType((__bridge CFNumberRef)number)) return PlistValue{number.doubleValue};
  return PlistValue{static_cast<std::int64_t>(number.longLongValue)};
}

std::optional<PlistValue> arrayFrom(NSArray* array, int depth) {
  PlistArray items;
  items.reserve(array.count);
  for (id item in array) {
    auto converted = valueFrom(item, depth + 1);
    if (!converted) return std::nullopt;
    items.push_back(std::move(*converted));
  }
  return PlistValue{std::move(items)};
}

std::optional<PlistValue> dictionaryFrom(NSDictionary* dictionary, int depth) {
  PlistDictionary entries;
  for (id key in dictionary) {
    if (![key isKindOfClass:NSString.class]) return std::nullopt;
    auto name = stringFrom(key);
    auto converted = valueFrom(dictionary[key], depth + 1);
    if (!name || !converted) return std::nullopt;
    entries.emplace(std::move(*name), std::move(*converted));
  }
  return PlistValue{std::move(entries)};
}

std::optional<PlistValue> valueFrom(id _Nullable object, int depth) {
  if (object == nil || depth > kMaxDepth) return std::nullopt;
  if ([object isKindOfClass:NSString.class]) {
    auto string = stringFrom(object);
    if (!string) return std::nullopt;
    return PlistValue{std::move(*string)};
  }
  if ([object isKindOfClass:NSNumber.class]) return numberFrom(object);
  if ([object isKindOfClass:NSData.class]) return PlistValue{PlistData{bytesFrom(object)}};
  if ([object isKindOfClass:NSDate.class]) {
    return PlistValue{PlistDate{[(NSDate*)object timeIntervalSinceReferenceDate]}};
  }
  if ([object isKindOfClass:NSArray.class]) return arrayFrom(object, depth);
  if ([object isKindOfClass:NSDictionary.class]) return dictionaryFrom(object, depth);
  return std::nullopt;
}

id _Nullable objectFrom(const PlistValue& value, int depth);

struct ToFoundation {
  int depth;

  id _Nullable operator()(bool v) const { return v ? @YES : @NO; }
  id _Nullable operator()(std::int64_t v) const { return @(static_cast<long long>(v)); }
  id _Nullable operator()(double v) const { return @(v); }
  id _Nullable operator()(const std::string& v) const { return nsStringFrom(v); }
  id _Nullable operator()(const PlistData& v) const {
    return [NSData dataWithBytes:v.bytes.data() length:v.bytes.size()];
  }
  id _Nullable operator()(const PlistDate& v) const {
    return [NSDate dateWithTimeIntervalSinceReferenceDate:v.sinceReferenceDate];
  }
  id _Nullable operator()(const PlistArray& items) const {
    NSMutableArray* array = [NSMutableArray arrayWithCapacity:items.size()];
    for (const auto& item : items) {
      id object = objectFrom(item, depth + 1);
      if (object == nil) return nil;
      [array addObject:object];
    }
    return array;
  }
  id _Nullable operator()(const PlistDictionary& entries) const {
    NSMutableDictionary* dictionary = [NSMutableDictionary dictionaryWithCapacity:entries.size()];
    for (const auto& [name, item] : entries) {
      NSString* key = nsStringFrom(name);
      id object = objectFrom(item, depth + 1);
      if (key == nil || object == nil) return nil;
      dictionary[key] = object;
    }
    return dictionary;
  }
};

id _Nullable objectFrom(const PlistValue& value, int depth) {
  if (depth > kMaxDepth) return nil;
  return std::visit(ToFoundation{depth}, value.value);
}

}  // namespace

std::optional<std::string> stringFrom(NSString* _Nullable string) {
  // Through NSData rather than UTF8String: a string may hold NUL characters.
  NSData* utf8 = [string dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:NO];
  if (utf8 == nil) return std::nullopt;
  return bytesFrom(utf8);
}

NSString* _Nullable nsStringFrom(std::string_view bytes) {
  return [[NSString alloc] initWithBytes:bytes.data()
                                  length:bytes.size()
                                encoding:NSUTF8StringEncoding];
}

std::string bytesFrom(NSData* _Nullable data) {
  if (data.length == 0) return {};
  return std::string(static_cast<const char*>(data.bytes), data.length);
}

std::optional<std::filesystem::path> pathFrom(NSString* _Nullable path) {
  if (path.length == 0) return std::nullopt;
  std::string text = path.fileSystemRepresentation;
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return std::filesystem::path(std::move(text));
}

std::optional<PlistValue> plistValueFrom(id _Nullable object) { return valueFrom(object, 0); }

PlistDictionary plistDictionaryFrom(NSDictionary* _Nullable dictionary) {
  PlistDictionary entries;
  for (id key in dictionary) {
    if (![key isKindOfClass:NSString.class]) continue;
    auto name = stringFrom(key);
    auto value = valueFrom(dictionary[key], 1);
    if (name && value) entries.emplace(std::move(*name), std::move(*value));
  }
  return entries;
}

id _Nullable foundationObjectFrom(const PlistValue& value) { return objectFrom(value, 0); }

}  // namespace corvelstow::platform::apple
