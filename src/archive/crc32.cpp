#include "archive/crc32.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace corvelstow {

// zlib takes and returns the finished checksum, not the register.
void StowCRC32::update(const void* bytes, std::size_t length) {
  constexpr std::size_t kMaxSlice = std::numeric_limits<uInt>::max();
  const auto* p = static_cast<const Bytef*>(bytes);
  uLong crc = checksum();
  while (length > 0) {
    const std::size_t slice = std::min(length, kMaxSlice);
    crc = crc32(crc, p, static_cast<uInt>(slice));
    p += slice;
    length -= slice;
  }
  value = static_cast<std::uint32_t>(crc) ^ 0xFFFFFFFF;
}

void StowCRC32::append(std::uint32_t next, std::uint64_t length) {
  const uLong joined = crc32_combine(checksum(), next, static_cast<z_off_t>(length));
  value = static_cast<std::uint32_t>(joined) ^ 0xFFFFFFFF;
}

}  // namespace corvelstow
