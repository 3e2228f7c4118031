#include "archive/zip_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "archive/zip_writer.h"
#include "archive_test_support.h"
#include "base/files.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using testing::failure;
using testing::le32;
using testing::sampleDate;

const std::string kNotAZip = "That file is not a zip archive.";
const std::string kDamaged = " is damaged: its checksum does not match.";
const std::string kBoth = "a.txt | b/source.txt";  // the small archive, intact

// A small archive from the writer: "a.txt" stored (data at 35), then "b/source.txt" deflated
// (data at 89).
std::string smallArchive(const testing::TempFolder& folder) {
  testing::writeFile(folder / "source.txt", testing::sampleText(5000));
  StowZipWriter writer(folder / "small.zip");
  writer.add("stored bytes", "a.txt", sampleDate());
  writer.addFile(folder / "source.txt", "b/source.txt");
  writer.finish();
  return testing::readFile(folder / "small.zip");
}

// The entry's bytes as extractBeside hands them on, or the sentence of its failure.
std::string besideOutcome(StowZipReader::Unpacker& unpacker, const StowZipItem& item) {
  std::string bytes;
  const std::string failed = failure([&] {
    unpacker.extractBeside(item, [&](std::string_view piece) {
      EXPECT_LE(piece.size(), std::size_t{256} << 10);
      bytes += piece;
    });
  });
  return failed == "(no error)" ? bytes : failed;
}

// For an archive of these bytes, the sentence of failing to open it, or for each entry in turn
// its path when it unpacks and the sentence of its failure when not, joined by " | ". Unpacked
// on two threads, each entry gives the same bytes or the same failure.
std::string outcome(const testing::TempFolder& folder, const std::string& bytes) {
  testing::writeFile(folder / "test.zip", bytes);
  std::string entries;
  const std::string opened = failure([&] {
    StowZipReader reader(folder / "test.zip");
    StowZipReader::Unpacker unpacker = reader.unpacker();
    for (const StowZipItem& item : reader.items()) {
      std::string data;
      const std::string unpacked = failure([&] { data = reader.data(item); });
      EXPECT_EQ(besideOutcome(unpacker, item), unpacked == "(no error)" ? data : unpacked);
      entries += (entries.empty() ? "" : " | ") + (unpacked == "(no error)" ? item.path : unpacked);
    }
  });
  return opened == "(no error)" ? entries : opened;
}

// Stored in-memory entries and deflated files, read back in pieces of at most 1 MiB. Names are
// listed as they are, unsafe ones included; one that is not UTF-8 is stored without the UTF-8
// flag and read back as code page 437, its bytes kept.
TEST(ZipReaderTest, ReadsBackStoredAndDeflatedEntries) {
  struct Entry {
    std::string name, path, bytes;
  };
  const Entry entries[] = {
      {"empty", "empty", ""},
      {"", "", ""},  // nothing but its local header
      {"a.txt", "a.txt", "a"},
      {"text/notes.json", "text/notes.json", testing::sampleText(3 << 20)},
      {"random.bin", "random.bin", testing::randomBytes((5 << 19) + 3)},
      {"../../outside", "../../outside", "escapes"},
      {"bad\xFFname\xC3.txt", "bad\u00A0name\u251C.txt", "odd"},
  };
  for (bool fromFiles : {false, true}) {
    testing::TempFolder folder;
    StowZipWriter writer(folder / "round.zip");
    writer.addDirectory("text/", sampleDate());  // no second "/"
    for (const Entry& entry : entries) {
      const fs::path source = folder / std::to_string(writer.written().size());
      testing::writeFile(source, entry.bytes);
      fromFiles ? writer.addFile(source, entry.name)
                : writer.add(entry.bytes, entry.name, sampleDate());
    }
    writer.finish();

    StowZipReader reader(folder / "round.zip");
    ASSERT_EQ(reader.items().size(), std::size(entries) + 1);
    EXPECT_EQ(reader.items()[0].path, "text/");
    for (std::size_t i = 0; i < std::size(entries); ++i) {
      const StowZipItem& item = reader.items()[i + 1];
      const Entry& entry = entries[i];
      const StowZipWriter::Written& written = writer.written()[i + 1];
      SCOPED_TRACE(entry.path + (fromFiles ? " from a file" : " in memory"));
      const int method = fromFiles && !entry.bytes.empty() ? 8 : 0;
      EXPECT_EQ(std::make_tuple(item.path, std::string(item.storedName()), int{item.method},
                                item.size, item.compressedSize, item.headerOffset),
                std::make_tuple(entry.path, entry.name, method, std::uint64_t{entry.bytes.size()},
                                std::uint64_t{written.compressed}, std::uint64_t{written.offset}));
      std::string pieces;
      std::size_t largest = 0;
      reader.extract(item, [&](std::string_view piece) {
        largest = std::max(largest, piece.size());
        pieces += piece;
      });
      EXPECT_EQ(pieces, entry.bytes);
      EXPECT_LE(largest, std::size_t{1} << 20);
      StowZipReader::Unpacker unpacker = reader.unpacker();
      EXPECT_TRUE(besideOutcome(unpacker, item) == entry.bytes);
    }
  }
}

