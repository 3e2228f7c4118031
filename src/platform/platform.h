#pragma once

// The engine's only way to the platform. Apple builds implement it with Foundation and UIKit
// (platform/apple), everything else with POSIX and libplist (platform/posix).

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/property_list.h"

namespace corvelstow::platform {

namespace fs = std::filesystem;

/// The app container (home) folder, or nothing when none is set (on Linux, CORVELSTOW_HOME).
std::optional<fs::path> containerFolder();

/// The process's temporary folder (on Linux, TMPDIR or /tmp).
fs::path temporaryFolder();

/// What the host app's bundle says about itself.
struct Bundle {
  std::optional<std::string> identifier;  ///< CFBundleIdentifier
  PlistDictionary info;                   ///< the Info dictionary; empty when there is none
  std::optional<fs::path> folder;         ///< the bundle folder (on Linux, CORVELSTOW_BUNDLE)
  std::optional<std::string> provisioningProfile;  ///< bytes of embedded.mobileprovision
};

/// The host app's main bundle.
Bundle mainBundle();

/// Parses a property list in XML or binary form; nothing when the bytes are not one.
std::optional<PlistValue> parsePropertyList(std::string_view bytes);

/// Encodes a property list in binary form; nothing when it cannot be encoded.
std::optional<std::string> encodeBinaryPropertyList(const PlistValue& value);

}  // namespace corvelstow::platform
