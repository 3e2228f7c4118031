// The app icon's candidate names, from the Info dictionary (the status command shows which of
// their files it picks).

#include "ui/app_icon.h"

#include <gtest/gtest.h>

namespace corvelstow {
namespace {

using Names = std::vector<std::string>;

PlistValue text(const char* value) { return {std::string(value)}; }

PlistValue texts(std::initializer_list<const char*> values) {
  PlistArray array;
  for (const char* value : values) array.push_back(text(value));
  return {array};
}

// {"CFBundlePrimaryIcon": icon}
PlistValue primary(PlistValue icon) { return {PlistDictionary{{"CFBundlePrimaryIcon", icon}}}; }
PlistValue primary(PlistDictionary icon) { return primary(PlistValue{std::move(icon)}); }

TEST(AppIconTest, TheNameComesFirstThenTheFilesLastListedFirstThenTheIpadIcons) {
  const PlistValue pad = primary(PlistDictionary{{"CFBundleIconName", text("Pad")},
                                                 {"CFBundleIconFiles", texts({"P1", "P2"})}});
  const std::vector<std::pair<PlistDictionary, Names>> cases{
      {{{"CFBundleIcons", primary(PlistDictionary{{"CFBundleIconName", text("AppIcon")},
                                                  {"CFBundleIconFiles", texts({"A", "B", "C"})}})},
        {"CFBundleIcons~ipad", pad}},
       {"AppIcon", "C", "B", "A", "Pad", "P2", "P1"}},
      // A value of another shape adds nothing, and the rest still counts.
      {{{"CFBundleIcons", text("AppIcon")}, {"CFBundleIcons~ipad", pad}}, {"Pad", "P2", "P1"}},
      {{{"CFBundleIcons", primary(text("AppIcon"))}, {"CFBundleIcons~ipad", pad}},
       {"Pad", "P2", "P1"}},
      {{{"CFBundleIcons", primary(PlistDictionary{{"CFBundleIconName", {std::int64_t{7}}},
                                                  {"CFBundleIconFiles", texts({"A"})}})}},
       {"A"}},
      {{{"CFBundleIcons", primary(PlistDictionary{
                              {"CFBundleIconName", text("AppIcon")},
                              {"CFBundleIconFiles", {PlistArray{text("A"), {std::int64_t{7}}}}}})}},
       {"AppIcon"}},
      {{{"CFBundleIcons", primary(PlistDictionary{{"CFBundleIconFiles", text("A")}})}}, {}},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(appIconBaseNames(cases[i].first), cases[i].second) << "case " << i;
  }
}

}  // namespace
}  // namespace corvelstow
