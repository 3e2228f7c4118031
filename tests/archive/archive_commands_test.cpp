#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using nlohmann::json;

// No container is needed to look inside an archive.
const std::map<std::string, std::string> kNoContainer = {{"CORVELSTOW_HOME", ""}};

testing::ProcessResult corvelstow(const std::vector<std::string>& arguments) {
  return testing::runCommand(arguments, kNoContainer);
}

struct Sample {
  testing::TempFolder folder;
  std::filesystem::path archive = folder / "App 2024-05-01 0930.corvelappdata";
  std::string binary = std::string("\0\1\2 binary \xFF", 12) + testing::randomBytes(2 << 20);

  Sample() {
    testing::writeFile(folder / "data.bin", binary);
    StowZipWriter writer(archive);
    writer.add("{\"appName\": \"Notes\"}", "manifest.json", currentDate());
    writer.addDirectory("container/Documents", currentDate());
    writer.addFile(folder / "data.bin", "container/Documents/data.bin");
    writer.finish();
  }
};

TEST(ArchiveCommandsTest, ListsEntriesInDirectoryOrder) {
  Sample sample;
  StowZipReader reader(sample.archive);
  json expected = json::array();
  for (const StowZipItem& item : reader.items()) {
    expected.push_back({{"path", item.path},
                        {"method", item.method},
                        {"crc", item.crc},
                        {"compressedSize", item.compressedSize},
                        {"size", item.size},
                        {"headerOffset", item.headerOffset}});
  }
  auto listed = corvelstow({"--json", "list", sample.archive.string()});
  ASSERT_EQ(listed.exitCode, 0) << listed.err;
  json document = json::parse(listed.out);
  EXPECT_EQ(document, expected);
  EXPECT_EQ(document[2]["path"], "container/Documents/data.bin");
  EXPECT_EQ(document[2]["method"], 8);
  EXPECT_EQ(document[2]["size"], sample.binary.size());

  auto text = corvelstow({"list", sample.archive.string()});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  const std::size_t manifest = text.out.find("stored");
  const std::size_t folder = text.out.find("container/Documents/\n");
  const std::size_t data = text.out.find("deflated");
  EXPECT_NE(manifest, std::string::npos) << text.out;
  EXPECT_LT(manifest, folder) << text.out;
  EXPECT_LT(folder, data) << text.out;
}

TEST(ArchiveCommandsTest, CatWritesTheEntrysBytes) {
  Sample sample;
  auto binary = corvelstow({"cat", sample.archive.string(), "container/Documents/data.bin"});
  ASSERT_EQ(binary.exitCode, 0) << binary.err;
  EXPECT_TRUE(binary.out == sample.binary);
  auto manifest = corvelstow({"cat", sample.archive.string(), "manifest.json"});
  EXPECT_EQ(manifest.out, "{\"appName\": \"Notes\"}");

  auto missing = corvelstow({"cat", sample.archive.string(), "container/nothing"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.err, "The archive holds no entry named container/nothing.\n");
}

TEST(ArchiveCommandsTest, VerifyCountsWhatItChecked) {
  Sample sample;
  const std::size_t bytes = sample.binary.size() + 20;
  auto text = corvelstow({"verify", sample.archive.string()});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(text.out,
            "Checked 3 entries and " + std::to_string(bytes) + " bytes: every checksum matches.\n");
  auto document = corvelstow({"verify", "--json", sample.archive.string()});
  ASSERT_EQ(document.exitCode, 0) << document.err;
  EXPECT_EQ(json::parse(document.out), json({{"entries", 3}, {"bytes", bytes}}));
}

TEST(ArchiveCommandsTest, FailuresPrintTheirSentenceAndExit1) {
  Sample sample;
  std::string damaged = testing::readFile(sample.archive);
  damaged[30 + 13 + 5] ^= 0x01;  // inside the manifest's bytes, after its header and name
  testing::writeFile(sample.folder / "damaged.zip", damaged);
  testing::writeFile(sample.folder / "notes.txt", "not an archive");
  testing::writeFile(sample.folder / "tree" / "notes.txt", testing::sampleText(10000));
  auto bzip2 =
      testing::runProcess({"sh", "-c", "cd \"$0\" && zip -q -Z bzip2 ../bzip2.zip notes.txt",
                           (sample.folder / "tree").string()});
  ASSERT_EQ(bzip2.exitCode, 0) << bzip2.err;

  struct Case {
    std::vector<std::string> arguments;
    std::string error;
  };
  const std::string folder = sample.folder.path().string();
  const Case cases[] = {
      {{"verify", folder + "/damaged.zip"},
       "manifest.json is damaged: its checksum does not match."},
      {{"cat", folder + "/damaged.zip", "manifest.json"},
       "manifest.json is damaged: its checksum does not match."},
      {{"list", folder + "/notes.txt"}, "That file is not a zip archive."},
      {{"verify", folder + "/notes.txt"}, "That file is not a zip archive."},
      {{"verify", folder + "/bzip2.zip"},
       "notes.txt uses compression method 12, which isn't supported."},
      {{"list", folder + "/absent.zip"}, "Could not open absent.zip: No such file or directory."},
      {{"list", folder},
       "Could not read " + sample.folder.path().filename().string() + ": Is a directory."},
  };
  for (const Case& c : cases) {
    auto result = corvelstow(c.arguments);
    EXPECT_EQ(result.exitCode, 1) << c.arguments[0] << " " << c.arguments[1];
    EXPECT_EQ(result.err, c.error + "\n");
  }
  EXPECT_EQ(corvelstow({"list"}).exitCode, 2);
  EXPECT_EQ(corvelstow({"cat", sample.archive.string()}).exitCode, 2);
}

}  // namespace
}  // namespace corvelstow
