#include "archive/zip_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "archive/crc32.h"
#include "archive/zip_error.h"
#include "archive/zip_reader.h"
#include "archive_test_support.h"
#include "base/file_error.h"
#include "base/scope_guard.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

using testing::le16;
using testing::le32;
using testing::leBytes;

constexpr std::uint16_t kDosTime = 9 * 2048 + 30 * 32 + 10 / 2;       // 09:30:10
constexpr std::uint16_t kDosDate = (2024 - 1980) * 512 + 5 * 32 + 1;  // 2024-05-01

StowDate sampleDate() { return testing::localDate(2024, 5, 1, 9, 30, 10); }

void setModificationTime(const std::filesystem::path& file, StowDate date) {
  timespec times[2] = {{date.time_since_epoch().count(), 0}, {date.time_since_epoch().count(), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

template <typename Operation>
std::string zipErrorText(Operation operation) {
  try {
    operation();
  } catch (const StowZipError& error) {
    return error.what();
  }
  return "(no error)";
}

TEST(ZipWriterTest, WritesAnArchiveWithNoEntriesAsTheEndRecordAlone) {
  testing::TempFolder folder;
  StowZipWriter writer(folder / "empty.zip");
  writer.finish();
  EXPECT_EQ(writer.offset(), 22u);
  EXPECT_EQ(testing::readFile(folder / "empty.zip"), "PK\x05\x06" + std::string(18, '\0'));
}

TEST(ZipWriterTest, WritesAStoredEntryByteForByte) {
  testing::TempFolder folder;
  StowZipWriter writer(folder / "one.zip");
  writer.add("hello", "a.txt", sampleDate());
  writer.finish();

  const std::string crc = leBytes(0x3610A686, 4);  // CRC-32 of "hello"
  const std::string local = "PK\x03\x04" + leBytes(20, 2) + leBytes(0x0800, 2) + leBytes(0, 2) +
                            leBytes(kDosTime, 2) + leBytes(kDosDate, 2) + crc + leBytes(5, 4) +
                            leBytes(5, 4) + leBytes(5, 2) + leBytes(0, 2) + "a.txt" + "hello";
  const std::string central = "PK\x01\x02" + leBytes(0x031E, 2) + leBytes(20, 2) +
                              leBytes(0x0800, 2) + leBytes(0, 2) + leBytes(kDosTime, 2) +
                              leBytes(kDosDate, 2) + crc + leBytes(5, 4) + leBytes(5, 4) +
                              leBytes(5, 2) + leBytes(0, 2) + leBytes(0, 2) + leBytes(0, 2) +
                              leBytes(0, 2) + leBytes(0x81A40000, 4) + leBytes(0, 4) + "a.txt";
  const std::string end = "PK\x05\x06" + leBytes(0, 2) + leBytes(0, 2) + leBytes(1, 2) +
                          leBytes(1, 2) + leBytes(central.size(), 4) + leBytes(local.size(), 4) +
                          leBytes(0, 2);
  EXPECT_EQ(testing::readFile(folder / "one.zip"), local + central + end);

  ASSERT_EQ(writer.written().size(), 1u);
  const StowZipWriter::Written& entry = writer.written()[0];
  EXPECT_EQ(entry.name, "a.txt");
  EXPECT_EQ(entry.method, 0);
  EXPECT_EQ(entry.flags, 0x0800);
  EXPECT_EQ(entry.crc, 0x3610A686u);
  EXPECT_EQ(entry.compressed, 5u);
  EXPECT_EQ(entry.size, 5u);
  EXPECT_EQ(entry.offset, 0u);
  EXPECT_FALSE(entry.isDirectory);
}

TEST(ZipWriterTest, WritesAFileDeflatedWithItsSizesInADataDescriptor) {
  testing::TempFolder folder;
  const std::string contents = testing::sampleText(300000);
  testing::writeFile(folder / "notes.json", contents);
  StowZipWriter writer(folder / "file.zip");
  writer.addFile(folder / "notes.json", "Documents/notes.json");
  writer.finish();

  const std::string archive = testing::readFile(folder / "file.zip");
  const StowZipWriter::Written& entry = writer.written().at(0);
  const std::size_t nameLength = entry.name.size();
  const std::size_t dataStart = 30 + nameLength;
  // Local header: flags 0x0808, method 8, CRC and both sizes 0
  EXPECT_EQ(le16(archive, 6), 0x0808);
  EXPECT_EQ(le16(archive, 8), 8);
  EXPECT_EQ(le32(archive, 14), 0u);
  EXPECT_EQ(le32(archive, 18), 0u);
  EXPECT_EQ(le32(archive, 22), 0u);
  EXPECT_EQ(archive.substr(30, nameLength), "Documents/notes.json");
  // The data, then the descriptor with the real values
  EXPECT_EQ(testing::zlibInflateRaw(archive.substr(dataStart, entry.compressed)), contents);
  const std::size_t descriptor = dataStart + entry.compressed;
  EXPECT_EQ(le32(archive, descriptor), 0x08074B50u);
  StowCRC32 crc;
  crc.update(contents);
  EXPECT_EQ(le32(archive, descriptor + 4), crc.checksum());
  EXPECT_EQ(le32(archive, descriptor + 8), entry.compressed);
  EXPECT_EQ(le32(archive, descriptor + 12), contents.size());
  // The central record has them too
  const std::size_t central = descriptor + 16;
  EXPECT_EQ(testing::centralOffset(archive), central);
  EXPECT_EQ(le16(archive, central + 8), 0x0808);
  EXPECT_EQ(le16(archive, central + 10), 8);
  EXPECT_EQ(le32(archive, central + 16), crc.checksum());
  EXPECT_EQ(le32(archive, central + 20), entry.compressed);
  EXPECT_EQ(le32(archive, central + 24), contents.size());
  EXPECT_LT(entry.compressed, contents.size() / 4);
  EXPECT_EQ(writer.offset(), archive.size());
}

TEST(ZipWriterTest, WritesAnEmptyFileAsAStoredEntryWithoutDescriptor) {
  testing::TempFolder folder;
  testing::writeFile(folder / "empty", "");
  setModificationTime(folder / "empty", sampleDate());
  StowZipWriter writer(folder / "x.zip");
  writer.addFile(folder / "empty", "Library/empty");
  writer.finish();

  const std::string archive = testing::readFile(folder / "x.zip");
  const std::string local = "PK\x03\x04" + leBytes(20, 2) + leBytes(0x0800, 2) + leBytes(0, 2) +
                            leBytes(kDosTime, 2) + leBytes(kDosDate, 2) + leBytes(0, 12) +
                            leBytes(13, 2) + leBytes(0, 2) + "Library/empty";
  EXPECT_EQ(archive.substr(0, local.size()), local);
  EXPECT_EQ(testing::centralOffset(archive), local.size());  // no data, no descriptor
  EXPECT_EQ(writer.written().at(0).method, 0);
  EXPECT_EQ(writer.written().at(0).flags, 0x0800);
}

TEST(ZipWriterTest, MarksFoldersWithASlashAndFolderAttributes) {
  testing::TempFolder folder;
  testing::writeFile(folder / "f", "data");
  StowZipWriter writer(folder / "x.zip");
  writer.addDirectory("a", sampleDate());
  writer.addDirectory("b/", sampleDate());
  writer.add("x", "a/x", sampleDate());
  writer.addFile(folder / "f", "b/f");
  writer.finish();

  const std::string archive = testing::readFile(folder / "x.zip");
  const std::string expectedNames[] = {"a/", "b/", "a/x", "b/f"};
  const std::uint32_t expectedAttributes[] = {0x41ED0000, 0x41ED0000, 0x81A40000, 0x81A40000};
  // Walk the central directory: each record points at a local header with the same name.
  std::size_t record = testing::centralOffset(archive);
  EXPECT_EQ(le16(archive, archive.size() - 22 + 10), 4);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(le32(archive, record), 0x02014B50u);
    EXPECT_EQ(le16(archive, record + 4), 0x031E);
    EXPECT_EQ(le16(archive, record + 6), 20);
    const std::uint16_t nameLength = le16(archive, record + 28);
    EXPECT_EQ(archive.substr(record + 46, nameLength), expectedNames[i]);
    EXPECT_EQ(le32(archive, record + 38), expectedAttributes[i]);
    const std::uint32_t local = le32(archive, record + 42);
    EXPECT_EQ(local, writer.written()[i].offset);
    EXPECT_EQ(le32(archive, local), 0x04034B50u);
    EXPECT_EQ(archive.substr(local + 30, nameLength), expectedNames[i]);
    EXPECT_EQ(writer.written()[i].isDirectory, i < 2);
    record += 46 + nameLength;
  }
  EXPECT_EQ(record, archive.size() - 22);
}

TEST(ZipWriterTest, WritesDosTimesInLocalTimeClampedToTheFormatsRange) {
  const char* savedZone = std::getenv("TZ");
  const std::string saved = savedZone ? savedZone : "";
  ScopeGuard restore([&] {
    savedZone ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
  });
  ::setenv("TZ", "EST5", 1);  // five hours behind UTC, all year
  ::tzset();

  testing::TempFolder folder;
  testing::writeFile(folder / "f", "data");
  setModificationTime(folder / "f", *parseInternetDate("2023-11-14T18:45:59Z"));
  StowZipWriter writer(folder / "x.zip");
  writer.addFile(folder / "f", "f");
  writer.add("", "late", *parseInternetDate("2150-03-01T12:00:00Z"));
  writer.add("", "early", *parseInternetDate("1975-06-15T17:00:00Z"));
  writer.addDirectory("last", *parseInternetDate("2107-12-31T23:00:00Z"));  // 18:00 local
  writer.finish();

  const auto& written = writer.written();
  EXPECT_EQ(written[0].time, 13 * 2048 + 45 * 32 + 29);
  EXPECT_EQ(written[0].date, 43 * 512 + 11 * 32 + 14);
  EXPECT_EQ(written[1].time, 23 * 2048 + 59 * 32 + 29);  // 2107-12-31 23:59:58
  EXPECT_EQ(written[1].date, 127 * 512 + 12 * 32 + 31);
  EXPECT_EQ(written[2].time, 12 * 2048);
  EXPECT_EQ(written[2].date, 0 * 512 + 6 * 32 + 15);  // the year floors at 1980
  EXPECT_EQ(written[3].time, 18 * 2048);
  EXPECT_EQ(written[3].date, 127 * 512 + 12 * 32 + 31);

  const std::string archive = testing::readFile(folder / "x.zip");
  EXPECT_EQ(le16(archive, 10), written[0].time);  // the local header carries them too
  EXPECT_EQ(le16(archive, 12), written[0].date);
}

TEST(ZipWriterTest, RefusesEntriesStartingAtOrPast4GB) {
  testing::TempFolder folder;
  testing::writeFile(folder / "f", "data");
  {
    StowZipWriter writer(folder / "high.zip");
    writer.skipForTesting(0xFFFFFFFF);
    const std::string kText = " is over 4 GB, which this archive format can't hold.";
    EXPECT_EQ(zipErrorText([&] { writer.add("x", "big.txt", sampleDate()); }), "big.txt" + kText);
    EXPECT_EQ(zipErrorText([&] { writer.addDirectory("dir", sampleDate()); }), "dir" + kText);
    EXPECT_EQ(zipErrorText([&] { writer.addFile(folder / "f", "Documents/f"); }),
              "Documents/f" + kText);
    EXPECT_EQ(zipErrorText([&] { writer.finish(); }), "the archive" + kText);
    EXPECT_TRUE(writer.written().empty());
    EXPECT_EQ(writer.offset(), 0xFFFFFFFFu);
  }
  {
    // One byte lower an entry may start, but the directory would then start too late.
    StowZipWriter writer(folder / "edge.zip");
    writer.skipForTesting(0xFFFFFFFE);
    writer.add("", "e", sampleDate());
    EXPECT_EQ(writer.written().at(0).offset, 0xFFFFFFFEu);
    EXPECT_EQ(zipErrorText([&] { writer.finish(); }),
              "the archive is over 4 GB, which this archive format can't hold.");
  }
  {
    // The directory may start at 0xFFFFFFFE exactly, and the archive reads back.
    StowZipWriter writer(folder / "last.zip");
    writer.skipForTesting(0xFFFFFFFE - 32);
    writer.add("z", "e", sampleDate());
    ASSERT_EQ(writer.offset(), 0xFFFFFFFEu);
    writer.finish();
    StowZipReader reader(folder / "last.zip");
    ASSERT_EQ(reader.items().size(), 1u);
    EXPECT_EQ(reader.items()[0].headerOffset, 0xFFFFFFFEu - 32);
    EXPECT_EQ(reader.data(reader.items()[0]), "z");
  }
}

TEST(ZipWriterTest, RefusesAFileOf4GBBeforeWritingAnything) {
  testing::TempFolder folder;
  {
    UniqueFd big(::open((folder / "big").c_str(), O_WRONLY | O_CREAT, 0644));
    ASSERT_EQ(::ftruncate(big.get(), 0xFFFFFFFF), 0);  // sparse: no space is used
  }
  StowZipWriter writer(folder / "x.zip");
  writer.add("a", "a", sampleDate());
  const std::uint64_t before = writer.offset();
  EXPECT_EQ(zipErrorText([&] { writer.addFile(folder / "big", "Library/big.sqlite"); }),
            "Library/big.sqlite is over 4 GB, which this archive format can't hold.");
  EXPECT_EQ(writer.offset(), before);
  EXPECT_EQ(writer.written().size(), 1u);
  EXPECT_EQ(std::filesystem::file_size(folder / "x.zip"), before);
}

TEST(ZipWriterTest, AllowsAtMost65534Entries) {
  testing::TempFolder folder;
  auto fill = [&](const char* file, int count) {
    StowZipWriter writer(folder / file);
    for (int i = 0; i < count; ++i) writer.addDirectory(std::to_string(i), sampleDate());
    return writer;
  };
  StowZipWriter most = fill("most.zip", 65534);
  most.finish();
  const std::string archive = testing::readFile(folder / "most.zip");
  EXPECT_EQ(le16(archive, archive.size() - 22 + 8), 65534);
  EXPECT_EQ(le16(archive, archive.size() - 22 + 10), 65534);
  EXPECT_EQ(StowZipReader(folder / "most.zip").items().size(), 65534u);

  StowZipWriter tooMany = fill("many.zip", 65535);
  const std::uint64_t directoryStart = tooMany.offset();
  EXPECT_EQ(zipErrorText([&] { tooMany.finish(); }),
            "the file list is over 4 GB, which this archive format can't hold.");
  // The directory was written; the end record was not.
  const std::string partial = testing::readFile(folder / "many.zip");
  EXPECT_EQ(partial.size(), tooMany.offset());
  EXPECT_EQ(le32(partial, directoryStart), 0x02014B50u);
  EXPECT_NE(le32(partial, partial.size() - 22), 0x06054B50u);
}

TEST(ZipWriterTest, ReportsFilesItCannotCreateReadOrWrite) {
  testing::TempFolder folder;
  EXPECT_EQ(zipErrorText([&] { StowZipWriter(folder / "missing" / "App 2024.corvelappdata"); }),
            "Could not create App 2024.corvelappdata.");
  try {
    StowZipWriter(folder / "missing" / "x.zip");
  } catch (const StowZipError& error) {
    EXPECT_EQ(error.kind(), StowZipError::Kind::cannotCreate);
  }

  StowZipWriter writer(folder / "x.zip");
  try {
    writer.addFile(folder / "absent.txt", "absent.txt");
    ADD_FAILURE() << "a missing file was added";
  } catch (const StowFileError& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_STREQ(error.what(),
                 "Could not read the attributes of absent.txt: No such file or directory.");
  }
  EXPECT_EQ(writer.offset(), 0u);

  StowZipWriter full("/dev/full");
  try {
    full.add("data", "a", sampleDate());
    ADD_FAILURE() << "a write to a full device succeeded";
  } catch (const StowFileError& error) {
    EXPECT_EQ(error.code(), ENOSPC);
    EXPECT_STREQ(error.what(), "Could not write to full: No space left on device.");
  }
}

// A write that fails inside the compressed data is raised once the compressor has finished.
TEST(ZipWriterTest, RaisesAWriteFailureInTheMiddleOfCompressedData) {
  testing::TempFolder folder;
  testing::writeFile(folder / "random.bin", testing::randomBytes(300000));
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

  StowZipWriter writer(folder / "x.zip");
  writer.add("before", "before.txt", sampleDate());
  try {
    writer.addFile(folder / "random.bin", "random.bin");
    ADD_FAILURE() << "the file limit was not reached";
  } catch (const StowFileError& error) {
    EXPECT_EQ(error.code(), EFBIG);
    EXPECT_STREQ(error.what(), "Could not write to x.zip: File too large.");
  }
  EXPECT_EQ(writer.written().size(), 1u);
  EXPECT_EQ(std::filesystem::file_size(folder / "x.zip"), 100000u);
}

TEST(ZipWriterTest, RefusesNamesLongerThanTheFormatCounts) {
  testing::TempFolder folder;
  StowZipWriter writer(folder / "x.zip");
  EXPECT_THROW(writer.add("x", std::string(65536, 'n'), sampleDate()), std::length_error);
  EXPECT_EQ(writer.offset(), 0u);
  writer.add("x", std::string(65535, 'n'), sampleDate());
  EXPECT_EQ(writer.written().at(0).name.size(), 65535u);
}

}  // namespace
}  // namespace corvelstow
