#include "archive/zip_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

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
  StowZipReader reader(folder / "x.zip");
  EXPECT_EQ(reader.data(reader.items().at(3)), text);
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

// A field that cannot hold its value holds 0xFFFFFFFF (or 0xFFFF), the value going into a Zip64
// field: an entry at 0xFFFFFFFE is classic, one a byte further has its offset in its record's
// Zip64 field, and the directory beyond it is found through the Zip64 end record and its locator.
TEST(ZipWriterTest, AddsZip64FieldsExactlyWhereAClassicFieldCannotHoldItsValue) {
  testing::TempFolder folder;
  StowZipWriter writer(folder / "x.zip");
  writer.skipForTesting(0xFFFFFFFE);
  writer.add("", "e", sampleDate());
  writer.add("", "f", sampleDate());
  writer.finish();
  EXPECT_EQ(writer.written().at(1).offset, 0x10000001Du);
  std::ifstream file(folder / "x.zip", std::ios::binary);
  file.seekg(0xFFFFFFFE);
  const std::string tail{std::istreambuf_iterator<char>(file), {}};
  // Central records: version needed 2.0 or 4.5, sizes, name, extra and comment lengths, disk,
  // attributes, offset; the name and the Zip64 field with the offset.
  const std::string central =
      "504b0102 1e03 1400 0008 0000 c54ba158 00000000 00000000 00000000 0100 0000 0000 0000"
      "0000 0000a481 feffffff 65"
      "504b0102 1e03 2d00 0008 0000 c54ba158 00000000 00000000 00000000 0100 0c00 0000 0000"
      "0000 0000a481 ffffffff 66 0100 0800 1d00000001000000";
  // Zip64 end record (its size after the first 12 bytes, made by, needed, disks, counts, the
  // directory's size and offset), locator (disk, its offset, disks), end record.
  const std::string end =
      "504b0606 2c00000000000000 1e03 2d00 00000000 00000000 0200000000000000 0200000000000000"
      "6a00000000000000 3c00000001000000"
      "504b0607 00000000 a600000001000000 01000000"
      "504b0506 0000 0000 0200 0200 6a000000 ffffffff 0000";
  const std::string local = "504b0304 1400 0008 0000 c54ba158 00000000 00000000 00000000 0100 0000";
  EXPECT_EQ(tail, hexBytes(local + "65" + local + "66" + central + end));
  StowZipReader reader(folder / "x.zip");
  ASSERT_EQ(reader.items().size(), 2u);
  EXPECT_EQ(reader.items()[1].headerOffset, 0x10000001Du);
  EXPECT_EQ(reader.data(reader.items()[1]), "");
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
  EXPECT_EQ(failure([&] { writer.add("x", std::string(65536, 'n'), sampleDate()); }),
            std::string(40, 'n') + "\xE2\x80\xA6" + std::string(40, 'n') +
                " is a name over 65,535 bytes long, which this archive format can't hold.");
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
