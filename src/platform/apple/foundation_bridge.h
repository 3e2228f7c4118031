#pragma once

// Objective-C++ only: conversions between Foundation objects and the engine's portable values,
// shared by the Apple implementations of the platform seam.

#import <Foundation/Foundation.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/property_list.h"

#if !__has_feature(objc_arc)
#error "The Apple side of the platform seam is built with ARC (-fobjc-arc)."
#endif

NS_ASSUME_NONNULL_BEGIN

namespace corvelstow::platform::apple {

/// Runs `body` in its own autorelease pool and returns its result, or `fallback` when it
/// throws. On the modern runtime a Foundation exception unwinds like a C++ one, so this catches
/// both: every seam function implemented with Foundation runs its body through here, so that
/// nothing thrown on one side of the Objective-C++ boundary reaches the other, and the objects
/// it made are released even when it runs before the app has a pool (at load time).
template <typename Result, typename Body>
Result catchingAll(Result fallback, Body&& body) noexcept {
  @try {
    @autoreleasepool {
      return std::forward<Body>(body)();
    }
  } @catch (...) {
    return fallback;
  }
}

/// Runs `body`, dropping whatever it throws (C++ or Foundation), as `catchingAll` above.
template <typename Body>
void catchingAll(Body&& body) noexcept {
  @try {
    @autoreleasepool {
      std::forward<Body>(body)();
    }
  } @catch (...) {
  }
}

/// The UTF-8 bytes of `string`; nothing when it is nil or has no UTF-8 form.
std::optional<std::string> stringFrom(NSString* _Nullable string);

/// `bytes` as a string; nil when they are not UTF-8.
NSString* _Nullable nsStringFrom(std::string_view bytes);

/// The bytes of `data` (empty for nil).
std::string bytesFrom(NSData* _Nullable data);

/// A file path from Foundation, without a trailing separator; nothing when it is nil or empty.
std::optional<std::filesystem::path> pathFrom(NSString* _Nullable path);

/// The portable form of a property-list object (NSString, NSNumber, NSData, NSDate, NSArray,
/// NSDictionary with string keys, nested); nothing when it or anything inside it is another
/// kind of object (a keyed archiver's UID, for one).
std::optional<PlistValue> plistValueFrom(id _Nullable object);

/// The entries of `dictionary` that have a string key and a property-list value; the others
/// are left out (an Info dictionary carries a few URLs that have no property-list form).
PlistDictionary plistDictionaryFrom(NSDictionary* _Nullable dictionary);

/// The Foundation form of `value`: NSString, NSNumber, NSData, NSDate, NSArray or NSDictionary;
/// nil when a string in it is not UTF-8.
id _Nullable foundationObjectFrom(const PlistValue& value);

}  // namespace corvelstow::platform::apple

NS_ASSUME_NONNULL_END
