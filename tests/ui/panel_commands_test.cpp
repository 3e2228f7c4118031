// corvelstow status and greet, and the long commands through the model, in real processes.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "backup/usage.h"
#include "model_fixture.h"
#include "support/process.h"

namespace corvelstow {
namespace {

using nlohmann::json;
using testing::readFile;
using testing::runCommand;
using testing::writeFile;

class PanelCommandsTest : public testing::ModelFixture {
 protected:
  fs::path bundle = folder / "Notes.app";

  void SetUp() override {
    ModelFixture::SetUp();
    writeFile(bundle / "Info.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>CFBundleIdentifier</key><string>com.example.notes</string>
  <key>CFBundleDisplayName</key><string>Notes</string>
  <key>CFBundleShortVersionString</key><string>1.2</string>
  <key>CFBundleIcons</key><dict><key>CFBundlePrimaryIcon</key><dict>
    <key>CFBundleIconName</key><string>AppIcon</string>
  </dict></dict>
</dict></plist>)");
    writeFile(layout.documents / "a.txt", "abc");
    fs::create_directories(folder / "tmp");
  }

  testing::ProcessResult run(const std::vector<std::string>& arguments) {
    return runCommand(arguments, {{"CORVELSTOW_HOME", layout.home.string()},
                                  {"CORVELSTOW_BUNDLE", bundle.string()},
                                  {"TMPDIR", (folder / "tmp").string()},
                                  {"LANG", "en_US.UTF-8"},
                                  {"TZ", "UTC"}});
  }

