#pragma once

#include <string>
#include <vector>

#include "platform/property_list.h"

namespace corvelstow {

/// The base names of the app's icon images, from its Info dictionary: for "CFBundleIcons" and
/// then "CFBundleIcons~ipad", the primary icon's "CFBundleIconName", then its
/// "CFBundleIconFiles" last first (the last listed is conventionally the largest). A key whose
/// value has another shape adds nothing.
std::vector<std::string> appIconBaseNames(const PlistDictionary& info);

/// The file names to try in the bundle folder, in order: each base name with the suffixes
/// "60x60@3x.png", "60x60@2x.png", "@3x.png", "@2x.png" and ".png". The first that loads as
/// an image with a bitmap is the app's icon; none when the list is empty or none loads.
std::vector<std::string> appIconFileNames(const PlistDictionary& info);

}  // namespace corvelstow
