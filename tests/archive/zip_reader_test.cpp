#include "archive/zip_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <map>
#include <utility>
#include <vector>

#include "archive/crc32.h"
#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "base/file_error.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using testing::le16;
using testing::le32;
using testing::leBytes;
using testing::setLe;

const std::string kNotAZip = "That file is not a zip archive.";

StowDate sampleDate() { return testing::localDate(2024, 5, 1, 9, 30, 10); }

template <typename Operation>
std::string zipErrorText(Operation operation) {
  try {
    operation();
  } catch (const StowZipError& error) {
    return error.what();
  }
  return "(no error)";
}

std::string openError(const fs::path& archive) {
  return zipErrorText([&] { StowZipReader reader(archive); });
}

std::uint32_t crcOf(std::string_view bytes) {
  StowCRC32 crc;
  crc.update(bytes);
  return crc.checksum();
}

using Entries = std::vector<std::pair<std::string, std::string>>;

// A small archive from the writer: a stored entry, then a deflated one.
std::string smallArchive(const testing::TempFolder& folder) {
  testing::writeFile(folder / "source.txt", testing::sampleText(5000));
  StowZipWriter writer(folder / "small.zip");
  writer.add("stored bytes", "a.txt", sampleDate());
  writer.addFile(folder / "source.txt", "b/source.txt");
  writer.finish();
  return testing::readFile(folder / "small.zip");
}

fs::path saved(const testing::TempFolder& folder, const std::string& bytes,
               const std::string& name = "test.zip") {
  testing::writeFile(folder / name, bytes);
  return folder / name;
}

