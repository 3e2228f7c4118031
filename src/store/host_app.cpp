#include "store/host_app.h"

#include "platform/platform.h"

namespace corvelstow {
namespace {

const std::string* stringFor(const PlistDictionary& info, const char* key) {
  auto it = info.find(key);
  return it == info.end() ? nullptr : it->second.as<std::string>();
}

}  // namespace

StowHostApp StowHostApp::from(const std::optional<std::string>& bundleIdentifier,
                              const PlistDictionary& info,
                              const std::optional<std::string>& provisioningProfile) {
  StowHostApp app;
  app.bundleID = bundleIdentifier.value_or("unknown");
  if (auto* display = stringFor(info, "CFBundleDisplayName")) {
    app.name = *display;
  } else if (auto* name = stringFor(info, "CFBundleName")) {
    app.name = *name;
  } else {
    app.name = "App";
  }
  if (auto* version = stringFor(info, "CFBundleShortVersionString")) app.version = *version;
  if (provisioningProfile) app.teamID = teamIdentifierFromProfile(*provisioningProfile);
  return app;
}

const StowHostApp& StowHostApp::shared() {
  static const StowHostApp app = [] {
    platform::Bundle bundle = platform::mainBundle();
    return from(bundle.identifier, bundle.info, bundle.provisioningProfile);
  }();
  return app;
}

std::optional<std::string> teamIdentifierFromProfile(std::string_view profile) {
  // The profile is a signed container; its payload is an XML property list in plain text.
  constexpr std::string_view kStart = "<?xml", kEnd = "</plist>";
  size_t start = profile.find(kStart);
  if (start == std::string_view::npos) return std::nullopt;
  size_t end = profile.find(kEnd, start);
  if (end == std::string_view::npos) return std::nullopt;
  auto plist = platform::parsePropertyList(profile.substr(start, end + kEnd.size() - start));
  if (!plist) return std::nullopt;
  auto* dictionary = plist->as<PlistDictionary>();
  if (!dictionary) return std::nullopt;
  auto it = dictionary->find("TeamIdentifier");
  if (it == dictionary->end()) return std::nullopt;
  auto* teams = it->second.as<PlistArray>();
  if (!teams || teams->empty()) return std::nullopt;
  for (const auto& team : *teams) {
    if (!team.as<std::string>()) return std::nullopt;  // must be an array of strings
  }
  return *teams->front().as<std::string>();
}

}  // namespace corvelstow
