#include "store/records.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "store/layout.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using nlohmann::json;
using testing::TempFolder;
using testing::writeFile;

StowDate date(const char* text) { return *parseInternetDate(text); }

json with(json document, const json& patch) {
  document.merge_patch(patch);  // a null removes the key
  return document;
}

// Decodes a stored record and encodes it again: what it then stores, or null when it does not
// decode.
template <typename Record>
json recoded(const json& stored) {
  auto record = decodeRecord<Record>(stored.dump());
  return record ? json::parse(encodeRecord(*record)) : json();
}

// Every record type reads back from what it stores, key by key, and stores it again as it was:
// optionals absent (or null, read as absent), the largest 64-bit numbers, dates given with a
// zone (stored again in UTC), file names that are not UTF-8 in the kept-live record and the
// journal, as the hexadecimal digits of their bytes. A missing required key, a wrong type, an
// unknown name, a malformed date or file name fails the whole record; any schema version and
// kind are read, and unknown keys passed over.
TEST(RecordsTest, EveryRecordReadsBackWhatItStores) {
  const json manifest = json::parse(R"({"appName": "Notes", "appVersion": "2.4",
      "bundleIdentifier": "com.example.notes", "createdAt": "2024-05-01T09:30:00Z",
      "deviceName": "Ada's iPhone", "fileCount": 9223372036854775807,
      "includedPaths": ["Documents", "Library"], "kind": "manual", "schemaVersion": 1,
      "signerIdentity": "Apple Development: Ada", "teamIdentifier": "N0TES12345",
      "totalBytes": -9223372036854775808})");
  const json bare = with(manifest, {{"appVersion", nullptr},
                                    {"deviceName", nullptr},
                                    {"kind", nullptr},
                                    {"teamIdentifier", nullptr},
                                    {"signerIdentity", nullptr}});
  const json staged = {{"manifest", manifest},
                       {"scope", "settings"},
                       {"stagedAt", "2026-01-01T00:00:00Z"},
                       {"token", "0123456789abcdef"}};
  const json kept = json::parse(R"({"allButPrevious": true, "domains": ["com.example.notes"],
      "entries": ["446f63756d656e74732f636166e9", ""], "restoredDomains": ["group.shared"],
      "restoredEntries": ["01ff"]})");
  const json journal = {{"failures", json::array({"Could not move aside a.txt"})},
                        {"kept", kept},
                        {"kind", "undo"},
                        {"record", staged},
                        {"step", "settingsIn"}};
  const json settings = json::parse(
      R"({"includeCaches": true, "lastBackupAt": "2026-03-03T13:05:00Z", "showOnLaunch": false})");
  const json outcome = json::parse(R"({"announced": false, "appliedAt": "2024-05-03T08:00:00Z",
      "canUndo": true, "message": "Restored everything from Notes.", "sourceDate":
      "2024-05-01T09:30:00Z", "sourceName": "Notes", "succeeded": true})");
  using Recode = json (*)(const json&);
  const std::vector<std::pair<Recode, json>> exact{
      {recoded<StowManifest>, manifest},
      {recoded<StowManifest>, bare},
      {recoded<StowStagedRestore>, staged},
      {recoded<StowStagedRestore>, with(staged, {{"token", nullptr}})},
      {recoded<StowKeptLive>, kept},
      {recoded<StowKeptLive>,
       with(kept, {{"restoredEntries", nullptr}, {"restoredDomains", nullptr}})},
      {recoded<StowSwapJournal>, journal},
      {recoded<StowSwapJournal>, with(journal, {{"kind", "restore"}, {"step", "documentsAside"}})},
      {recoded<StowSettings>, settings},
      {recoded<StowSettings>, with(settings, {{"lastBackupAt", nullptr}})},
      {recoded<StowOutcome>, outcome},
  };
  for (const auto& [recode, stored] : exact) EXPECT_EQ(recode(stored), stored);
  const auto nulled = [](json document, std::initializer_list<const char*> keys) {
    for (const char* key : keys) document[key] = nullptr;
    return document;
  };
  const std::vector<std::tuple<Recode, json, json>> translated{
      {recoded<StowManifest>,
       nulled(bare, {"appVersion", "deviceName", "kind", "teamIdentifier", "signerIdentity"}),
       bare},
      {recoded<StowManifest>,
       with(bare, {{"schemaVersion", 7}, {"kind", "scheduled"}, {"future", 1}}),
       with(bare, {{"schemaVersion", 7}, {"kind", "scheduled"}})},
      {recoded<StowManifest>, with(bare, {{"createdAt", "2024-05-01T11:30:00+02:00"}}), bare},
      {recoded<StowStagedRestore>, nulled(staged, {"token"}), with(staged, {{"token", nullptr}})},
      {recoded<StowKeptLive>, nulled(kept, {"restoredEntries", "restoredDomains"}),
       with(kept, {{"restoredEntries", nullptr}, {"restoredDomains", nullptr}})},
      {recoded<StowSettings>, with(settings, {{"lastBackupAt", "2026-03-03T14:05:00+01:00"}}),
       settings},
      {recoded<StowSettings>, nulled(settings, {"lastBackupAt"}),
       with(settings, {{"lastBackupAt", nullptr}})},
  };
  for (const auto& [recode, stored, expected] : translated) EXPECT_EQ(recode(stored), expected);
  const json none;
  // The one encoding: keys sorted, indented by two spaces, a newline at the end.
  EXPECT_EQ(encodeRecord(StowSettings{}),
            "{\n  \"includeCaches\": false,\n  \"showOnLaunch\": true\n}\n");
  // A staging's token: 32 hexadecimal digits, new each time.
  const std::string token = newStagingToken();
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(token.size(), 32u);
  EXPECT_NE(newStagingToken(), token);

  const std::vector<std::pair<Recode, json>> refused{
      {recoded<StowManifest>, {{"fileCount", "12"}}},
      {recoded<StowManifest>, {{"fileCount", 12.5}}},
      {recoded<StowManifest>, {{"totalBytes", 9223372036854775808ULL}}},
      {recoded<StowManifest>, {{"appVersion", 3}}},
      {recoded<StowManifest>, {{"includedPaths", json::array({1})}}},
      {recoded<StowManifest>, {{"includedPaths", "Documents"}}},
      {recoded<StowManifest>, {{"createdAt", "2024-05-01T09:30:00.000Z"}}},
      {recoded<StowManifest>, {{"createdAt", "2024-05-01T09:30:00"}}},
      {recoded<StowStagedRestore>, {{"scope", "library"}}},
      {recoded<StowStagedRestore>, {{"scope", "Everything"}}},
      {recoded<StowStagedRestore>, {{"manifest", "Notes"}}},
      {recoded<StowStagedRestore>, {{"token", 5}}},
      {recoded<StowKeptLive>, {{"entries", json::array({"6"})}}},  // an odd number of digits
      {recoded<StowKeptLive>, {{"entries", json::array({"zz"})}}},
      {recoded<StowKeptLive>, {{"entries", json::array({"0x"})}}},
      {recoded<StowKeptLive>, {{"entries", "00"}}},
      {recoded<StowKeptLive>, {{"restoredEntries", json::array({"+1"})}}},
      {recoded<StowKeptLive>, {{"allButPrevious", 1}}},
      {recoded<StowSwapJournal>, {{"kind", "redo"}}},
      {recoded<StowSwapJournal>, {{"step", "documentsOut"}}},
      {recoded<StowSwapJournal>, {{"failures", json::array({1})}}},
      {recoded<StowSettings>, {{"showOnLaunch", 1}}},
      {recoded<StowOutcome>, {{"announced", "no"}}},
  };
  const std::map<Recode, json> stored{
      {recoded<StowManifest>, manifest}, {recoded<StowStagedRestore>, staged},
      {recoded<StowKeptLive>, kept},     {recoded<StowSwapJournal>, journal},
      {recoded<StowSettings>, settings}, {recoded<StowOutcome>, outcome}};
  for (const auto& [recode, patch] : refused) {
    EXPECT_EQ(recode(with(stored.at(recode), patch)), none) << patch;
  }
  const std::set<std::string> optional{"appVersion",      "deviceName",      "kind",
                                       "teamIdentifier",  "signerIdentity",  "token",
                                       "restoredEntries", "restoredDomains", "lastBackupAt"};
  for (const auto& [recode, record] : stored) {
    for (const auto& [key, value] : record.items()) {
      if (!optional.contains(key)) {
        EXPECT_EQ(recode(with(record, {{key, nullptr}})), none) << key;
      }
    }
    EXPECT_EQ(recode(json::array({record})), none);
  }
}