// Writes the entries as stored in-memory entries or as deflated files, reads them back with
// data(), extract() into a file and extract() into a sink, and compares everything.
void checkRoundTrip(bool fromFiles) {
  testing::TempFolder folder;
  const Entries entries = {
      {"empty", ""},
      {"a.txt", "a"},
      {"text/notes.json", testing::sampleText(3 << 20)},
      {"random.bin", testing::randomBytes((5 << 19) + 3)},
      {"Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98.txt", "nicht ASCII"},
  };
  StowZipWriter writer(folder / "round.zip");
  writer.addDirectory("text", sampleDate());
  for (const auto& [name, bytes] : entries) {
    if (fromFiles) {
      testing::writeFile(folder / "source" / std::to_string(writer.written().size()), bytes);
      writer.addFile(folder / "source" / std::to_string(writer.written().size()), name);
    } else {
      writer.add(bytes, name, sampleDate());
    }
  }
  writer.finish();

  StowZipReader reader(folder / "round.zip");
  const std::vector<StowZipItem>& items = reader.items();
  ASSERT_EQ(items.size(), entries.size() + 1);
  EXPECT_EQ(items[0].path, "text/");
  EXPECT_EQ(reader.data(items[0]), "");
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const StowZipItem& item = items[i + 1];
    const auto& [name, bytes] = entries[i];
    const StowZipWriter::Written& written = writer.written()[i + 1];
    SCOPED_TRACE(name);
    EXPECT_EQ(item.path, name);
    EXPECT_EQ(item.method, (fromFiles && !bytes.empty()) ? 8 : 0);
    EXPECT_EQ(item.crc, crcOf(bytes));
    EXPECT_EQ(item.size, bytes.size());
    EXPECT_EQ(item.compressedSize, written.compressed);
    EXPECT_EQ(item.headerOffset, written.offset);
    EXPECT_EQ(reader.data(item), bytes);

    UniqueFd out(::open((folder / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    reader.extract(item, out.get());
    out.reset();
    EXPECT_EQ(testing::readFile(folder / "out"), bytes);

    std::string pieces;
    std::size_t largest = 0;
    reader.extract(item, [&](std::string_view piece) {
      largest = std::max(largest, piece.size());
      pieces += piece;
    });
    EXPECT_EQ(pieces, bytes);
    EXPECT_LE(largest, std::size_t{1} << 20);
  }
}

TEST(ZipReaderTest, ReadsBackStoredEntries) { checkRoundTrip(false); }

TEST(ZipReaderTest, ReadsBackDeflatedEntriesWithDataDescriptors) { checkRoundTrip(true); }

TEST(ZipReaderTest, OpensAnArchiveWithNoEntries) {
  testing::TempFolder folder;
  StowZipReader reader(saved(folder, "PK\x05\x06" + std::string(18, '\0')));
  EXPECT_TRUE(reader.items().empty());
}

TEST(ZipReaderTest, RejectsFilesThatAreNotArchives) {
  testing::TempFolder folder;
  EXPECT_EQ(openError(saved(folder, "")), kNotAZip);
  EXPECT_EQ(openError(saved(folder, "PK\x05\x06" + std::string(17, '\0'))), kNotAZip);
  EXPECT_EQ(openError(saved(folder, testing::sampleText(100000))), kNotAZip);

  // Every prefix of an archive lacks its end record.
  const std::string archive = smallArchive(folder);
  for (std::size_t length = 0; length < archive.size(); ++length) {
    ASSERT_EQ(openError(saved(folder, archive.substr(0, length))), kNotAZip) << length;
  }

  // The end record must lie within the last 65,557 bytes: a comment may be 65,535 bytes long.
  StowZipReader longest(saved(folder, archive + std::string(65535, 'c')));
  EXPECT_EQ(longest.items().size(), 2u);
  EXPECT_EQ(openError(saved(folder, archive + std::string(65536, 'c'))), kNotAZip);
}

TEST(ZipReaderTest, TakesTheEndRecordNearestTheEnd) {
  testing::TempFolder folder;
  const std::string archive = smallArchive(folder);

  // A comment holding a whole end record (of an empty archive): that one wins.
  std::string withRecord = archive;
  setLe(withRecord, withRecord.size() - 2, 22, 2);
  withRecord += "PK\x05\x06" + std::string(18, '\0');
  EXPECT_TRUE(StowZipReader(saved(folder, withRecord)).items().empty());

  // A signature closer to the end than a whole record does not count.
  std::string withSignature = archive;
  setLe(withSignature, withSignature.size() - 2, 10, 2);
  withSignature += "xxxxxxPK\x05\x06";
  EXPECT_EQ(StowZipReader(saved(folder, withSignature)).items().size(), 2u);
}

TEST(ZipReaderTest, RejectsACentralDirectoryThatDoesNotHoldItsRecords) {
  testing::TempFolder folder;
  const std::string archive = smallArchive(folder);
  const std::size_t end = archive.size() - 22;
  const std::size_t central = testing::centralOffset(archive);

  std::string shortDirectory = archive;  // the last record runs one byte past the directory
  setLe(shortDirectory, end + 12, le32(archive, end + 12) - 1, 4);
  EXPECT_EQ(openError(saved(folder, shortDirectory)), kNotAZip);

  std::string longName = archive;  // the first record's name runs past the directory
  setLe(longName, central + 28, 60000, 2);
  EXPECT_EQ(openError(saved(folder, longName)), kNotAZip);

  std::string moreEntries = archive;  // three entries announced, two present
  setLe(moreEntries, end + 10, 3, 2);
  EXPECT_EQ(openError(saved(folder, moreEntries)), kNotAZip);

  std::string wrongOffset = archive;  // pointing at a local header
  setLe(wrongOffset, end + 16, 0, 4);
  EXPECT_EQ(openError(saved(folder, wrongOffset)), kNotAZip);

  std::string pastTheEnd = archive;
  setLe(pastTheEnd, end + 16, 0xFFFFFF00, 4);
  EXPECT_EQ(openError(saved(folder, pastTheEnd)), kNotAZip);

  // A directory size larger than the file is read as far as the file goes.
  std::string hugeSize = archive;
  setLe(hugeSize, end + 12, 0xFFFFFFF0, 4);
  EXPECT_EQ(StowZipReader(saved(folder, hugeSize)).items().size(), 2u);
}

TEST(ZipReaderTest, ReadsZip64EndRecordsAndExtraFields) {
  testing::TempFolder folder;
  const std::string data = "sixty-four";
  // Local header with a name and no sizes, then the data
  zip::LocalFileHeader local;
  local.nameLength = 5;
  std::string archive;
  zip::write(archive, local);
  archive += "z.txt" + data;
  // Central record with every 32-bit size and offset moved to the Zip64 extra field
  const std::uint64_t central = archive.size();
  const std::string extra = leBytes(0x0001, 2) + leBytes(24, 2) + leBytes(data.size(), 8) +
                            leBytes(data.size(), 8) + leBytes(0, 8);
  zip::CentralDirectoryHeader header;
  header.crc = crcOf(data);
  header.compressedSize = header.size = header.localHeaderOffset = 0xFFFFFFFF;
  header.name = "z.txt";
  header.extra = extra;
  zip::write(archive, header);
  const std::uint64_t directorySize = archive.size() - central;
  // Zip64 end record, its locator, and an end record that defers to them
  const std::uint64_t end64 = archive.size();
  archive += "PK\x06\x06" + leBytes(44, 8) + leBytes(0x031E, 2) + leBytes(45, 2) + leBytes(0, 8) +
             leBytes(1, 8) + leBytes(1, 8) + leBytes(directorySize, 8) + leBytes(central, 8);
  const std::string locator = "PK\x06\x07" + leBytes(0, 4) + leBytes(end64, 8) + leBytes(1, 4);
  const std::string end = "PK\x05\x06" + leBytes(0, 4) + leBytes(0xFFFF, 2) + leBytes(0xFFFF, 2) +
                          leBytes(0xFFFFFFFF, 4) + leBytes(0xFFFFFFFF, 4) + leBytes(0, 2);

  StowZipReader reader(saved(folder, archive + locator + end));
  ASSERT_EQ(reader.items().size(), 1u);
  const StowZipItem& item = reader.items()[0];
  EXPECT_EQ(item.path, "z.txt");
  EXPECT_EQ(item.size, data.size());
  EXPECT_EQ(item.compressedSize, data.size());
  EXPECT_EQ(item.headerOffset, 0u);
  EXPECT_EQ(reader.data(item), data);

  // Without the locator, or with one pointing elsewhere, the 32-bit values stand.
  EXPECT_EQ(openError(saved(folder, archive + end)), kNotAZip);
  std::string elsewhere = locator;
  setLe(elsewhere, 8, end64 + 1, 8);
  EXPECT_EQ(openError(saved(folder, archive + elsewhere + end)), kNotAZip);
}

TEST(ZipReaderTest, FindsTheDataAfterTheLocalHeadersOwnNameAndExtraField) {
  testing::TempFolder folder;
  zip::LocalFileHeader local;
  local.nameLength = 9;
  local.extraLength = 8;
  std::string archive;
  zip::write(archive, local);
  archive += "long-name" + std::string("extra..!") + "payload";
  zip::CentralDirectoryHeader header;
  header.crc = crcOf("payload");
  header.compressedSize = header.size = 7;
  header.name = "p";
  zip::write(archive, header);
  zip::EndOfCentralDirectory end;
  end.entriesOnDisk = end.totalEntries = 1;
  end.directorySize = static_cast<std::uint32_t>(46 + 1);
  end.directoryOffset = static_cast<std::uint32_t>(archive.size() - 47);
  zip::write(archive, end);

  StowZipReader reader(saved(folder, archive));
  EXPECT_EQ(reader.data(reader.items().at(0)), "payload");
}

TEST(ZipReaderTest, ChecksEveryEntryAgainstItsChecksum) {
  testing::TempFolder folder;
  const std::string archive = smallArchive(folder);
  const std::size_t central = testing::centralOffset(archive);
  const std::size_t storedData = 30 + 5;
  const std::size_t deflatedData = storedData + 12 + 30 + 12;

  std::string flipped = archive;
  flipped[storedData + 3] ^= 0x01;
  flipped[deflatedData + 40] ^= 0x10;
  StowZipReader reader(saved(folder, flipped));
  EXPECT_EQ(zipErrorText([&] { reader.data(reader.items()[0]); }),
            "a.txt is damaged: its checksum does not match.");
  EXPECT_EQ(zipErrorText([&] { reader.data(reader.items()[1]); }),
            "b/source.txt is damaged: its checksum does not match.");

  std::string wrongCrc = archive;
  setLe(wrongCrc, central + 16, le32(archive, central + 16) + 1, 4);
  StowZipReader wrong(saved(folder, wrongCrc, "crc.zip"));
  EXPECT_EQ(zipErrorText([&] { wrong.data(wrong.items()[0]); }),
            "a.txt is damaged: its checksum does not match.");
  EXPECT_EQ(wrong.data(wrong.items()[1]), testing::sampleText(5000));

  // A stored size far past the end of the file: read to the end, then refused.
  std::string huge = archive;
  setLe(huge, central + 20, 0xFFFFFFF0, 4);
  StowZipReader hugeReader(saved(folder, huge, "huge.zip"));
  EXPECT_EQ(zipErrorText([&] { hugeReader.data(hugeReader.items()[0]); }),
            "a.txt is damaged: its checksum does not match.");

  // An empty stored entry with CRC 0 is intact.
  StowZipWriter writer(folder / "empty.zip");
  writer.add("", "nothing", sampleDate());
  writer.finish();
  StowZipReader empty(folder / "empty.zip");
  EXPECT_EQ(empty.data(empty.items().at(0)), "");
}

TEST(ZipReaderTest, RefusesMethodsOtherThanStoredAndDeflated) {
  testing::TempFolder folder;
  std::string archive = smallArchive(folder);
  const std::size_t central = testing::centralOffset(archive);
  setLe(archive, central + 10, 12, 2);
  StowZipReader reader(saved(folder, archive));
  EXPECT_EQ(reader.items()[0].method, 12);
  try {
    reader.data(reader.items()[0]);
    ADD_FAILURE() << "method 12 was unpacked";
  } catch (const StowZipError& error) {
    EXPECT_EQ(error.kind(), StowZipError::Kind::unsupportedMethod);
    EXPECT_STREQ(error.what(), "a.txt uses compression method 12, which isn't supported.");
  }
  EXPECT_EQ(reader.data(reader.items()[1]), testing::sampleText(5000));
}

TEST(ZipReaderTest, RejectsAMissingLocalHeaderAndStaysUsable) {
  testing::TempFolder folder;
  std::string archive = smallArchive(folder);
  archive[0] = 'X';
  StowZipReader reader(saved(folder, archive));
  EXPECT_EQ(zipErrorText([&] { reader.data(reader.items()[0]); }), kNotAZip);
  EXPECT_EQ(reader.data(reader.items()[1]), testing::sampleText(5000));

  StowZipItem beyond = reader.items()[0];
  beyond.headerOffset = 0xFFFFFFFFFFFFFFF0u;
  EXPECT_EQ(zipErrorText([&] { reader.data(beyond); }), kNotAZip);
  beyond.headerOffset = archive.size() - 10;
  EXPECT_EQ(zipErrorText([&] { reader.data(beyond); }), kNotAZip);
}

TEST(ZipReaderTest, DecodesInvalidUtf8NamesWithReplacementCharacters) {
  testing::TempFolder folder;
  StowZipWriter writer(folder / "names.zip");
  writer.add("odd", "bad\xFFname\xC3.txt", sampleDate());
  writer.finish();
  StowZipReader reader(folder / "names.zip");
  EXPECT_EQ(reader.items().at(0).path, "bad\xEF\xBF\xBDname\xEF\xBF\xBD.txt");
  EXPECT_EQ(reader.data(reader.items()[0]), "odd");
}

TEST(ZipReaderTest, PassesOnFileErrorsOfTheArchiveAndTheDestination) {
  testing::TempFolder folder;
  try {
    StowZipReader reader(folder / "absent.zip");
    ADD_FAILURE() << "an absent file was opened";
  } catch (const StowFileError& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_STREQ(error.what(), "Could not open absent.zip: No such file or directory.");
  }
  EXPECT_THROW(StowZipReader reader(folder.path()), StowFileError);  // a folder cannot be read

  StowZipReader reader(saved(folder, smallArchive(folder)));
  UniqueFd full(::open("/dev/full", O_WRONLY));
  for (const StowZipItem& item : reader.items()) {
    try {
      reader.extract(item, full.get());
      ADD_FAILURE() << "a write to a full device succeeded";
    } catch (const StowFileError& error) {
      EXPECT_EQ(error.code(), ENOSPC);
      EXPECT_EQ(error.what(), "Could not write " + fs::path(item.path).filename().string() +
                                  ": No space left on device.");
    }
  }
  EXPECT_EQ(reader.data(reader.items()[1]), testing::sampleText(5000));
}

// Any byte of an archive replaced by another: opening and unpacking either work or fail with
// one of the archive errors, never anything else.
TEST(ZipReaderTest, SurvivesEverySingleByteCorruption) {
  testing::TempFolder folder;
  const std::string archive = smallArchive(folder);
  std::map<StowZipError::Kind, int> kinds;
  int intact = 0;
  for (std::size_t at = 0; at < archive.size();
       at += (at < 200 || at > archive.size() - 200) ? 1 : 7) {
    for (char value : {'\x00', '\xFF', static_cast<char>(archive[at] ^ 0x20)}) {
      std::string bytes = archive;
      bytes[at] = value;
      try {
        StowZipReader reader(saved(folder, bytes));
        for (const StowZipItem& item : reader.items()) {
          try {
            reader.data(item);
            ++intact;
          } catch (const StowZipError& error) {
            ++kinds[error.kind()];
          }
        }
      } catch (const StowZipError& error) {
        ++kinds[error.kind()];
      }
    }
  }
  EXPECT_GT(intact, 0);
  EXPECT_GT(kinds[StowZipError::Kind::notAZip], 0);
  EXPECT_GT(kinds[StowZipError::Kind::damaged], 0);
  EXPECT_GT(kinds[StowZipError::Kind::unsupportedMethod], 0);
}

}  // namespace
}  // namespace corvelstow