// Not archives, damaged directories and damaged entries: an archive's end record must lie in its
// last 65,557 bytes (a comment may be 65,535 bytes long), and the one nearest the end wins; a
// directory that does not hold its records is no archive; a bad entry fails alone, with its
// sentence. No prefix of an archive is one, and no corrupted byte leads to another kind of failure.
TEST(ZipReaderTest, RefusesWhatIsNotAnArchiveOrIsDamaged) {
  testing::TempFolder folder;
  const std::string archive = smallArchive(folder), empty = "PK\x05\x06" + std::string(18, '\0');
  // An end record without entries, its (empty) directory where it stands itself.
  const auto emptyAt = [&](std::size_t at) {
    return "PK\x05\x06" + std::string(12, '\0') + testing::leBytes(at, 4) + std::string(2, '\0');
  };
  const std::size_t end = archive.size() - 22, central = testing::centralOffset(archive);
  const auto patched = [&](std::size_t at, std::uint64_t value, int width) {
    std::string bytes = archive;
    testing::setLe(bytes, at, value, width);
    return bytes;
  };
  const std::string firstDamaged = "a.txt" + kDamaged + " | b/source.txt";
  const std::pair<std::string, std::string> cases[] = {
      {empty, ""},
      {testing::sampleText(100000), kNotAZip},
      {archive + std::string(65535, 'c'), kBoth},
      {archive + std::string(65536, 'c'), kNotAZip},
      {patched(end + 20, 22, 2) + emptyAt(archive.size()), ""},  // a comment holding an end record
      {patched(end + 20, 10, 2) + "xxxxxxPK\x05\x06", kBoth},    // a signature too near the end
      {patched(end + 12, le32(archive, end + 12) - 1, 4), kNotAZip},  // the last record sticks out
      {patched(central + 28, 60000, 2), kNotAZip},  // the first name runs past the directory
      {patched(end + 10, 3, 2), kNotAZip},          // three entries announced, two present
      {patched(end + 16, 0, 4), kNotAZip},          // the directory offset at a local header
      {patched(end + 16, 0xFFFFFF00, 4), kNotAZip},
      {patched(end + 12, 0xFFFFFFF0, 4), kNotAZip},        // a directory size past the end record
      {patched(38, archive[38] ^ 0x01, 1), firstDamaged},  // a byte of the stored data
      {patched(129, archive[129] ^ 0x10, 1), kBoth + kDamaged},  // and of the deflated data
      {patched(central + 16, le32(archive, central + 16) + 1, 4), firstDamaged},  // the CRC
      {patched(central + 20, 0xFFFFFFF0, 4), kNotAZip},  // data that runs into the next entry
      {patched(central + 10, 12, 2),
       "a.txt uses compression method 12, which isn't supported. | b/source.txt"},
      {patched(0, 'X', 1), kNotAZip + " | b/source.txt"},         // no local header
      {patched(central + 42, archive.size() - 10, 4), kNotAZip},  // a local header after them
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(outcome(folder, cases[i].first), cases[i].second) << "case " << i;
  }
  StowZipReader reader(folder / "small.zip");
  StowZipItem beyond = reader.items()[0];
  beyond.headerOffset = 0xFFFFFFFFFFFFFFF0u;
  EXPECT_EQ(failure([&] { reader.data(beyond); }), kNotAZip);

  for (std::size_t length = 0; length < archive.size(); ++length) {
    ASSERT_EQ(outcome(folder, archive.substr(0, length)), kNotAZip) << length;
  }
  std::map<std::string, int> outcomes;
  for (std::size_t at = 0; at < archive.size(); at += (at < 200 || at > end - 180) ? 1 : 7) {
    for (char value : {'\x00', '\xFF', static_cast<char>(archive[at] ^ 0x20)}) {
      std::string bytes = archive;
      bytes[at] = value;
      const std::string result = outcome(folder, bytes);
      EXPECT_EQ(result.find("file error"), std::string::npos) << at << ": " << result;
      for (const char* kind : {"not a zip", "damaged", "method"}) {
        outcomes[kind] += result.find(kind) != std::string::npos;
      }
      outcomes["intact"] += result == kBoth;
    }
  }
  for (const auto& [kind, count] : outcomes) EXPECT_GT(count, 0) << kind;
}

TEST(ZipReaderTest, PassesOnFileErrorsOfTheArchiveAndTheDestination) {
  testing::TempFolder folder;
  EXPECT_EQ(failure([&] { StowZipReader{folder / "absent.zip"}; }),
            "file error: Could not open absent.zip: No such file or directory.");
  smallArchive(folder);
  StowZipReader reader(folder / "small.zip");
  UniqueFd full(::open("/dev/full", O_WRONLY));
  EXPECT_EQ(failure([&] { reader.extract(reader.items()[0], full.get()); }),
            "file error: Could not write a.txt: No space left on device.");
  EXPECT_EQ(failure([&] { reader.extract(reader.items()[1], full.get()); }),
            "file error: Could not write source.txt: No space left on device.");
  EXPECT_EQ(reader.data(reader.items()[1]), testing::sampleText(5000));  // still usable

  // A large entry that unpacks past its declared 100,000 bytes, unpacked on two threads: the
  // failed write of its first piece is the failure, as on one thread; without it, the damage.
  testing::writeFile(folder / "large.txt", testing::sampleText(3 << 20));
  StowZipWriter writer(folder / "large.zip");
  writer.addFile(folder / "large.txt", "large.txt");
  writer.finish();
  std::string bytes = testing::readFile(folder / "large.zip");
  testing::setLe(bytes, testing::centralOffset(bytes) + 24, 100000, 4);
  testing::writeFile(folder / "large.zip", bytes);
  StowZipReader large(folder / "large.zip");
  StowZipReader::Unpacker unpacker = large.unpacker();
  EXPECT_EQ(failure([&] {
              unpacker.extractBeside(large.items()[0], [&](std::string_view piece) {
                if (!files::writeAll(full.get(), piece)) throwFileError("write", "large.txt");
              });
            }),
            "file error: Could not write large.txt: No space left on device.");
  EXPECT_EQ(besideOutcome(unpacker, large.items()[0]),
            "large.txt is damaged: its size does not match what the archive says.");
}

}  // namespace
}  // namespace corvelstow
