#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/platform.h"
#include "store/layout.h"
#include "store/records.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using nlohmann::json;

TEST(StatusCommandTest, ReportsRecordsAsJsonWithAbsentOnesNull) {
  testing::TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  testing::writeFile(layout.documents / "a.txt", "a");
  // A Linux bundle is a folder with an Info.plist, here a binary one.
  PlistDictionary info{{"CFBundleIdentifier", PlistValue{std::string("com.example.binary")}},
                       {"CFBundleName", PlistValue{std::string("Binary")}}};
  testing::writeFile(folder / "Binary.app/Info.plist",
                     *platform::encodeBinaryPropertyList(PlistValue{info}));
  std::map<std::string, std::string> env{{"CORVELSTOW_HOME", layout.home.string()},
                                         {"CORVELSTOW_BUNDLE", (folder / "Binary.app").string()}};

  auto empty = testing::runCommand({"--json", "status"}, env);
  ASSERT_EQ(empty.exitCode, 0) << empty.err;
  json document = json::parse(empty.out);
  EXPECT_EQ(document["app"], json::parse(R"({"bundleID": "com.example.binary", "name": "Binary",
                                             "teamID": null, "version": null})"));
  EXPECT_EQ(document["settings"], json::parse(R"({"showOnLaunch": true, "includeCaches": false})"));
  EXPECT_TRUE(document["pending"].is_null());
  EXPECT_TRUE(document["outcome"].is_null());

  StowOutcome outcome{true,
                      "Restored everything from Notes.",
                      "Notes",
                      *parseInternetDate("2024-05-01T09:30:00Z"),
                      *parseInternetDate("2024-05-02T09:30:00Z"),
                      true,
                      false};
  writeRecord(outcome, layout.outcomeRecord);
  auto filled = testing::runCommand({"status", "--json"}, env);
  ASSERT_EQ(filled.exitCode, 0) << filled.err;
  EXPECT_EQ(json::parse(filled.out)["outcome"], toJson(outcome));

  auto text = testing::runCommand({"status"}, env);
  EXPECT_NE(text.out.find("Restored everything from Notes."), std::string::npos);
}

}  // namespace
}  // namespace corvelstow
