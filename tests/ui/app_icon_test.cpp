#include "ui/app_icon.h"

#include <gtest/gtest.h>

namespace corvelstow {
namespace {

PlistValue text(const char* value) { return {std::string(value)}; }

PlistValue texts(std::initializer_list<const char*> values) {
  PlistArray array;
  for (const char* value : values) array.push_back(text(value));
  return {array};
}

// {key: {"CFBundlePrimaryIcon": primary}}
PlistDictionary icons(const char* key, PlistDictionary primary) {
  return {{key, {PlistDictionary{{"CFBundlePrimaryIcon", {std::move(primary)}}}}}};
}

TEST(AppIconTest, AnIconNameIsTriedWithEachSuffixInOrder) {
  PlistDictionary info = icons("CFBundleIcons", {{"CFBundleIconName", text("AppIcon")}});
  EXPECT_EQ(appIconFileNames(info),
            (std::vector<std::string>{"AppIcon60x60@3x.png", "AppIcon60x60@2x.png",
                                      "AppIcon@3x.png", "AppIcon@2x.png", "AppIcon.png"}));
}

TEST(AppIconTest, TheNameComesFirstThenTheFilesLastListedFirstThenTheIpadIcons) {
  PlistDictionary info = icons("CFBundleIcons", {{"CFBundleIconName", text("AppIcon")},
                                                 {"CFBundleIconFiles", texts({"A", "B"})}});
  info.merge(icons("CFBundleIcons~ipad", {{"CFBundleIconFiles", texts({"Pad1", "Pad2"})}}));
  EXPECT_EQ(appIconBaseNames(info),
            (std::vector<std::string>{"AppIcon", "B", "A", "Pad2", "Pad1"}));
  std::vector<std::string> files = appIconFileNames(info);
  ASSERT_EQ(files.size(), 25u);
  EXPECT_EQ(files[5], "B60x60@3x.png");
  EXPECT_EQ(files[10], "A60x60@3x.png");
}

TEST(AppIconTest, TheIpadIconsAloneStillYieldCandidates) {
  PlistDictionary info = icons("CFBundleIcons~ipad", {{"CFBundleIconName", text("PadIcon")}});
  EXPECT_EQ(appIconBaseNames(info), (std::vector<std::string>{"PadIcon"}));
}

TEST(AppIconTest, ValuesOfAnotherShapeAddNothing) {
  const std::vector<std::pair<const char*, PlistDictionary>> cases{
      {"no icons", {}},
      {"icons not a dictionary", {{"CFBundleIcons", text("AppIcon")}}},
      {"primary icon not a dictionary",
       {{"CFBundleIcons", {PlistDictionary{{"CFBundlePrimaryIcon", text("AppIcon")}}}}}},
      {"name not a text", icons("CFBundleIcons", {{"CFBundleIconName", {std::int64_t{7}}}})},
      {"files not all texts",
       icons("CFBundleIcons", {{"CFBundleIconFiles", {PlistArray{text("A"), {std::int64_t{7}}}}}})},
      {"files not a list", icons("CFBundleIcons", {{"CFBundleIconFiles", text("A")}})},
  };
  for (const auto& [name, info] : cases) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(appIconBaseNames(info).empty());
    EXPECT_TRUE(appIconFileNames(info).empty());
  }
}

}  // namespace
}  // namespace corvelstow
