// Archives exchanged with the tools a user has: what the writer makes must pass Info-ZIP's unzip,
// bsdtar and Python's zipfile, and what they make must read back with the right names and bytes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;
using testing::runProcess;

// A small data container: nested folders, an empty file, a small one, text of several blocks,
// random bytes going over into text, one block and a byte, names beyond ASCII.
constexpr std::size_t kBlock = StowZipWriter::kBlockSize;
const Tree kTree = {
    {"notes.txt", testing::sampleText(4 * kBlock + 1000)},
    {"empty.txt", ""},
    {"photos/a.bin", testing::randomBytes(2 * kBlock + 5, 9) + testing::sampleText(kBlock)},
    {"Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98.txt", "tagebuch"},
    {"deep/er/still/x.json", testing::sampleText(kBlock + 1)},
};

// Its files all modified at the sample date, so that an archive of it is the same every time.
std::string writeTree(const testing::TempFolder& folder) {
  const timespec times[2] = {{testing::sampleDate().time_since_epoch().count(), 0},
                             {testing::sampleDate().time_since_epoch().count(), 0}};
  for (const auto& [name, bytes] : kTree) {
    testing::writeFile(folder / "tree" / name, bytes);
    ::utimensat(AT_FDCWD, (folder / "tree" / name).c_str(), times, 0);
  }
  return (folder / "tree").string();
}

// The files of an archive as our reader unpacks them (folders left out), and its entry count.
std::pair<Tree, std::size_t> filesOf(const fs::path& archive) {
  StowZipReader reader(archive);
  Tree files;
  for (const StowZipItem& item : reader.items()) {
    if (item.path.back() != '/') files[item.path] = reader.data(item);
  }
  return {files, reader.items().size()};
}

// Each entry's path, or the bytes of its stored name, on a line of its own.
std::string namesOf(const fs::path& archive, bool stored) {
  std::string names;
  StowZipReader reader(archive);
  for (const StowZipItem& item : reader.items()) {
    names += (stored ? std::string(item.storedName()) : item.path) + "\n";
  }
  return names;
}

// Python's zipfile: writes the files of a folder (sorted) in the given way.
const char* kPythonWriter = R"(
import os, sys, zipfile
root, path, kind = sys.argv[1:4]
if kind == "zip64":  # the real Zip64 code paths, reached with small files by lowering the limits
    zipfile.ZIP64_LIMIT, zipfile.ZIP_FILECOUNT_LIMIT = 1000, 2
method = zipfile.ZIP_STORED if kind == "stored" else zipfile.ZIP_DEFLATED
with zipfile.ZipFile(path, "w", method) as archive:
    for name in sorted(os.path.relpath(os.path.join(d, f), root)
                       for d, _, files in os.walk(root) for f in files):
        data = open(os.path.join(root, name), "rb").read()
        if kind == "force":
            with archive.open(name, "w", force_zip64=True) as entry:
                entry.write(data)
        else:
            archive.writestr(name, data)
)";

// Written on 1, 2 or 8 threads, the archive is the same byte for byte, and the same as the
// writer has always made of this tree (its SHA-256, which a change of zlib's output would also
// move). Each tool unpacks every file, checking its CRC, and makes the empty folder.
TEST(ZipInteropTest, OurArchivesAreTheSameOnAnyThreadsAndPassUnzipBsdtarAndPython) {
  testing::TempFolder folder;
  const std::string tree = writeTree(folder), archive = (folder / "ours.zip").string();
  Tree expected = {{"manifest.json", "{\"appName\": \"Notes\"}"}};
  std::string onOneThread;
  // Files added one by one, or opened when their turn comes: by the threads, several to a task,
  // unless they are large, or grown since they were seen (expected to be empty).
  enum class Adding { each, deferred, grown };
  for (unsigned threads : {1u, 2u, 8u}) {
    for (Adding adding : {Adding::each, Adding::deferred, Adding::grown}) {
      StowZipWriter writer(archive, threads);
      writer.add("{\"appName\": \"Notes\"}", "manifest.json", testing::sampleDate());
      writer.addDirectory("container/empty", testing::sampleDate());
      std::vector<StowZipWriter::DeferredFile> deferred;
      for (const auto& [name, bytes] : kTree) {
        const fs::path file = fs::path(tree) / name;
        expected["container/" + name] = bytes;
        if (adding == Adding::each) {
          writer.addFile(file, "container/" + name);
          continue;
        }
        deferred.push_back({"container/" + name, adding == Adding::grown ? 0 : bytes.size(),
                            [file] { return UniqueFd(::open(file.c_str(), O_RDONLY)); }});
      }
      writer.addFiles(std::move(deferred));
      writer.finish();
      if (onOneThread.empty()) onOneThread = testing::readFile(archive);
      EXPECT_TRUE(testing::readFile(archive) == onOneThread)
          << threads << " threads, adding " << static_cast<int>(adding);
    }
  }
  EXPECT_EQ(runProcess({"sha256sum", archive}).out.substr(0, 64),
            "621ae7c81cedb9e666b4b4d32087c614eac6694ef9f8e7e4bf34931db5172f6b");

  fs::create_directories(folder / "bsdtar");
  const std::vector<std::string> commands[] = {
      {"unzip", "-q", archive, "-d", (folder / "unzip").string()},
      {"bsdtar", "-xf", archive, "-C", (folder / "bsdtar").string()},
      {"python3", "-m", "zipfile", "-e", archive, (folder / "python").string()},
  };
  for (const auto& command : commands) {
    auto result = runProcess(command);
    EXPECT_EQ(result.exitCode, 0) << command[0] << ": " << result.out << result.err;
    Tree files;
    for (const auto& [name, bytes] : testing::readTree(command.back())) {
      if (bytes != "/") files[name] = bytes;
    }
    EXPECT_EQ(files, expected) << command[0];
    EXPECT_TRUE(fs::is_directory(fs::path(command.back()) / "container/empty")) << command[0];
  }
}

