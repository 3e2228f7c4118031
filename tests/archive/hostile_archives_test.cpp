// The archives of tests/archive/hostile (made by make_archives.py there) through the commands a
// user runs: list, verify, cat and restore. Each is refused with its sentence, leaving nothing
// staged, or read as other tools read it.

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;

const std::string kNotAZip = "That file is not a zip archive.";
const std::string kShopping = "milk, eggs, bread\n";
const std::string kEncrypted =
    "container/Documents/Notes/secret.txt is encrypted, which isn't supported.";

std::string heldTwice(const std::string& name) {
  return "The backup holds container/Documents/" + name + " more than once.";
}

std::string unsafe(const std::string& name) {
  return "The archive holds an unsafe path: container/Documents/" + name;
}

std::string checked(int entries, int bytes) {
  return "Checked " + std::to_string(entries) + " entries and " + std::to_string(bytes) +
         " bytes: every checksum matches.";
}

// The paths of the last `count` lines of list's output, each after 47 characters of sizes,
// method and checksum.
std::vector<std::string> lastPaths(const std::string& listed, std::size_t count) {
  std::vector<std::string> paths;
  std::istringstream lines(listed);
  for (std::string line; std::getline(lines, line);) {
    paths.push_back(line.substr(std::min<std::size_t>(47, line.size())));
  }
  paths.erase(paths.begin(),
              paths.end() - static_cast<std::ptrdiff_t>(std::min(count, paths.size())));
  return paths;
}

struct Case {
  std::string archive;
  std::string verify;            // what it prints, or the sentence it fails with
  std::vector<std::string> cat;  // what cat is given after the archive: an entry, maybe --index,
  std::string catOut;            // what reaches standard output before any failure,
  std::string catError;
  std::string restoreError;  // empty when the restore is prepared, staging `staged`
  Tree staged = {};
  std::vector<std::string> listed = {};  // the paths that list shows last, as it shows them
};

// An archive that verify, cat (of `entry`, after printing `catOut`) and restore refuse alike.
Case refused(const std::string& archive, const std::string& sentence,
             const std::string& entry = "manifest.json", const std::string& catOut = "") {
  return {archive, sentence, {entry}, catOut, sentence, sentence};
}

// One whose entry container/Documents/{name} unpacks to another size than it declares.
Case wrongSize(const std::string& archive, const std::string& name,
               const std::string& catOut = "") {
  return refused(
      archive,
      "container/Documents/" + name + " is damaged: its size does not match what the archive says.",
      "container/Documents/" + name, catOut);
}

const Tree kNotes = {
    {"Documents", "/"}, {"Documents/Notes", "/"}, {"Documents/Notes/shopping.txt", kShopping}};
// Code page 437 names from an MS-DOS tool, each its own file.
const Tree kCp437Names = {{"Documents", "/"},
                          {"Documents/Notes", "/"},
                          {"Documents/Notes/\u00C7\u00FC.txt", "0"},
                          {"Documents/Notes/\u00C9\u00E6.txt", "1"},
                          {"Documents/Notes/\u00E1\u00ED.txt", "2"},
                          {"Documents/Notes/\u2591\u2592.txt", "3"},
                          {"Documents/Notes/\u2514\u2534.txt", "4"},
                          {"Documents/Notes/\u2568\u2564.txt", "5"},
                          {"Documents/Notes/\u03B1\u00DF.txt", "6"},
                          {"Documents/Notes/\u2261\u00B1.txt", "7"},
                          {"Documents/r\u00E9sum\u00E9.txt", "resume"}};
// The name of the first current Unicode Path field; stale ones are passed over.
const Tree kUnicodePathNames = {{"Documents", "/"},
                                {"Documents/Caf\u00E9.txt", "fresh"},
                                {"Documents/na\u00EFve.txt", "stale"}};
// UTF-8 names stored without the flag, from Unix and from MS-DOS, and a flagged name that its
// Unicode Path field renames.
const std::string kUnicode = "\u00DCn\u00EFc\u00F6d\u00E9/\u65E5\u672C\u8A9E \u2713.txt";
const Tree kUtf8Names = {{"Documents", "/"},
                         {"Documents/Caf\u00E9.txt", "cafe"},
                         {"Documents/\u00DCn\u00EFc\u00F6d\u00E9", "/"},
                         {"Documents/" + kUnicode, "nihongo"},
                         {"Documents/new.txt", "renamed"}};
const Tree kFolders = {{"Documents", "/"},
                       {"Documents/def", "/"},
                       {"Documents/def/x.txt", "x"},
                       {"Documents/\u00E4", "/"},
                       {"Documents/sized", "/"}};
const std::string kControl = "line\nbreak\t\x1B[2J.txt";
// Latin-1 names from a Unix tool, byte for byte.
const Tree kUnixNames = {{"Documents", "/"},
                         {"Documents/r\xE9sum\xE9.txt", "acute"},
                         {"Documents/r\xE8sum\xE8.txt", "grave"}};

