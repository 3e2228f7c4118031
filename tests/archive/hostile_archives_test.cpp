// The archives of tests/archive/hostile (made by make_archives.py there) through the commands a
// user runs: verify, cat and restore. Each is refused with its sentence, leaving nothing staged,
// or read as other tools read it.

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;

const std::string kNotAZip = "That file is not a zip archive.";
const std::string kShopping = "milk, eggs, bread\n";

std::string damaged(const std::string& name) {
  return "container/Documents/" + name + " is damaged: its checksum does not match.";
}

std::string heldTwice(const std::string& name) {
  return "The backup holds container/Documents/" + name + " more than once.";
}

std::string checked(int entries, int bytes) {
  return "Checked " + std::to_string(entries) + " entries and " + std::to_string(bytes) +
         " bytes: every checksum matches.";
}

struct Case {
  std::string archive;
  std::string verify;  // what it prints, or the sentence it fails with
  std::string entry;   // the one that cat writes out,
  std::string catOut;  // what reaches standard output before any failure,
  std::string catError;
  std::string restoreError;  // empty when the restore is prepared, staging `staged`
  Tree staged = {};
};

const Tree kNotes = {
    {"Documents", "/"}, {"Documents/Notes", "/"}, {"Documents/Notes/shopping.txt", kShopping}};
// Code page 437 names from an MS-DOS tool, each its own file.
const Tree kCp437Names = {
    {"Documents", "/"},
    {"Documents/Notes", "/"},
    {"Documents/Notes/\u00C7\u00FC.txt", "0"},
    {"Documents/Notes/\u00C9\u00E6.txt", "1"},
    {"Documents/Notes/\u00E1\u00ED.txt", "2"},
    {"Documents/Notes/\u2591\u2592.txt", "3"},
    {"Documents/Notes/\u2514\u2534.txt", "4"},
    {"Documents/Notes/\u2568\u2564.txt", "5"},
    {"Documents/Notes/\u03B1\u00DF.txt", "6"},
    {"Documents/Notes/\u2261\u00B1.txt", "7"},
    {"Documents/r\u00E9sum\u00E9.txt", "resume"},
};
// The name of the first current Unicode Path field; stale ones are passed over.
const Tree kUnicodePathNames = {{"Documents", "/"},
                                {"Documents/Caf\u00E9.txt", "fresh"},
                                {"Documents/na\u00EFve.txt", "stale"}};
// Latin-1 names from a Unix tool, byte for byte.
const Tree kUnixNames = {{"Documents", "/"},
                         {"Documents/r\xE9sum\xE9.txt", "acute"},
                         {"Documents/r\xE8sum\xE8.txt", "grave"}};

