#include "archive/crc32.h"

#include <array>

namespace corvelstow {
namespace {

using CrcTables = std::array<std::array<std::uint32_t, 256>, 8>;

// Table 0 is the classic one: entry n is n pushed through eight steps of "shift right by one,
// then exclusive-or the polynomial when the bit shifted out was 1". Table k gives the effect of
// a byte followed by k zero bytes, which lets the loop below fold eight bytes with eight lookups
// and no dependency between them ("slicing by 8"); the result is the same as byte by byte.
CrcTables buildTables() {
  CrcTables tables{};
  for (std::uint32_t n = 0; n < 256; ++n) {
    std::uint32_t c = n;
    for (int step = 0; step < 8; ++step) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    tables[0][n] = c;
  }
  for (std::size_t k = 1; k < tables.size(); ++k) {
    for (std::size_t n = 0; n < 256; ++n) {
      std::uint32_t previous = tables[k - 1][n];
      tables[k][n] = (previous >> 8) ^ tables[0][previous & 0xFF];
    }
  }
  return tables;
}

// Built once, on first use; the initialisation of a local static is thread-safe.
const CrcTables& crcTables() {
  static const CrcTables tables = buildTables();
  return tables;
}

inline std::uint32_t loadLittle32(const unsigned char* p) {
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
         std::uint32_t{p[3]} << 24;
}

}  // namespace

void StowCRC32::update(const void* bytes, std::size_t length) {
  const CrcTables& t = crcTables();
  const auto* p = static_cast<const unsigned char*>(bytes);
  std::uint32_t c = value;
  for (; length >= 8; p += 8, length -= 8) {
    std::uint32_t low = c ^ loadLittle32(p);
    std::uint32_t high = loadLittle32(p + 4);
    c = t[7][low & 0xFF] ^ t[6][(low >> 8) & 0xFF] ^ t[5][(low >> 16) & 0xFF] ^ t[4][low >> 24] ^
        t[3][high & 0xFF] ^ t[2][(high >> 8) & 0xFF] ^ t[1][(high >> 16) & 0xFF] ^ t[0][high >> 24];
  }
  for (; length > 0; ++p, --length) c = t[0][(c ^ *p) & 0xFF] ^ (c >> 8);
  value = c;
}

}  // namespace corvelstow
