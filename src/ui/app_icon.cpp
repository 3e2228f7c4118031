#include "ui/app_icon.h"

#include <array>

namespace corvelstow {

namespace {

// The primary icon's dictionary under `key`, or null when the value has another shape.
const PlistDictionary* primaryIcon(const PlistDictionary& info, const std::string& key) {
  auto icons = info.find(key);
  if (icons == info.end()) return nullptr;
  const auto* iconsDictionary = icons->second.as<PlistDictionary>();
  if (!iconsDictionary) return nullptr;
  auto primary = iconsDictionary->find("CFBundlePrimaryIcon");
  if (primary == iconsDictionary->end()) return nullptr;
  return primary->second.as<PlistDictionary>();
}

// The texts of a list made only of texts; nothing for anything else.
std::vector<std::string> textList(const PlistValue& value) {
  const auto* array = value.as<PlistArray>();
  if (!array) return {};
  std::vector<std::string> texts;
  for (const PlistValue& item : *array) {
    const auto* text = item.as<std::string>();
    if (!text) return {};
    texts.push_back(*text);
  }
  return texts;
}

}  // namespace

std::vector<std::string> appIconBaseNames(const PlistDictionary& info) {
  std::vector<std::string> names;
  for (const char* key : {"CFBundleIcons", "CFBundleIcons~ipad"}) {
    const PlistDictionary* primary = primaryIcon(info, key);
    if (!primary) continue;
    if (auto name = primary->find("CFBundleIconName"); name != primary->end()) {
      if (const auto* text = name->second.as<std::string>()) names.push_back(*text);
    }
    if (auto files = primary->find("CFBundleIconFiles"); files != primary->end()) {
      std::vector<std::string> listed = textList(files->second);
      names.insert(names.end(), listed.rbegin(), listed.rend());
    }
  }
  return names;
}

std::vector<std::string> appIconFileNames(const PlistDictionary& info) {
  static constexpr std::array<const char*, 5> kSuffixes{"60x60@3x.png", "60x60@2x.png", "@3x.png",
                                                        "@2x.png", ".png"};
  std::vector<std::string> files;
  for (const std::string& base : appIconBaseNames(info)) {
    for (const char* suffix : kSuffixes) files.push_back(base + suffix);
  }
  return files;
}

}  // namespace corvelstow
