#include "store/host_app.h"

#include <gtest/gtest.h>

#include "support/process.h"

namespace corvelstow {
namespace {

PlistValue text(const char* value) { return PlistValue{std::string(value)}; }

std::string profileWithTeams(const std::string& teams) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\"><dict><key>Name</key><string>Team Profile</string>"
      "<key>TeamIdentifier</key>" +
      teams + "</dict></plist>";
  // The signed envelope around the payload: binary bytes on both sides, NULs included.
  return std::string("\x30\x82\x1f\x3a\x06\x09\x2a\x86\x00\x48\xf7<?xm", 14) + xml +
         std::string("\xa0\x82\x00\x00</plist", 12);
}

TEST(HostAppTest, NameFallsThroughDisplayNameThenBundleNameThenApp) {
  EXPECT_EQ(
      StowHostApp::from(
          "a.b", {{"CFBundleDisplayName", text("Notes Pro")}, {"CFBundleName", text("Notes")}}, {})
          .name,
      "Notes Pro");
  EXPECT_EQ(StowHostApp::from("a.b", {{"CFBundleName", text("Notes")}}, {}).name, "Notes");
  EXPECT_EQ(StowHostApp::from("a.b",
                              {{"CFBundleDisplayName", PlistValue{std::int64_t{3}}},
                               {"CFBundleName", PlistValue{true}}},
                              {})
                .name,
            "App");
  EXPECT_EQ(StowHostApp::from(
                "a.b", {{"CFBundleDisplayName", text("")}, {"CFBundleName", text("Notes")}}, {})
                .name,
            "");  // an empty name is a name

  StowHostApp bare = StowHostApp::from(std::nullopt, {}, std::nullopt);
  EXPECT_EQ(bare, (StowHostApp{"unknown", "App", std::nullopt, std::nullopt}));
  EXPECT_EQ(StowHostApp::from("a.b", {{"CFBundleShortVersionString", text("2.4")}}, {}).version,
            "2.4");
  EXPECT_FALSE(
      StowHostApp::from("a.b", {{"CFBundleShortVersionString", PlistValue{2.4}}}, {}).version);
}

TEST(HostAppTest, TeamIdentifierIsCutOutOfTheSignedProfile) {
  EXPECT_EQ(teamIdentifierFromProfile(profileWithTeams(
                "<array><string>FIRST12345</string><string>SECOND1234</string></array>")),
            "FIRST12345");
  EXPECT_FALSE(teamIdentifierFromProfile(profileWithTeams("<array/>")));
  EXPECT_FALSE(teamIdentifierFromProfile(profileWithTeams("<string>FIRST12345</string>")));
  EXPECT_FALSE(teamIdentifierFromProfile(profileWithTeams("<array><integer>1</integer></array>")));
  EXPECT_FALSE(teamIdentifierFromProfile("no property list in here"));
  EXPECT_FALSE(teamIdentifierFromProfile("<?xml version=\"1.0\"?><plist><dict>"));  // no end
  EXPECT_FALSE(teamIdentifierFromProfile("<?xml version=\"1.0\"?><plist>garbage</plist>"));

  EXPECT_EQ(
      StowHostApp::from("a.b", {}, profileWithTeams("<array><string>T1</string></array>")).teamID,
      "T1");
}

// The example's bundle, with its provisioning profile.
TEST(HostAppTest, TheExampleBundleNamesItsTeamAndVersion) {
  auto example =
      testing::runCommand({"--json", "--home", CORVELSTOW_SOURCE_DIR "/examples/container",
                           "--bundle", CORVELSTOW_SOURCE_DIR "/examples/Notes.app", "status"});
  ASSERT_EQ(example.exitCode, 0) << example.err;
  EXPECT_NE(example.out.find("\"teamID\": \"N0TES12345\""), std::string::npos);
  EXPECT_NE(example.out.find("\"version\": \"2.4\""), std::string::npos);
}

}  // namespace
}  // namespace corvelstow
