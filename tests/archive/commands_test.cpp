#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::sampleDate;

// What each command prints, and its exit status, where no container is set: list, cat and verify
// on an archive with an unsafe path, which they show as it is; on a copy whose directory names
// other methods and sizes; on archives of one byte, damaged, or not archives at all. Then every
// command's usage errors, and the commands that need a container.
TEST(CommandsTest, PrintWhatAnArchiveHoldsOrWhyNotAndTheirUsageErrors) {
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
  testing::setLe(bytes, central + 10, 8, 2);                           // the first record's method
  testing::setLe(bytes, central + 20, 17, 4);                          // and compressed size
  testing::setLe(bytes, central + (46 + 13) + (46 + 10) + 10, 12, 2);  // the third's method
  testing::writeFile(folder / "methods.zip", bytes);
  testing::writeFile(folder / "notes.txt", "not an archive");

  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string out, err = {};
  };
  const std::string at = folder.path().string() + "/";
  const std::string help = "Run with --help for more information.\n";
  const std::string noContainer =
      "No app container is set: name one with --home or CORVELSTOW_HOME.\n";
  const Case cases[] = {
      {{"list", at + "methods.zip"},
       0,
       "        size   compressed  method    crc       path\n"
       "          20           17  deflated  766428ce  manifest.json\n"
       "           0            0  stored    00000000  container/\n"
       "          12           12  method 12 048325f1  ../data.bin\n"},
      {{"--json", "list", at + "methods.zip"},
       0,
       R"([{"path": "manifest.json", "method": 8, "crc": 1986275534, "compressedSize": 17,
            "size": 20, "headerOffset": 0},
           {"path": "container/", "method": 0, "crc": 0, "compressedSize": 0, "size": 0,
            "headerOffset": 63},
           {"path": "../data.bin", "method": 12, "crc": 75703793, "compressedSize": 12,
            "size": 12, "headerOffset": 103}])"},
      {{"cat", archive, "manifest.json"}, 0, manifest},
      {{"cat", archive, "../data.bin"}, 0, binary},
      {{"cat", archive, "container/nothing"},
       1,
       "",
       "The archive holds no entry named container/nothing.\n"},
      {{"cat", archive, "manifest.json", "--index", "2"},
       1,
       "",
       "The archive holds only 1 entry named manifest.json.\n"},
      {{"verify", archive}, 0, "Checked 3 entries and 32 bytes: every checksum matches.\n"},
      {{"--json", "verify", archive}, 0, R"({"entries": 3, "bytes": 32})"},
      {{"verify", at + "one.zip"}, 0, "Checked 1 entry and 1 byte: every checksum matches.\n"},
      {{"verify", at + "damaged.zip"},
       1,
       "",
       "manifest.json is damaged: its checksum does not match.\n"},
      {{"cat", at + "damaged.zip", "manifest.json"},
       1,
       "z" + manifest.substr(1),
       "manifest.json is damaged: its checksum does not match.\n"},
      {{"list", at + "notes.txt"}, 1, "", "That file is not a zip archive.\n"},
      {{"list", folder.path().string()},
       1,
       "",
       "Could not read " + folder.path().filename().string() + ": Is a directory.\n"},
      {{}, 2, "", "A subcommand is required\n" + help},
      {{"frobnicate"}, 2, "", "A subcommand is required\n" + help},
      {{"status", "--no-such-option"},
       2,
       "",
       "The following argument was not expected: --no-such-option\n" + help},
      {{"list"}, 2, "", "FILE is required\n" + help},
      {{"verify", archive, archive},
       2,
       "",
       "The following argument was not expected: " + archive + "\n" + help},
      {{"cat", archive}, 2, "", "ENTRY is required\n" + help},
      {{"cat", archive, "manifest.json", "--index", "0"},
       2,
       "",
       "--index: Value 0 not in range 1 to 4294967295\n" + help},
      {{"inspect"}, 2, "", "file is required\n" + help},
      {{"restore"}, 2, "", "file is required\n" + help},
      {{"restore", archive, "--scope", "all"},
       2,
       "",
       "--scope: all not in {everything,documents,settings}\n" + help},
      {{"backup", "--threads", "0"},
       2,
       "",
       "--threads: The number of threads must be a whole number from 1 up.\n" + help},
      {{"restore", archive, "--threads", "x"},
       2,
       "",
       "--threads: The number of threads must be a whole number from 1 up.\n" + help},
      {{"set", "show-on-launch", "maybe"}, 2, "", "value: maybe not in {on,off}\n" + help},
      {{"set", "colour", "on"},
       2,
       "",
       "option: colour not in {include-caches,show-on-launch}\n" + help},
      {{"set", "include-caches"}, 2, "", "value is required\n" + help},
      {{"run"}, 2, "", "command is required\n" + help},
      {{"undo", "now"}, 2, "", "The following argument was not expected: now\n" + help},
      {{"inject"}, 2, "", "APP is required\n" + help},
      {{"inject", "x.app", "--in-place", "-o", "y.app"},
       2,
       "",
       "--output excludes --in-place\n" + help},
      {{"status"}, 1, "", noContainer},
      {{"--home", "/nonexistent/container", "status"},
       1,
       "",
       "There is no app container at /nonexistent/container.\n"},
      {{"backup"}, 1, "", noContainer},
      {{"restore", archive}, 1, "", noContainer},
      {{"usage"}, 1, "", noContainer},
      {{"undo"}, 1, "", noContainer},
      {{"set", "include-caches", "on"}, 1, "", noContainer},
      {{"greet"}, 1, "", noContainer},
  };
  for (const Case& c : cases) {
    // No container is needed to look inside an archive.
    auto result = testing::runCommand(c.arguments, {{"CORVELSTOW_HOME", ""}});
    std::string command;
    for (const std::string& argument : c.arguments) command += argument + " ";
    SCOPED_TRACE(command);
    EXPECT_EQ(result.exitCode, c.exitCode);
    if (!c.arguments.empty() && c.arguments[0] == "--json") {
      EXPECT_EQ(nlohmann::json::parse(result.out), nlohmann::json::parse(c.out));
    } else {
      EXPECT_TRUE(result.out == c.out) << result.out;
    }
    EXPECT_EQ(result.err, c.err);
  }
  EXPECT_EQ(testing::runCommand({"--help"}).exitCode, 0);
}

}  // namespace
}  // namespace corvelstow
