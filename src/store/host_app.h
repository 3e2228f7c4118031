#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/property_list.h"

namespace corvelstow {

/// Whose data this is: the host app's identity, read once from its bundle.
struct StowHostApp {
  std::string bundleID;                ///< "unknown" when the bundle has no identifier
  std::string name;                    ///< display name, else bundle name, else "App"
  std::optional<std::string> version;  ///< CFBundleShortVersionString, when it is a string
  std::optional<std::string> teamID;   ///< first TeamIdentifier of embedded.mobileprovision

  bool operator==(const StowHostApp&) const = default;

  /// The identity of a bundle with this identifier, Info dictionary and provisioning profile.
  static StowHostApp from(const std::optional<std::string>& bundleIdentifier,
                          const PlistDictionary& info,
                          const std::optional<std::string>& provisioningProfile);

  /// The process's host app, built from the platform's main bundle on first use.
  static const StowHostApp& shared();
};

/// The first team identifier of a provisioning profile: the XML property list cut out of the
/// signed file ("<?xml" through "</plist>"), its "TeamIdentifier" array. Nothing on any failure.
std::optional<std::string> teamIdentifierFromProfile(std::string_view profile);

}  // namespace corvelstow
