// corvelstow greet and status, and the progress bar on a terminal, in real processes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "model_fixture.h"
#include "platform/platform.h"
#include "support/process.h"

namespace corvelstow {
namespace {

using nlohmann::json;
using testing::outcome;
using testing::stagedRestore;
using testing::writeFile;

class PanelCommandsTest : public testing::ModelFixture {
 protected:
  fs::path bundle = folder / "Notes.app";

  void SetUp() override {
    ModelFixture::SetUp();
    auto text = [](const char* value) { return PlistValue{std::string(value)}; };
    const PlistDictionary icon{{"CFBundleIconName", text("AppIcon")}};
    const PlistDictionary info{
        {"CFBundleIdentifier", text("com.example.notes")},
        {"CFBundleDisplayName", text("Notes")},
        {"CFBundleShortVersionString", text("1.2")},
        {"CFBundleIcons", {PlistDictionary{{"CFBundlePrimaryIcon", {icon}}}}}};
    writeFile(bundle / "Info.plist", *platform::encodeBinaryPropertyList({info}));
    writeFile(layout.documents / "a.txt", "abc");
    fs::create_directories(folder / "tmp");
  }

  std::map<std::string, std::string> environment() {
    return {{"CORVELSTOW_HOME", layout.home.string()},
            {"CORVELSTOW_BUNDLE", bundle.string()},
            {"TMPDIR", (folder / "tmp").string()},
            {"LANG", "en_US.UTF-8"},
            {"TZ", "UTC"}};
  }

  testing::ProcessResult run(const std::vector<std::string>& arguments) {
    return testing::runCommand(arguments, environment());
  }

  // The command run on a terminal (script's), which shows stdout and stderr alike.
  testing::ProcessResult runOnTerminal(const std::string& arguments) {
    return testing::runProcess(
        {"script", "-qec", std::string(CORVELSTOW_COMMAND) + " " + arguments, "/dev/null"},
        environment());
  }
};

TEST_F(PanelCommandsTest, GreetAnnouncesAnOutcomeOnceThenInvitesOrTellsOfAWaitingRestore) {
  writeRecord(outcome(true, false), layout.outcomeRecord);
  auto first = run({"greet"});
  ASSERT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(first.out,
            "Data restored\nRestored everything from Notes.\n[Details]  corvelstow status\n");
  EXPECT_EQ(run({"greet"}).out,
            "App data backups\nTap to back up or restore\n[Open]  corvelstow status\n");

  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  EXPECT_EQ(json::parse(run({"--json", "greet"}).out), json::parse(R"({"pill": {
      "state": "message", "symbol": "checkmark.circle.fill", "tint": [0.20392, 0.82745, 0.6],
      "title": "A restore is waiting. Close and reopen the app.", "subtitle": null,
      "button": null, "opensPanel": false}})"));

  fs::remove(layout.stagedRecord);
  saveSettings(layout, StowSettings{false, false, std::nullopt});
  EXPECT_EQ(json::parse(run({"--json", "greet"}).out),
            json::parse(R"({"pill": {"state": "none"}})"));
  EXPECT_EQ(run({"greet"}).out, "");
}

TEST_F(PanelCommandsTest, StatusDrawsThePanelWithButtonsAsTheirCommandsAndGivesItAsData) {
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Old Notes", StowRestoreScope::documents), layout.stagedRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  writeFile(bundle / "AppIcon60x60@2x.png", std::string("\x89PNG\r\n\x1a\n", 8) + "pixels");
  writeFile(bundle / "AppIcon60x60@3x.png", "not an image");

  auto status = run({"status"});
  ASSERT_EQ(status.exitCode, 0) << status.err;
  std::size_t from = 0;
  for (const std::string& part : std::vector<std::string>{
           "\nNotes\nVersion 1.2\nIcon: " + (bundle / "AppIcon60x60@2x.png").string() + "\n",
           "\n  Documents: 3 bytes\n  Library: Zero KB\n  Files: 1\n"
           "  [Back Up Now]  corvelstow backup\n  [Restore]  corvelstow restore FILE\n",
           "\nREADY TO RESTORE\n", "  [Close App]  corvelstow run -- APP\n\nLAST RESTORE\n",
           "  [Undo and Close App]  corvelstow undo\n\nOPTIONS\n"
           "  [ ] Include Caches  (corvelstow set include-caches on)\n"
           "      Adds Zero KB. Apps rebuild caches on their own.\n"
           "  [x] Show When the App Opens  (corvelstow set show-on-launch off)\n"}) {
    std::size_t at = status.out.find(part, from);
    ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << part << "\n" << status.out;
    from = at + part.size();
  }

  json document = json::parse(run({"--json", "status"}).out);
  EXPECT_EQ(document["usage"], json::parse(R"({"documentsBytes": 3, "libraryBytes": 0,
                                              "cachesBytes": 0, "files": 1})"));
  const json& panel = document["panel"];
  std::vector<std::string> kinds;
  for (const json& section : panel["sections"]) kinds.push_back(section["kind"]);
  EXPECT_EQ(kinds, (std::vector<std::string>{"header", "appData", "pending", "lastRestore",
                                             "options", "information"}));
  EXPECT_EQ(panel["sections"][1]["rows"][4],
            json::parse(R"({"type": "button", "label": "Back Up Now",
      "symbol": "arrow.up.doc.fill", "action": "backUp", "enabled": true,
      "command": "corvelstow backup"})"));
  EXPECT_EQ(panel["sections"][4]["rows"][1]["command"], "corvelstow set show-on-launch off");
}

// On a terminal the bar is drawn in place, and its line ends before the result or the failure
// is printed.
TEST_F(PanelCommandsTest, OnATerminalTheBarEndsItsLineFirst) {
  const auto backup = runOnTerminal("backup");
  ASSERT_EQ(backup.exitCode, 0) << backup.out;
  EXPECT_THAT(backup.out,
              ::testing::MatchesRegex(
                  ".*100%  [0-9]+ of [0-9]+ files\x1B\\[K\r\n/[^\r\n]+\\.corvelappdata\r\n"));
  const std::string lastLine = backup.out.substr(backup.out.rfind("\r\n/") + 2);
  const auto restore =
      runOnTerminal("restore '" + lastLine.substr(0, lastLine.find('\r')) + "' --scope settings");
  EXPECT_THAT(restore.out,
              ::testing::EndsWith("%  Unpacking\x1B[K\r\nThat backup holds nothing for the "
                                  "part you chose.\r\n"));
}

}  // namespace
}  // namespace corvelstow
