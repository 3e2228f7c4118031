#include "archive/zip_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "archive/zip_reader.h"
#include "archive_test_support.h"
#include "base/scope_guard.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::failure;
using testing::hexBytes;
using testing::leBytes;
using testing::sampleDate;

const std::string kOver4GB = " is over 4 GB, which this archive format can't hold.";

void setModificationTime(const std::filesystem::path& file, StowDate date) {
  const timespec time{date.time_since_epoch().count(), 0};
  const timespec times[2] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

// Each kind of entry, byte for byte: folders ("/" added where missing), an in-memory entry and an
// empty file (both stored, sizes in the header), then a file deflated with its CRC and sizes in a
// data descriptor. Only the compressed bytes come from zlib; they must unpack to the file.
TEST(ZipWriterTest, WritesEachKindOfEntryByteForByte) {
  testing::TempFolder folder;
  const std::string text = testing::sampleText(300000);
  testing::writeFile(folder / "z", "");
  testing::writeFile(folder / "t", text);
  setModificationTime(folder / "z", sampleDate());
  setModificationTime(folder / "t", sampleDate());
  StowZipWriter writer(folder / "x.zip");
  writer.addDirectory("d", sampleDate());
  writer.add("hello", "a", sampleDate());
  writer.addFile(folder / "z", "z");
  writer.addFile(folder / "t", "t");
  writer.finish();

  const std::string archive = testing::readFile(folder / "x.zip");
  const std::uint32_t size = writer.written().at(3).compressed;
  const std::string data = archive.substr(130, size);
  EXPECT_EQ(testing::zlibInflateRaw(data), text);
  EXPECT_LT(size, text.size() / 4);
  // Local headers: signature, version needed, flags, method, DOS time and date (09:30:10,
  // 2024-05-01), CRC, sizes, name and extra lengths; the name, the data.
  const std::string local = hexBytes(
      "504b0304 1400 0008 0000 c54ba158 00000000 00000000 00000000 0200 0000 642f"
      "504b0304 1400 0008 0000 c54ba158 86a61036 05000000 05000000 0100 0000 61 68656c6c6f"
      "504b0304 1400 0008 0000 c54ba158 00000000 00000000 00000000 0100 0000 7a"
      "504b0304 1400 0808 0800 c54ba158 00000000 00000000 00000000 0100 0000 74");
  const std::string deflated = hexBytes("c8ddb75d") + leBytes(size, 4) + hexBytes("e0930400");
  // Central records: made by Unix 3.0, the same fields, comment length, disk, attributes (Unix
  // mode 040755 or 0100644), the offset of the local header, the name.
  const std::string central = hexBytes(
      "504b0102 1e03 1400 0008 0000 c54ba158 00000000 00000000 00000000 0200 0000 0000 0000"
      "0000 0000ed41 00000000 642f"
      "504b0102 1e03 1400 0008 0000 c54ba158 86a61036 05000000 05000000 0100 0000 0000 0000"
      "0000 0000a481 20000000 61"
      "504b0102 1e03 1400 0008 0000 c54ba158 00000000 00000000 00000000 0100 0000 0000 0000"
      "0000 0000a481 44000000 7a"
      "504b0102 1e03 1400 0808 0800 c54ba158");
  const std::string end = hexBytes("504b0506 0000 0000 0400 0400 bd000000") +
                          leBytes(130 + size + 16, 4) + hexBytes("0000");
  EXPECT_EQ(archive, local + data + hexBytes("504b0708") + deflated + central + deflated +
                         hexBytes("0100 0000 0000 0000 0000 0000a481 63000000 74") + end);

  StowZipWriter empty(folder / "empty.zip");
  empty.finish();
  EXPECT_EQ(testing::readFile(folder / "empty.zip"), hexBytes("504b0506") + std::string(18, '\0'));
}

// An entry may start at 0xFFFFFFFE but not a byte later, and so may the directory; a file of
// 0xFFFFFFFF bytes is refused before anything of it is written.
TEST(ZipWriterTest, RefusesWhatWouldStartOrEndPast4GB) {
  testing::TempFolder folder;
  testing::writeFile(folder / "f", "data");
  {
    UniqueFd big(::open((folder / "big").c_str(), O_WRONLY | O_CREAT, 0644));
    ASSERT_EQ(::ftruncate(big.get(), 0xFFFFFFFF), 0);  // sparse: no space is used
  }
  StowZipWriter high(folder / "high.zip");
  high.skipForTesting(0xFFFFFFFF);
  EXPECT_EQ(failure([&] { high.add("x", "big.txt", sampleDate()); }), "big.txt" + kOver4GB);
  EXPECT_EQ(failure([&] { high.addDirectory("dir", sampleDate()); }), "dir" + kOver4GB);
  EXPECT_EQ(failure([&] { high.addFile(folder / "f", "Documents/f"); }), "Documents/f" + kOver4GB);
  EXPECT_EQ(failure([&] { high.finish(); }), "the archive" + kOver4GB);
  EXPECT_TRUE(high.written().empty());

  StowZipWriter edge(folder / "edge.zip");
  edge.skipForTesting(0xFFFFFFFE);
  edge.add("", "e", sampleDate());
  EXPECT_EQ(edge.written().at(0).offset, 0xFFFFFFFEu);
  EXPECT_EQ(failure([&] { edge.finish(); }), "the archive" + kOver4GB);

  StowZipWriter last(folder / "last.zip");
  last.skipForTesting(0xFFFFFFFE - 32);
  EXPECT_EQ(failure([&] { last.addFile(folder / "big", "Library/big.sqlite"); }),
            "Library/big.sqlite" + kOver4GB);
  last.add("z", "e", sampleDate());
  ASSERT_EQ(last.offset(), 0xFFFFFFFEu);
  last.finish();
  EXPECT_EQ(StowZipReader(folder / "last.zip").items().at(0).headerOffset, 0xFFFFFFFEu - 32);
}

// 65,535 in the end record would mean "see Zip64": one entry more is refused, and what was
// written is no archive.
TEST(ZipWriterTest, AllowsAtMost65534Entries) {
  testing::TempFolder folder;
  for (int count : {65534, 65535}) {
    StowZipWriter writer(folder / "x.zip");
    for (int i = 0; i < count; ++i) writer.addDirectory(std::to_string(i), sampleDate());
    if (count == 65534) {
      writer.finish();
      EXPECT_EQ(StowZipReader(folder / "x.zip").items().size(), 65534u);
    } else {
      EXPECT_EQ(failure([&] { writer.finish(); }), "the file list" + kOver4GB);
      EXPECT_EQ(failure([&] { StowZipReader{folder / "x.zip"}; }),
                "That file is not a zip archive.");
    }
  }
}

// The sentences of files that cannot be created, read or written, the last one in the middle of
// compressed data (raised once the compressor has finished); names are limited to 65,535 bytes.
TEST(ZipWriterTest, ReportsWhatItCannotCreateReadOrWrite) {
  testing::TempFolder folder;
  EXPECT_EQ(failure([&] { StowZipWriter{folder / "missing" / "App 2024.corvelappdata"}; }),
            "Could not create App 2024.corvelappdata.");
  StowZipWriter full("/dev/full");
  EXPECT_EQ(failure([&] { full.add("data", "a", sampleDate()); }),
            "file error: Could not write to full: No space left on device.");

  StowZipWriter writer(folder / "x.zip");
  EXPECT_EQ(failure([&] { writer.addFile(folder / "absent.txt", "absent.txt"); }),
            "file error: Could not open absent.txt: No such file or directory.");
  std::filesystem::create_symlink("x.zip", folder / "link");  // never read through
  EXPECT_EQ(failure([&] { writer.addFile(folder / "link", "link"); }),
            "file error: Could not open link: Too many levels of symbolic links.");
  EXPECT_THROW(writer.add("x", std::string(65536, 'n'), sampleDate()), std::length_error);
  EXPECT_EQ(writer.offset(), 0u);
  writer.add("x", std::string(65535, 'n'), sampleDate());

  testing::writeFile(folder / "random.bin", testing::randomBytes(1 << 20));
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  ScopeGuard restore([&] {
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previousHandler);
  });
  rlimit small = saved;
  small.rlim_cur = 100000;  // files may grow to 100,000 bytes
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(failure([&] { writer.addFile(folder / "random.bin", "random.bin"); }),
            "file error: Could not write to x.zip: File too large.");
  EXPECT_EQ(writer.written().size(), 1u);
  EXPECT_EQ(std::filesystem::file_size(folder / "x.zip"), 100000u);
  // On two threads the file is read ahead of the writes; the failure comes by the end.
  StowZipWriter ahead(folder / "ahead.zip", 2);
  EXPECT_EQ(failure([&] {
              ahead.addFile(folder / "random.bin", "random.bin");
              ahead.finish();
            }),
            "file error: Could not write to ahead.zip: File too large.");
  EXPECT_TRUE(ahead.written().empty());
}

}  // namespace
}  // namespace corvelstow