const Case kCases[] = {
    // Declared sizes hold: no output past them, none short of them, a stream that ends.
    {"declared-too-small.zip", damaged("bomb.bin"), "container/Documents/bomb.bin", "",
     damaged("bomb.bin"), damaged("bomb.bin")},
    {"declared-too-large.zip", damaged("short.txt"), "container/Documents/short.txt", kShopping,
     damaged("short.txt"), damaged("short.txt")},
    {"stored-sizes-differ.zip", damaged("uneven.txt"), "container/Documents/uneven.txt", "",
     damaged("uneven.txt"), damaged("uneven.txt")},
    {"deflate-without-end.zip", damaged("unended.txt"), "container/Documents/unended.txt",
     kShopping, damaged("unended.txt"), damaged("unended.txt")},
    {"local-data-overlaps.zip", damaged("a.txt"), "container/Documents/a.txt", "", damaged("a.txt"),
     damaged("a.txt")},
    {"overlapping-entries.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    // Data in front of the archive.
    {"data-in-front.zip", checked(5, 213), "container/Documents/Notes/shopping.txt", kShopping, "",
     "", kNotes},
    // Names without the UTF-8 flag, listed and found by cat as code page 437 or the Unicode
    // Path field gives them.
    {"cp437-names.zip", checked(13, 209), "container/Documents/r\u00E9sum\u00E9.txt", "resume", "",
     "", kCp437Names},
    {"unicode-path-field.zip", checked(5, 205), "container/Documents/Caf\u00E9.txt", "fresh", "",
     "", kUnicodePathNames},
    {"unix-names.zip", checked(5, 205), "container/Documents/r\u0398sum\u0398.txt", "acute", "", "",
     kUnixNames},
    // Names that would land on one file are listed, and refused by the restore.
    {"utf8-flag-bad-bytes.zip", checked(5, 200), "container/Documents/\uFFFD.txt", "one", "",
     heldTwice("\uFFFD.txt")},
    {"duplicate-names.zip", checked(6, 225), "container/Documents/Notes/shopping.txt", kShopping,
     "", heldTwice("Notes/shopping.txt")},
    {"file-and-folder.zip", checked(6, 219), "container/Documents/Notes", "a file", "",
     heldTwice("Notes")},
    {"nul-in-name.zip", checked(6, 215), "container/Documents/Notes/shopping.txt", kShopping, "",
     "The archive holds an unsafe path: container/Documents/Notes/shopping.txt\\0evil.exe"},
    // End records and directories that do not hold together.
    {"empty-end-then-junk.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"empty-end-bogus-offset.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"zip64-locator-to-nowhere.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"zip64-end-apart.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"count-too-low.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"count-too-high.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    {"gap-before-end.zip", kNotAZip, "manifest.json", "", kNotAZip, kNotAZip},
    // Encryption, named as such.
    {"encrypted.zip", "container/Documents/Notes/secret.txt is encrypted, which isn't supported.",
     "container/Documents/Notes/secret.txt", "",
     "container/Documents/Notes/secret.txt is encrypted, which isn't supported.",
     "container/Documents/Notes/secret.txt is encrypted, which isn't supported."},
};

TEST(HostileArchivesTest, EachIsRefusedWithItsSentenceOrReadAsOtherToolsReadIt) {
  const fs::path folder = fs::path(CORVELSTOW_SOURCE_DIR) / "tests/archive/hostile";
  std::size_t archives = 0;
  for (const auto& file : fs::directory_iterator(folder))
    archives += file.path().extension() == ".zip";
  EXPECT_EQ(archives, std::size(kCases)) << "an archive of the folder without its case";

  for (const Case& c : kCases) {
    SCOPED_TRACE(c.archive);
    const std::string archive = (folder / c.archive).string();
    const auto verify = testing::runCommand({"verify", archive}, {{"CORVELSTOW_HOME", ""}});
    EXPECT_EQ(verify.exitCode == 0 ? verify.out : verify.err, c.verify + "\n");

    const auto cat = testing::runCommand({"cat", archive, c.entry}, {{"CORVELSTOW_HOME", ""}});
    EXPECT_EQ(cat.out, c.catOut);
    EXPECT_EQ(cat.err, c.catError.empty() ? "" : c.catError + "\n");

    for (const char* threads : {"1", "4"}) {
      SCOPED_TRACE(std::string("restore on ") + threads + " threads");
      testing::TempFolder home;
      fs::create_directories(home / "Documents");
      const auto restore = testing::runCommand({"restore", archive, "--threads", threads},
                                               {{"CORVELSTOW_HOME", home.path().string()}});
      EXPECT_EQ(restore.exitCode, c.restoreError.empty() ? 0 : 1);
      EXPECT_EQ(restore.err, c.restoreError.empty() ? "" : c.restoreError + "\n");
      const fs::path work = home / "Library/CorvelStow";
      EXPECT_EQ(testing::readTree(work / "Staged"), c.staged);
      EXPECT_EQ(fs::exists(work / "staged.json"), c.restoreError.empty());
    }
  }

  // Eight names that UTF-8 would read as the same two U+FFFD each are listed as eight.
  const auto listed = testing::runCommand({"--json", "list", (folder / "cp437-names.zip").string()},
                                          {{"CORVELSTOW_HOME", ""}});
  std::set<std::string> paths;
  for (const auto& item : nlohmann::json::parse(listed.out)) paths.insert(item["path"]);
  EXPECT_EQ(paths.size(), 13u);
}

}  // namespace
}  // namespace corvelstow
