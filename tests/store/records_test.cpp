#include "store/records.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "store/layout.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using nlohmann::json;
using testing::TempFolder;
using testing::writeFile;

StowDate date(const char* text) { return *parseInternetDate(text); }

StowManifest fullManifest() {
  StowManifest m;
  m.schemaVersion = 1;
  m.bundleIdentifier = "com.example.notes";
  m.appName = "Notes";
  m.appVersion = "2.4";
  m.createdAt = date("2024-05-01T09:30:00Z");
  m.deviceName = "Ada's iPhone";
  m.includedPaths = {"Documents", "Library"};
  m.fileCount = 12;
  m.totalBytes = 4096;
  m.kind = "manual";
  m.teamIdentifier = "N0TES12345";
  m.signerIdentity = "Apple Development: Ada";
  return m;
}

std::vector<std::string> keysOf(const std::string& encoded) {
  std::vector<std::string> keys;
  json document = json::parse(encoded);
  for (const auto& [key, value] : document.items()) keys.push_back(key);
  return keys;
}

TEST(RecordsTest, WritesExactlyTheFieldNamesAndOmitsAbsentOptionals) {
  EXPECT_EQ(keysOf(encodeRecord(fullManifest())),
            (std::vector<std::string>{"appName", "appVersion", "bundleIdentifier", "createdAt",
                                      "deviceName", "fileCount", "includedPaths", "kind",
                                      "schemaVersion", "signerIdentity", "teamIdentifier",
                                      "totalBytes"}));

  StowManifest bare = fullManifest();
  bare.appVersion = bare.deviceName = bare.kind = bare.teamIdentifier = bare.signerIdentity =
      std::nullopt;
  std::string encoded = encodeRecord(bare);
  EXPECT_EQ(encoded.find("null"), std::string::npos);
  EXPECT_EQ(keysOf(encoded),
            (std::vector<std::string>{"appName", "bundleIdentifier", "createdAt", "fileCount",
                                      "includedPaths", "schemaVersion", "totalBytes"}));
  EXPECT_EQ(decodeRecord<StowManifest>(encoded), bare);

  EXPECT_EQ(keysOf(encodeRecord(StowSettings{})),
            (std::vector<std::string>{"includeCaches", "showOnLaunch"}));
  EXPECT_EQ(keysOf(encodeRecord(StowOutcome{})),
            (std::vector<std::string>{"announced", "appliedAt", "canUndo", "message",
                                      "sourceDate", "sourceName", "succeeded"}));
  StowStagedRestore staged{fullManifest(), StowRestoreScope::documents,
                           date("2024-05-02T10:00:00Z"), std::nullopt};
  json stagedJson = json::parse(encodeRecord(staged));
  EXPECT_EQ(stagedJson["scope"], "documents");
  EXPECT_EQ(stagedJson["stagedAt"], "2024-05-02T10:00:00Z");
  EXPECT_EQ(stagedJson["manifest"]["createdAt"], "2024-05-01T09:30:00Z");
}

TEST(RecordsTest, RoundTripsEveryRecordByteForByte) {
  StowSettings settings{false, true, date("2026-03-03T14:05:00+01:00")};
  StowStagedRestore staged{fullManifest(), StowRestoreScope::settings, date("2026-01-01T00:00:00Z"),
                           "0123456789abcdef0123456789abcdef"};
  StowOutcome outcome{true, "Restored everything from Notes.", "Notes", date("2024-05-01T09:30:00Z"),
                      date("2024-05-03T08:00:00Z"), true, false};

  EXPECT_EQ(decodeRecord<StowSettings>(encodeRecord(settings)), settings);
  EXPECT_EQ(decodeRecord<StowStagedRestore>(encodeRecord(staged)), staged);
  EXPECT_EQ(decodeRecord<StowOutcome>(encodeRecord(outcome)), outcome);

  // Equal records give equal bytes, and decoding then encoding changes nothing.
  std::string first = encodeRecord(staged);
  EXPECT_EQ(first, encodeRecord(staged));
  EXPECT_EQ(encodeRecord(*decodeRecord<StowStagedRestore>(first)), first);
  // A zone offset is read as the moment it names and written back in UTC.
  EXPECT_EQ(json::parse(encodeRecord(settings))["lastBackupAt"], "2026-03-03T13:05:00Z");
}

