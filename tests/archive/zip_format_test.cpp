#include "archive/zip_format.h"

#include <gtest/gtest.h>

#include "archive_test_support.h"

namespace corvelstow {
namespace {

using testing::leBytes;

TEST(ZipFormatTest, DecodesNamesReplacingEachIllFormedSubpart) {
  const std::string kBad = "\xEF\xBF\xBD";
  struct Case {
    std::string bytes;
    std::string text;
  };
  const Case cases[] = {
      {"Documents/notes.txt", "Documents/notes.txt"},
      {"Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98", "Caf\xC3\xA9/\xE6\x97\xA5\xE8\xA8\x98"},
      {"smile \xF0\x9F\x98\x80", "smile \xF0\x9F\x98\x80"},
      {"a\xFF"
       "b",
       "a" + kBad + "b"},                               // never a lead byte
      {"a\xC3", "a" + kBad},                            // cut short by the end
      {"\xE2\x82z", kBad + "z"},                        // two bytes of three: one U+FFFD
      {"\xC0\xAF", kBad + kBad},                        // overlong form of "/"
      {"\xED\xA0\x80", kBad + kBad + kBad},             // a surrogate
      {"\xF4\x90\x80\x80", kBad + kBad + kBad + kBad},  // past U+10FFFF
      {"\x80\x80", kBad + kBad},                        // lone continuation bytes
      {std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const Case& c : cases) EXPECT_EQ(zip::decodeName(c.bytes), c.text) << c.bytes;
}

TEST(ZipFormatTest, CursorFailsOnShortInputAndStaysFailed) {
  zip::ByteCursor cursor(std::string_view("\x01\x02\x03", 3));
  EXPECT_EQ(cursor.get16(), 0x0201);
  EXPECT_EQ(cursor.get32(), 0u);
  EXPECT_FALSE(cursor.ok());
  EXPECT_EQ(cursor.getBytes(1), "");  // the third byte is there, but the cursor has failed
  EXPECT_EQ(cursor.position(), 2u);

  // A central record whose name runs past the end of the bytes is no record.
  std::string record;
  zip::CentralDirectoryHeader header;
  header.name = "name.txt";
  zip::write(record, header);
  zip::ByteCursor whole(record);
  EXPECT_TRUE(zip::readCentralDirectoryHeader(whole));
  zip::ByteCursor cut(std::string_view(record).substr(0, record.size() - 1));
  EXPECT_FALSE(zip::readCentralDirectoryHeader(cut));
}

TEST(ZipFormatTest, TakesZip64ValuesOnlyForFieldsMarkedAsSuch) {
  zip::CentralDirectoryHeader header;
  header.size = 0xFFFFFFFF;
  header.compressedSize = 1234;
  header.localHeaderOffset = 0xFFFFFFFF;
  // Another block first, then Zip64 information with the size and the offset, in that order.
  std::string extra = leBytes(0x5455, 2) + leBytes(5, 2) + "\x01\x02\x03\x04\x05" +
                      leBytes(0x0001, 2) + leBytes(16, 2) + leBytes(0x123456789, 8) +
                      leBytes(0x2000000000, 8);
  header.extra = extra;
  zip::EntryExtent extent = zip::entryExtent(header);
  EXPECT_EQ(extent.size, 0x123456789u);
  EXPECT_EQ(extent.compressedSize, 1234u);
  EXPECT_EQ(extent.localHeaderOffset, 0x2000000000u);

  // A block cut short leaves the fields it cannot fill as they are.
  std::string shortExtra = leBytes(0x0001, 2) + leBytes(16, 2) + leBytes(77, 8) + "\x01\x02";
  header.extra = shortExtra;
  extent = zip::entryExtent(header);
  EXPECT_EQ(extent.size, 77u);
  EXPECT_EQ(extent.localHeaderOffset, 0xFFFFFFFFu);

  // Without the marker the 32-bit value stands, whatever the block holds.
  header.size = 10;
  header.extra = extra;
  EXPECT_EQ(zip::entryExtent(header).size, 10u);
  EXPECT_EQ(zip::entryExtent(header).localHeaderOffset, 0x123456789u);
}

}  // namespace
}  // namespace corvelstow