TEST(RecordsTest, AcceptsOnlyStrictInternetDateTimes) {
  EXPECT_EQ(parseInternetDate("2024-05-01T09:30:00Z")->time_since_epoch().count(), 1714555800);
  EXPECT_EQ(date("2024-05-01T11:30:00+02:00"), date("2024-05-01T09:30:00Z"));
  EXPECT_EQ(date("2024-05-01T04:30:00-05:00"), date("2024-05-01T09:30:00Z"));
  EXPECT_TRUE(parseInternetDate("2024-02-29T23:59:59Z"));
  for (const char* bad :
       {"2024-05-01T09:30:00.5Z", "2024-05-01T09:30:00", "2024-05-01 09:30:00Z", "2024-05-01",
        "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-05-01T24:00:00Z",
        "2024-05-01T09:30:00+0200", "2024-05-01T09:30:00+02", "2024-05-01T09:30:00ZZ",
        "24-05-01T09:30:00Z", "2024-05-01T09:30:60Z", ""}) {
    EXPECT_FALSE(parseInternetDate(bad)) << bad;
  }
}

TEST(RecordsTest, TreatsEveryUnreadableFileAsNoRecord) {
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  const std::string good = encodeRecord(StowOutcome{});
  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // missing
  for (const std::string& bad :
       {std::string(), good.substr(0, good.size() / 2), std::string("\xff\xfe not json")}) {
    writeFile(layout.outcomeRecord, bad);
    EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord)) << bad;
  }
  fs::remove(layout.outcomeRecord);
  fs::create_directories(layout.outcomeRecord);
  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // a folder in its place

  writeFile(layout.stagedRecord, good);
  if (::geteuid() != 0) {  // root reads whatever the mode says
    ::chmod(layout.stagedRecord.c_str(), 0);
    EXPECT_FALSE(readRecord<StowOutcome>(layout.stagedRecord));
    ::chmod(layout.stagedRecord.c_str(), 0644);
  }
  EXPECT_TRUE(readRecord<StowOutcome>(layout.stagedRecord));
}