  // Where each of `parts` first appears in `text`, searching on from the previous one.
  static void expectInOrder(const std::string& text, const std::vector<std::string>& parts) {
    std::size_t from = 0;
    for (const std::string& part : parts) {
      std::size_t at = text.find(part, from);
      ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << part << "\n" << text;
      from = at + part.size();
    }
  }
};

TEST_F(PanelCommandsTest, GreetAnnouncesAnOutcomeOnceThenInvites) {
  writeRecord(outcome(true, false), layout.outcomeRecord);
  auto first = run({"greet"});
  ASSERT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(first.out,
            "Data restored\nRestored everything from Notes.\n[Details]  corvelstow status\n");
  EXPECT_TRUE(readRecord<StowOutcome>(layout.outcomeRecord)->announced);

  auto second = run({"greet"});
  EXPECT_EQ(second.out, "App data backups\nTap to back up or restore\n[Open]  corvelstow status\n");

  saveSettings(layout, StowSettings{false, false, std::nullopt});
  auto quiet = run({"--json", "greet"});
  EXPECT_EQ(json::parse(quiet.out), json::parse(R"({"pill": {"state": "none"}})"));
  EXPECT_TRUE(run({"greet"}).out.empty());

  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.stagedRecord);
  json waiting = json::parse(run({"--json", "greet"}).out)["pill"];
  EXPECT_EQ(waiting["state"], "message");
  EXPECT_EQ(waiting["title"], "A restore is waiting. Close and reopen the app.");
  EXPECT_EQ(waiting["symbol"], "checkmark.circle.fill");
  EXPECT_EQ(waiting["button"], nullptr);
  EXPECT_EQ(waiting["opensPanel"], false);
}

TEST_F(PanelCommandsTest, StatusDrawsThePanelWithButtonsAsTheirCommands) {
  writeRecord(outcome(true, true), layout.outcomeRecord);
  writeRecord(stagedRestore("Old Notes", StowRestoreScope::documents), layout.stagedRecord);
  writeRecord(stagedRestore("Notes", StowRestoreScope::everything), layout.previousRecord);
  writeFile(bundle / "AppIcon60x60@2x.png", std::string("\x89PNG\r\n\x1a\n", 8) + "pixels");
  writeFile(bundle / "AppIcon60x60@3x.png", "not an image");

  auto status = run({"status"});
  ASSERT_EQ(status.exitCode, 0) << status.err;
  expectInOrder(status.out, {"App Data",
                             "Notes",
                             "Version 1.2",
                             "Icon: " + (bundle / "AppIcon60x60@2x.png").string(),
                             "THIS APP'S DATA",
                             "Not backed up from here yet",
                             "Documents: 3 bytes",
                             "Library: Zero KB",
                             "Files: 1",
                             "[Back Up Now]  corvelstow backup",
                             "[Restore]  corvelstow restore FILE",
                             "READY TO RESTORE",
                             "Documents from Old Notes",
                             "[Close App]  corvelstow run -- APP",
                             "LAST RESTORE",
                             "Restored everything from Notes.",
                             "Applied",
                             "from a backup taken May 1, 2024",
                             "[Undo and Close App]  corvelstow undo",
                             "OPTIONS",
                             "[ ] Include Caches  (corvelstow set include-caches on)",
                             "Adds Zero KB. Apps rebuild caches on their own.",
                             "[x] Show When the App Opens  (corvelstow set show-on-launch off)",
                             "Backups are .corvelappdata files"});
}

TEST_F(PanelCommandsTest, StatusJsonKeepsTheRecordsAndAddsTheUsageAndThePanel) {
  writeRecord(outcome(false, true), layout.outcomeRecord);
  auto status = run({"--json", "status"});
  ASSERT_EQ(status.exitCode, 0) << status.err;
  json document = json::parse(status.out);
  EXPECT_EQ(document["app"]["bundleID"], "com.example.notes");
  EXPECT_EQ(document["settings"], toJson(StowSettings{}));
  EXPECT_TRUE(document["pending"].is_null() && document["previous"].is_null());
  EXPECT_EQ(document["outcome"], toJson(outcome(false, true)));
  StowUsage usage = surveyUsage(layout);
  EXPECT_EQ(document["usage"], json({{"documentsBytes", usage.documentsBytes},
                                     {"libraryBytes", usage.libraryBytes},
                                     {"cachesBytes", usage.cachesBytes},
                                     {"files", usage.files}}));

  const json& panel = document["panel"];
  EXPECT_EQ(panel["title"], "App Data");
  std::vector<std::string> kinds;
  for (const json& section : panel["sections"]) kinds.push_back(section["kind"]);
  EXPECT_EQ(kinds, (std::vector<std::string>{"header", "appData", "lastRestore", "options",
                                             "information"}));
  const json& data = panel["sections"][1];
  EXPECT_EQ(data["title"], "THIS APP'S DATA");
  EXPECT_EQ(data["rows"][0], json::parse(R"({"type": "text", "text": "Not backed up from here yet",
                                             "symbol": "clock", "style": "plain"})"));
  EXPECT_EQ(data["rows"][4], json::parse(R"({"type": "button", "label": "Back Up Now", "symbol":
                            "arrow.up.doc.fill", "action": "backUp", "enabled": true,
                            "command": "corvelstow backup"})"));
  EXPECT_EQ(panel["sections"][2]["rows"][0]["symbol"], "exclamationmark.triangle");
  EXPECT_EQ(panel["sections"][3]["rows"][1]["command"], "corvelstow set show-on-launch off");

  // The terminal draws the same texts in the same order.
  std::string text = run({"status"}).out;
  std::vector<std::string> parts;
  for (const json& section : panel["sections"]) {
    if (!section["title"].get<std::string>().empty()) parts.push_back(section["title"]);
    for (const json& row : section["rows"]) {
      for (const char* key : {"appName", "label", "title"}) {
        if (row.contains(key)) parts.push_back(row[key]);
      }
      if (row.contains("text")) parts.push_back(row["text"].get<std::string>().substr(0, 30));
    }
  }
  expectInOrder(text, parts);
}

TEST_F(PanelCommandsTest, TheLongCommandsReportTheModelsProgressAndFailures) {
  auto backup = run({"backup"});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  EXPECT_EQ(backup.err.rfind("Backing up: Starting (0%)\n", 0), 0u) << backup.err;
  std::string archive = backup.out.substr(0, backup.out.find('\n'));
  EXPECT_TRUE(fs::exists(archive));

  writeFile(folder / "notes.txt", "not a backup");
  auto wrong = run({"restore", (folder / "notes.txt").string()});
  EXPECT_EQ(wrong.exitCode, 1);
  EXPECT_EQ(wrong.err, "That file is not a zip archive.\n");

  auto nothing = run({"restore", archive, "--scope", "settings"});
  EXPECT_EQ(nothing.exitCode, 1);
  EXPECT_NE(nothing.err.find("That backup holds nothing for the part you chose.\n"),
            std::string::npos)
      << nothing.err;
  EXPECT_FALSE(fs::exists(layout.stagedRecord));

  auto restore = run({"restore", archive, "--scope", "documents"});
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  EXPECT_EQ(restore.err.rfind("Preparing the restore: Unpacking (0%)\n", 0), 0u) << restore.err;
  EXPECT_EQ(readRecord<StowStagedRestore>(layout.stagedRecord)->scope, StowRestoreScope::documents);
}

}  // namespace
}  // namespace corvelstow