// Every entry of the archive read whole, its CRC checked, by our reader, unzip and Python's
// zipfile, and listed by bsdtar: the tools at once, on the cores there are.
void expectEveryToolReads(const fs::path& archive, std::size_t entries) {
  const std::vector<std::string> commands[] = {
      {"unzip", "-tq", archive},
      {"sh", "-c", "bsdtar -tf \"$0\" | wc -l", archive},
      {"python3", "-c",
       "import sys, zipfile\nwith zipfile.ZipFile(sys.argv[1]) as z:\n"
       "    print(z.testzip() or len(z.infolist()))",
       archive},
  };
  std::vector<std::unique_ptr<testing::ChildProcess>> tools;
  for (const auto& command : commands) {
    tools.push_back(std::make_unique<testing::ChildProcess>(command));
  }
  StowZipReader reader(archive);
  EXPECT_EQ(reader.items().size(), entries);
  for (const StowZipItem& item : reader.items()) reader.extract(item, [](std::string_view) {});
  for (std::size_t i = 0; i < tools.size(); ++i) {
    const auto result = tools[i]->wait();
    EXPECT_EQ(result.exitCode, 0) << commands[i][0] << ": " << result.out << result.err;
    if (i > 0) {
      EXPECT_EQ(result.out, std::to_string(entries) + "\n") << commands[i][0];
    }
  }
}

