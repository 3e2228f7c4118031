// Archives exchanged with the tools a user has: what the writer makes must pass Info-ZIP's unzip,
// bsdtar and Python's zipfile, and what they make must read back with the right bytes.

#include <gtest/gtest.h>

#include <map>

#include "archive/zip_error.h"
#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;

// A small data container: nested folders, an empty file, text, random bytes, names beyond ASCII.
Tree sampleTree() {
  return {
      {"notes.txt", testing::sampleText(200000)},
      {"empty.txt", ""},
      {"photos/a.bin", testing::randomBytes(300000, 9)},
      {"Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98.txt", "tagebuch"},
      {"deep/er/still/x.json", testing::sampleText(1500)},
  };
}

void writeTree(const fs::path& root, const Tree& tree) {
  for (const auto& [name, bytes] : tree) testing::writeFile(root / name, bytes);
}

// The files of a folder, without its folders.
Tree filesIn(const fs::path& root) {
  Tree files;
  for (const auto& [name, bytes] : testing::readTree(root)) {
    if (bytes != "/") files[name] = bytes;
  }
  return files;
}

// The files of an archive, read with our reader (folder entries left out).
Tree filesOf(const fs::path& archive) {
  StowZipReader reader(archive);
  Tree files;
  for (const StowZipItem& item : reader.items()) {
    if (item.path.empty() || item.path.back() == '/') continue;
    files[item.path] = reader.data(item);
  }
  return files;
}

testing::ProcessResult run(const std::vector<std::string>& arguments,
                           const std::string& input = {}) {
  return testing::runProcess(arguments, {}, input);
}

// Python's zipfile: writes the files of a folder (sorted) in the given way.
const char* kPythonWriter = R"(
import os, sys, zipfile
root, path, kind = sys.argv[1:4]
if kind == "zip64":
    # The real Zip64 code paths, reached with small files by lowering the limits.
    zipfile.ZIP64_LIMIT = 1000
    zipfile.ZIP_FILECOUNT_LIMIT = 2
method = {"stored": zipfile.ZIP_STORED, "bzip2": zipfile.ZIP_BZIP2}.get(kind, zipfile.ZIP_DEFLATED)
names = sorted(os.path.relpath(os.path.join(d, f), root)
               for d, _, files in os.walk(root) for f in files)
with zipfile.ZipFile(path, "w", method) as archive:
    for name in names:
        with open(os.path.join(root, name), "rb") as source:
            data = source.read()
        if kind == "force":
            with archive.open(name, "w", force_zip64=True) as entry:
                entry.write(data)
        else:
            archive.writestr(name, data)
)";

const char* kPythonChecker = R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    bad = archive.testzip()
    if bad is not None:
        sys.exit("bad entry: " + bad)
    archive.extractall(sys.argv[2])
    print(len(archive.infolist()))
)";

TEST(ZipInteropTest, OurArchivesPassUnzipBsdtarAndPython) {
  testing::TempFolder folder;
  const Tree tree = sampleTree();
  writeTree(folder / "tree", tree);
  const fs::path archive = folder / "ours.zip";
  {
    StowZipWriter writer(archive);
    writer.add("{\"appName\": \"Notes\"}", "manifest.json", currentDate());
    writer.addDirectory("container", currentDate());
    for (const auto& [name, bytes] : tree)
      writer.addFile(folder / "tree" / name, "container/" + name);
    writer.finish();
  }
  Tree expected;
  expected["manifest.json"] = "{\"appName\": \"Notes\"}";
  for (const auto& [name, bytes] : tree) expected["container/" + name] = bytes;

  auto tested = run({"unzip", "-t", archive.string()});
  EXPECT_EQ(tested.exitCode, 0) << tested.out << tested.err;
  EXPECT_NE(tested.out.find("No errors detected"), std::string::npos) << tested.out;
  auto unzipped = run({"unzip", "-q", archive.string(), "-d", (folder / "unzip").string()});
  EXPECT_EQ(unzipped.exitCode, 0) << unzipped.err;
  EXPECT_EQ(filesIn(folder / "unzip"), expected);

  auto listed = run({"bsdtar", "-tf", archive.string()});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_NE(listed.out.find("container/\n"), std::string::npos);
  EXPECT_NE(listed.out.find("container/photos/a.bin\n"), std::string::npos);
  fs::create_directories(folder / "bsdtar");
  auto extracted = run({"bsdtar", "-xf", archive.string(), "-C", (folder / "bsdtar").string()});
  EXPECT_EQ(extracted.exitCode, 0) << extracted.err;
  EXPECT_EQ(filesIn(folder / "bsdtar"), expected);

  auto checked = run({"python3", "-c", kPythonChecker, archive.string(), (folder / "py").string()});
  EXPECT_EQ(checked.exitCode, 0) << checked.err;
  EXPECT_EQ(checked.out, std::to_string(tree.size() + 2) + "\n");
  EXPECT_EQ(filesIn(folder / "py"), expected);
}