// clang-format off
const Case kCases[] = {
    // Declared sizes hold: no output past them, none short of them, a stream that ends, data
    // that fit where the archive places them, a size that data could give at all.
    wrongSize("declared-too-small.zip", "bomb.bin"),
    wrongSize("declared-too-large.zip", "short.txt", kShopping),
    wrongSize("stored-sizes-differ.zip", "uneven.txt"),
    wrongSize("deflate-without-end.zip", "unended.txt", kShopping),
    wrongSize("local-data-overlaps.zip", "a.txt"),
    wrongSize("zip64-size-impossible.zip", "huge.bin"),
    refused("overlapping-entries.zip", kNotAZip),
    // Data in front of the archive; a copy of the end record in its comment.
    {"data-in-front.zip", checked(5, 213), {"container/Documents/Notes/shopping.txt"}, kShopping,
     "", "", kNotes},
    {"end-record-in-comment.zip", checked(5, 213), {"container/Documents/Notes/shopping.txt"},
     kShopping, "", "", kNotes},
    // Names without the UTF-8 flag, listed and found by cat as UTF-8 when they are, else as code
    // page 437, unless a Unicode Path field gives them; a flagged name's field wins too.
    {"utf8-unflagged.zip", checked(6, 213), {"container/Documents/" + kUnicode}, "nihongo", "", "",
     kUtf8Names, {"container/Documents/Caf\u00E9.txt", "container/Documents/" + kUnicode,
                  "container/Documents/new.txt"}},
    {"cp437-names.zip", checked(13, 209), {"container/Documents/r\u00E9sum\u00E9.txt"}, "resume",
     "", "", kCp437Names},
    {"unicode-path-field.zip", checked(5, 205), {"container/Documents/Caf\u00E9.txt"}, "fresh", "",
     "", kUnicodePathNames},
    {"unix-names.zip", checked(5, 205), {"container/Documents/r\u0398sum\u0398.txt"}, "acute", "",
     "", kUnixNames},
    // Folders, marked by their attributes or by a field ending in a backslash, or declaring a
    // size: no data to check.
    {"folder-marks.zip", checked(7, 195), {"container/Documents/sized/"}, "", "", "", kFolders,
     {"container/Documents/def/", "container/Documents/def/x.txt", "container/Documents/\u00E4/",
      "container/Documents/sized/"}},
    // A backslash: a character in a name from Unix, a separator in one from Windows.
    {"unix-backslash.zip", checked(4, 198), {"container/Documents/with\\backslash"}, "unix", "",
     "", {{"Documents", "/"}, {"Documents/with\\backslash", "unix"}}},
    {"dos-backslash.zip", checked(4, 197), {"container/Documents/a\\..\\..\\x"}, "dos", "",
     unsafe("a\\..\\..\\x")},
    // Names that would land on one file are listed, and refused by the restore; cat reaches
    // each of several entries of one name.
    {"utf8-flag-bad-bytes.zip", checked(5, 200), {"container/Documents/\uFFFD.txt", "--index", "2"},
     "two", "", heldTwice("\uFFFD.txt")},
    {"duplicate-names.zip", checked(6, 225),
     {"container/Documents/Notes/shopping.txt", "--index", "2"}, "overwritten\n", "",
     heldTwice("Notes/shopping.txt")},
    {"file-and-folder.zip", checked(6, 219), {"container/Documents/Notes"}, "a file", "",
     "The backup holds both a file and a folder named container/Documents/Notes."},
    // Control characters, shown escaped, and a NUL.
    {"control-names.zip", checked(5, 209), {"container/Documents/" + kControl}, "two lines", "", "",
     {{"Documents", "/"}, {"Documents/" + kControl, "two lines"}},
     {R"("container/Documents/line\nbreak\t\033[2J.txt")", R"("\"quoted\"")"}},
    {"nul-in-name.zip", checked(6, 215), {"container/Documents/Notes/shopping.txt"}, kShopping, "",
     unsafe("Notes/shopping.txt\\0evil.exe"), {},
     {R"("container/Documents/Notes/shopping.txt\000evil.exe")"}},
    // End records and directories that do not hold together.
    refused("empty-end-then-junk.zip", kNotAZip), refused("empty-end-bogus-offset.zip", kNotAZip),
    refused("zip64-locator-to-nowhere.zip", kNotAZip), refused("zip64-end-apart.zip", kNotAZip),
    refused("count-too-low.zip", kNotAZip), refused("count-too-high.zip", kNotAZip),
    refused("gap-before-end.zip", kNotAZip),
    // Encryption, named as such.
    refused("encrypted.zip", kEncrypted, "container/Documents/Notes/secret.txt"),
};
// clang-format on

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

    const auto list = testing::runCommand({"list", archive}, {{"CORVELSTOW_HOME", ""}});
    EXPECT_EQ(list.err, c.verify == kNotAZip ? kNotAZip + "\n" : "");
    EXPECT_EQ(lastPaths(list.out, c.listed.size()), c.listed);

    std::vector<std::string> catArguments{"cat", archive};
    catArguments.insert(catArguments.end(), c.cat.begin(), c.cat.end());
    const auto cat = testing::runCommand(catArguments, {{"CORVELSTOW_HOME", ""}});
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
      EXPECT_EQ(testing::readStagedTree(work / "Staged"), c.staged);
      EXPECT_EQ(fs::exists(work / "staged.json"), c.restoreError.empty());
    }
  }
}

}  // namespace
}  // namespace corvelstow