TEST(RecordsTest, AcceptsOnlyStrictInternetDateTimes) {
  EXPECT_EQ(parseInternetDate("2024-05-01T09:30:00Z")->time_since_epoch().count(), 1714555800);
  EXPECT_EQ(parseInternetDate("2024-05-01T11:30:00+02:00"), parseInternetDate("2024-05-01T09:30:00Z"));
  EXPECT_EQ(parseInternetDate("2024-05-01T04:30:00-05:00"), parseInternetDate("2024-05-01T09:30:00Z"));
  EXPECT_TRUE(parseInternetDate("2024-02-29T23:59:59Z"));
  for (const char* bad : {"2024-05-01T09:30:00.5Z", "2024-05-01T09:30:00", "2024-05-01 09:30:00Z",
                          "2024-05-01", "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z",
                          "2024-05-01T24:00:00Z", "2024-05-01T09:30:00+0200",
                          "2024-05-01T09:30:00+02", "2024-05-01T09:30:00ZZ", "24-05-01T09:30:00Z",
                          "2024-05-01T09:30:60Z", ""}) {
    EXPECT_FALSE(parseInternetDate(bad)) << bad;
  }

  std::string manifest = encodeRecord(fullManifest());
  auto withDate = [&](const std::string& text) {
    json document = json::parse(manifest);
    document["createdAt"] = text;
    return document.dump();
  };
  EXPECT_TRUE(decodeRecord<StowManifest>(withDate("2024-05-01T09:30:00+00:00")));
  EXPECT_FALSE(decodeRecord<StowManifest>(withDate("2024-05-01T09:30:00.000Z")));
  EXPECT_FALSE(decodeRecord<StowManifest>(withDate("2024-05-01T09:30:00")));
}

TEST(RecordsTest, FailsTheWholeRecordOnAMissingKeyOrWrongType) {
  json manifest = json::parse(encodeRecord(fullManifest()));
  for (const char* key : {"schemaVersion", "bundleIdentifier", "appName", "createdAt",
                          "includedPaths", "fileCount", "totalBytes"}) {
    json missing = manifest;
    missing.erase(key);
    EXPECT_FALSE(decodeRecord<StowManifest>(missing.dump())) << key;
  }
  auto with = [](json document, const char* key, json value) {
    document[key] = std::move(value);
    return document;
  };
  EXPECT_FALSE(decodeRecord<StowManifest>(with(manifest, "fileCount", "12").dump()));
  EXPECT_FALSE(decodeRecord<StowManifest>(with(manifest, "fileCount", 12.5).dump()));
  EXPECT_FALSE(decodeRecord<StowManifest>(with(manifest, "appVersion", 3).dump()));
  EXPECT_FALSE(decodeRecord<StowManifest>(with(manifest, "includedPaths", json::array({1})).dump()));
  EXPECT_FALSE(decodeRecord<StowManifest>(with(manifest, "totalBytes", 18446744073709551615ULL).dump()));
  // Any schema version and kind decode, and unknown keys are passed over.
  auto tolerant = decodeRecord<StowManifest>(
      with(with(with(manifest, "schemaVersion", 7), "kind", "scheduled"), "future", true).dump());
  ASSERT_TRUE(tolerant);
  EXPECT_EQ(tolerant->schemaVersion, 7);
  EXPECT_EQ(tolerant->kind, "scheduled");

  StowStagedRestore bare;
  bare.manifest = fullManifest();
  json staged = json::parse(encodeRecord(bare));
  EXPECT_FALSE(decodeRecord<StowStagedRestore>(with(staged, "scope", "library").dump()));
  EXPECT_FALSE(decodeRecord<StowStagedRestore>(with(staged, "scope", "Everything").dump()));
  EXPECT_FALSE(decodeRecord<StowSettings>(R"({"showOnLaunch": 1, "includeCaches": false})"));
  EXPECT_FALSE(decodeRecord<StowSettings>(R"({"includeCaches": false})"));
  EXPECT_FALSE(decodeRecord<StowSettings>(R"([true, false])"));
}

TEST(RecordsTest, TreatsEveryUnreadableFileAsNoRecord) {
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  std::string good = encodeRecord(StowOutcome{});

  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // missing
  writeFile(layout.outcomeRecord, "");
  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // empty
  writeFile(layout.outcomeRecord, good.substr(0, good.size() / 2));
  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // truncated
  writeFile(layout.outcomeRecord, "\xff\xfe not json");
  EXPECT_FALSE(readRecord<StowOutcome>(layout.outcomeRecord));  // garbage
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