TEST(ZipInteropTest, ReadsInfoZipArchivesIncludingOneStreamedFromStdin) {
  testing::TempFolder folder;
  const Tree tree = sampleTree();
  writeTree(folder / "tree", tree);
  auto zipped =
      run({"sh", "-c", "cd \"$0\" && zip -q -r -6 ../info.zip .", (folder / "tree").string()});
  ASSERT_EQ(zipped.exitCode, 0) << zipped.err;
  EXPECT_EQ(filesOf(folder / "info.zip"), tree);
  EXPECT_EQ(StowZipReader(folder / "info.zip").items().size(),
            tree.size() + 5);  // and its five folders

  // Written to a pipe, zip cannot go back: sizes follow the data in a descriptor.
  const std::string input = testing::sampleText(150000);
  auto streamed = run({"sh", "-c", "zip -q - - | cat"}, input);
  ASSERT_EQ(streamed.exitCode, 0) << streamed.err;
  testing::writeFile(folder / "stdin.zip", streamed.out);
  EXPECT_EQ(testing::le16(streamed.out, 6) & 0x0008, 0x0008);
  EXPECT_EQ(filesOf(folder / "stdin.zip"), (Tree{{"-", input}}));
}

TEST(ZipInteropTest, ReadsBsdtarArchives) {
  testing::TempFolder folder;
  const Tree tree = sampleTree();
  writeTree(folder / "tree", tree);
  std::vector<std::string> arguments = {"bsdtar",
                                        "--format",
                                        "zip",
                                        "-cf",
                                        (folder / "bsdtar.zip").string(),
                                        "-C",
                                        (folder / "tree").string()};
  for (const auto& entry : fs::directory_iterator(folder / "tree")) {
    arguments.push_back(entry.path().filename().string());
  }
  auto made = run(arguments);
  ASSERT_EQ(made.exitCode, 0) << made.err;
  EXPECT_EQ(filesOf(folder / "bsdtar.zip"), tree);
}

TEST(ZipInteropTest, ReadsPythonArchivesStoredDeflatedAndZip64) {
  testing::TempFolder folder;
  const Tree tree = sampleTree();
  writeTree(folder / "tree", tree);
  for (std::string kind : {"stored", "deflated", "force", "zip64"}) {
    SCOPED_TRACE(kind);
    const fs::path archive = folder / (kind + ".zip");
    auto made =
        run({"python3", "-c", kPythonWriter, (folder / "tree").string(), archive.string(), kind});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    EXPECT_EQ(filesOf(archive), tree);
    StowZipReader reader(archive);
    for (const StowZipItem& item : reader.items()) {
      EXPECT_EQ(item.method, kind == "stored" ? 0 : 8) << item.path;
    }
  }

  // Python wrote Zip64 records but kept the true counts in the end record, as they fit. Marked
  // the way a larger archive would be, the end record sends the reader to the Zip64 one.
  std::string bytes = testing::readFile(folder / "zip64.zip");
  const std::size_t end = bytes.size() - 22;
  ASSERT_EQ(testing::le32(bytes, end - 20), 0x07064B50u);  // the locator is there
  testing::setLe(bytes, end + 8, 0xFFFF, 2);
  testing::setLe(bytes, end + 10, 0xFFFF, 2);
  testing::setLe(bytes, end + 12, 0xFFFFFFFF, 4);
  testing::setLe(bytes, end + 16, 0xFFFFFFFF, 4);
  testing::writeFile(folder / "marked.zip", bytes);
  EXPECT_EQ(filesOf(folder / "marked.zip"), tree);
}

TEST(ZipInteropTest, NamesTheMethodOfBzip2Entries) {
  testing::TempFolder folder;
  testing::writeFile(folder / "tree" / "notes.txt", testing::sampleText(10000));
  auto zipped = run({"sh", "-c", "cd \"$0\" && zip -q -Z bzip2 ../info.zip notes.txt",
                     (folder / "tree").string()});
  ASSERT_EQ(zipped.exitCode, 0) << zipped.err;
  auto made = run({"python3", "-c", kPythonWriter, (folder / "tree").string(),
                   (folder / "python.zip").string(), "bzip2"});
  ASSERT_EQ(made.exitCode, 0) << made.err;

  for (const char* name : {"info.zip", "python.zip"}) {
    StowZipReader reader(folder / name);
    ASSERT_EQ(reader.items().size(), 1u);
    EXPECT_EQ(reader.items()[0].method, 12);
    try {
      reader.data(reader.items()[0]);
      ADD_FAILURE() << name << ": a bzip2 entry was unpacked";
    } catch (const StowZipError& error) {
      EXPECT_STREQ(error.what(), "notes.txt uses compression method 12, which isn't supported.");
    }
  }
}

}  // namespace
}  // namespace corvelstow
