#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::sampleDate;

// list, cat and verify on an archive with an unsafe path, which they show as it is; on a copy
// whose directory names other methods and sizes; on archives of one byte, damaged, or not
// archives at all.
TEST(ArchiveCommandsTest, PrintWhatAnArchiveHoldsOrWhyNot) {
  testing::TempFolder folder;
  const std::string binary("\0\1\2 binary \xFF", 12), manifest = "{\"appName\": \"Notes\"}";
  const std::string archive = (folder / "App 2024-05-01 0930.corvelappdata").string();
  StowZipWriter writer(archive);
  writer.add(manifest, "manifest.json", sampleDate());
  writer.addDirectory("container", sampleDate());
  writer.add(binary, "../data.bin", sampleDate());
  writer.finish();
  StowZipWriter one(folder / "one.zip");
  one.add("1", "one", sampleDate());
  one.finish();
  std::string bytes = testing::readFile(archive);
  bytes[30 + 13] ^= 0x01;  // the manifest's first byte, after its header and name
  testing::writeFile(folder / "damaged.zip", bytes);
  bytes = testing::readFile(archive);
  const std::size_t central = testing::centralOffset(bytes);
  testing::setLe(bytes, central + 10, 8, 2);   // the first record's method
  testing::setLe(bytes, central + 20, 17, 4);  // and compressed size
  testing::setLe(bytes, central + (46 + 13) + (46 + 10) + 10, 12, 2);  // the third's method
  testing::writeFile(folder / "methods.zip", bytes);
  testing::writeFile(folder / "notes.txt", "not an archive");

  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string out, err = {};
  };
  const std::string at = folder.path().string() + "/";
  const Case cases[] = {
      {{"list", at + "methods.zip"}, 0,
       "        size   compressed  method    crc       path\n"
       "          20           17  deflated  766428ce  manifest.json\n"
       "           0            0  stored    00000000  container/\n"
       "          12           12  method 12 048325f1  ../data.bin\n"},
      {{"--json", "list", at + "methods.zip"}, 0,
       R"([{"path": "manifest.json", "method": 8, "crc": 1986275534, "compressedSize": 17,
            "size": 20, "headerOffset": 0},
           {"path": "container/", "method": 0, "crc": 0, "compressedSize": 0, "size": 0,
            "headerOffset": 63},
           {"path": "../data.bin", "method": 12, "crc": 75703793, "compressedSize": 12,
            "size": 12, "headerOffset": 103}])"},
      {{"cat", archive, "manifest.json"}, 0, manifest},
      {{"cat", archive, "../data.bin"}, 0, binary},
      {{"cat", archive, "container/nothing"}, 1, "",
       "The archive holds no entry named container/nothing.\n"},
      {{"cat", archive, "manifest.json", "--index", "2"}, 1, "",
       "The archive holds only 1 entry named manifest.json.\n"},
      {{"verify", archive}, 0, "Checked 3 entries and 32 bytes: every checksum matches.\n"},
      {{"--json", "verify", archive}, 0, R"({"entries": 3, "bytes": 32})"},
      {{"verify", at + "one.zip"}, 0, "Checked 1 entry and 1 byte: every checksum matches.\n"},
      {{"verify", at + "damaged.zip"}, 1, "",
       "manifest.json is damaged: its checksum does not match.\n"},
      {{"cat", at + "damaged.zip", "manifest.json"}, 1, "z" + manifest.substr(1),
       "manifest.json is damaged: its checksum does not match.\n"},
      {{"list", at + "notes.txt"}, 1, "", "That file is not a zip archive.\n"},
      {{"list", folder.path().string()}, 1, "",
       "Could not read " + folder.path().filename().string() + ": Is a directory.\n"},
  };
  for (const Case& c : cases) {
    // No container is needed to look inside an archive.
    auto result = testing::runCommand(c.arguments, {{"CORVELSTOW_HOME", ""}});
    EXPECT_EQ(result.exitCode, c.exitCode) << c.arguments[0] << " " << c.arguments[1];
    if (c.arguments[0] == "--json") {
      EXPECT_EQ(nlohmann::json::parse(result.out), nlohmann::json::parse(c.out)) << c.arguments[1];
    } else {
      EXPECT_TRUE(result.out == c.out) << c.arguments[0] << " " << c.arguments[1] << result.out;
    }
    EXPECT_EQ(result.err, c.err);
  }
  EXPECT_EQ(testing::runCommand({"list"}).exitCode, 2);
  EXPECT_EQ(testing::runCommand({"cat", archive}).exitCode, 2);
}

}  // namespace
}  // namespace corvelstow