// Past the classic limits: 65,535 entries; a file of 4 GiB and a byte (sparse, its sizes in Zip64
// fields, the descriptor's 8 bytes each); an entry and the directory past 4 GiB (after a hole).
TEST(ZipInteropTest, ArchivesPastTheClassicLimitsPassEveryTool) {
  testing::TempFolder folder;
  StowZipWriter many(folder / "many.zip", 2);
  for (int i = 0; i < 65535; ++i) many.addDirectory(std::to_string(i), testing::sampleDate());
  many.finish();
  expectEveryToolReads(folder / "many.zip", 65535);

  constexpr std::uint64_t kBig = 0x100000001;
  if (UniqueFd big(::open((folder / "big").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      ::ftruncate(big.get(), kBig) != 0) {
    GTEST_SKIP() << "This file system cannot hold a file of 4 GiB: the rest is skipped.";
  }
  StowZipWriter writer(folder / "big.zip", 2);
  writer.addFile(folder / "big", "big");
  writer.skipForTesting(0x100000000);
  writer.add("after", "after", testing::sampleDate());
  writer.finish();
  expectEveryToolReads(folder / "big.zip", 2);
  const StowZipWriter::Written& big = writer.written().at(0);
  std::ifstream file(folder / "big.zip", std::ios::binary);
  std::string header(53, '\0'), descriptor(24, '\0');
  file.read(header.data(), 53);
  file.seekg(static_cast<std::streamoff>(33 + 20 + big.compressed));
  file.read(descriptor.data(), 24);
  // Version needed 4.5, flags, method, time, date, CRC and sizes to come, name and extra lengths.
  EXPECT_EQ(header.substr(4, 26), testing::hexBytes("2d00 0808 0800") + header.substr(10, 4) +
                                      testing::hexBytes("00000000 ffffffff ffffffff 0300 1400"));
  EXPECT_EQ(header.substr(33), testing::hexBytes("0100 1000") + std::string(16, '\0'));
  EXPECT_EQ(descriptor, testing::hexBytes("504b0708") + testing::leBytes(big.crc, 4) +
                            testing::leBytes(big.compressed, 8) + testing::leBytes(kBig, 8));
}

// Info-ZIP's zip and bsdtar (with entries for the folders; names in UTF-8, which zip does not
// flag, or in code page 437) and Python's zipfile: stored, with Zip64 extra fields forced, and
// with Zip64 records from lowered limits.
TEST(ZipInteropTest, ReadsArchivesOtherToolsMake) {
  testing::TempFolder folder;
  const std::string tree = writeTree(folder);
  const auto python = [&](const char* kind) {
    return std::vector<std::string>{
        "python3", "-c", kPythonWriter, tree, (folder / kind).string() + ".zip", kind};
  };
  struct Case {
    const char* archive;
    std::vector<std::string> command;
    std::size_t entries;
    bool cp437 = false;
  };
  const Case cases[] = {
      {"zip.zip", {"sh", "-c", "cd \"$0\" && zip -q -r -6 ../zip.zip .", tree}, 10},
      {"bsdtar.zip",
       {"sh", "-c", "cd \"$0\" && bsdtar --format zip -cf ../bsdtar.zip *", tree},
       10},
      {"cp437.zip",
       {"sh", "-c",
        "cd \"$0\" && bsdtar --format zip --options zip:hdrcharset=CP437 -cf ../cp437.zip * "
        "2>/dev/null",
        tree},
       10,
       true},
      {"stored.zip", python("stored"), 5},
      {"force.zip", python("force"), 5},
      {"zip64.zip", python("zip64"), 5},
  };
  for (const Case& c : cases) {
    auto made = runProcess(c.command);
    ASSERT_EQ(made.exitCode, 0) << c.archive << ": " << made.err;
    // Names as unzip shows them on a UTF-8 system: the bytes that each archive holds, which
    // are UTF-8 but for those of code page 437 (then "??" for a name it cannot hold), read as
    // the names they stand for there.
    const std::string archive = (folder / c.archive).string(), unzip = "unzip -Z1 \"$0\"";
    EXPECT_EQ(namesOf(archive, true), runProcess({"sh", "-c", unzip, archive}).out) << c.archive;
    const std::string decoded = c.cp437 ? " | iconv -f CP437 -t UTF-8" : "";
    EXPECT_EQ(namesOf(archive, false), runProcess({"sh", "-c", unzip + decoded, archive}).out);
    const auto [files, entries] = filesOf(archive);
    if (!c.cp437) {
      EXPECT_EQ(files, kTree) << c.archive;
    }
    EXPECT_EQ(std::make_pair(files.size(), entries), std::make_pair(kTree.size(), c.entries));
  }

  // Python kept the true values in the end record, as they fit. Marked the way a larger
  // archive's are (the counts, the directory's offset, or all), they send the reader through the
  // locator to the Zip64 end record, which is also found right before the locator when the
  // locator points elsewhere, as it does behind data in front of the archive. Without the
  // locator or the record, the marks stand and there is no directory.
  const std::string python64 = testing::readFile(folder / "zip64.zip");
  const std::size_t end = python64.size() - 22, locator = end - 20;
  ASSERT_EQ(testing::le32(python64, locator - 56), 0x06064B50u);
  const auto marked = [&](std::size_t at, std::size_t length) {
    return std::string(python64).replace(end + at, length, std::string(length, '\xFF'));
  };
  std::string elsewhere = marked(8, 12);
  testing::setLe(elsewhere, locator + 8, testing::le32(python64, locator + 8) + 1, 4);
  const std::pair<std::string, std::string> markings[] = {
      {marked(8, 4), "(no error)"},
      {marked(16, 4), "(no error)"},
      {marked(8, 12), "(no error)"},
      {elsewhere, "(no error)"},
      {"#!/bin/sh\nexit 0\n" + marked(8, 12), "(no error)"},
      {marked(8, 12).erase(locator, 20), "That file is not a zip archive."},
      {std::string(elsewhere).replace(locator - 56, 1, "X"), "That file is not a zip archive."},
  };
  for (const auto& [bytes, expected] : markings) {
    testing::writeFile(folder / "marked.zip", bytes);
    EXPECT_EQ(testing::failure([&] { EXPECT_EQ(filesOf(folder / "marked.zip").first, kTree); }),
              expected);
  }
}

}  // namespace
}  // namespace corvelstow