TEST(RecordsTest, SettingsFallBackToDefaultsAndSaveCreatesTheWorkFolder) {
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  EXPECT_EQ(loadSettings(layout), (StowSettings{true, false, std::nullopt}));
  writeFile(layout.settingsRecord, R"({"showOnLaunch": false})");
  EXPECT_EQ(loadSettings(layout), StowSettings{});

  fs::remove_all(layout.workFolder);
  StowSettings changed{false, true, parseInternetDate("2026-03-03T14:05:00Z")};
  saveSettings(layout, changed);
  EXPECT_EQ(loadSettings(layout), changed);
  // The atomic write leaves no temporary file beside the record.
  EXPECT_EQ(std::distance(fs::directory_iterator(layout.workFolder), fs::directory_iterator()), 1);
}

TEST(RecordsTest, WriterNeverThrowsAndKeepsTheOlderFileOnFailure) {
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  writeFile(layout.home / "Library", "a file where the Library folder should be");
  EXPECT_NO_THROW(writeRecord(StowOutcome{}, layout.outcomeRecord));
  EXPECT_FALSE(fs::exists(layout.outcomeRecord));

  StowOutcome first;
  first.message = "first";
  StowLayout other = StowLayout::forRoots(folder / "other", folder / "tmp");
  writeRecord(first, other.outcomeRecord);
  // A file-size limit makes the next write fail part-way, whoever runs the test.
  StowOutcome second;
  second.message = "second";
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ::getrlimit(RLIMIT_FSIZE, &saved);
  rlimit tiny = saved;
  tiny.rlim_cur = 16;
  ::setrlimit(RLIMIT_FSIZE, &tiny);
  writeRecord(second, other.outcomeRecord);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(std::distance(fs::directory_iterator(other.workFolder), fs::directory_iterator()), 1);
  EXPECT_EQ(readRecord<StowOutcome>(other.outcomeRecord)->message, "first");
}

}  // namespace
}  // namespace corvelstow
