#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvelstow {

/// The CRC-32 of the ZIP format (reflected polynomial 0xEDB88320, initial value 0xFFFFFFFF,
/// final complement), computed by zlib, whose loop is several times faster than a table walk
/// and uses the processor's CRC instructions where the system's zlib has them. Feeding
/// consecutive pieces gives the same checksum as feeding them joined.
struct StowCRC32 {
  /// The running register.
  std::uint32_t value = 0xFFFFFFFF;

  /// Folds `length` bytes into the register, in order; an empty run changes nothing.
  void update(const void* bytes, std::size_t length);
  void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }

  /// Folds in `length` further bytes whose own checksum is `checksum`, as if they had been
  /// given to update: pieces checksummed apart (on other threads) are joined in order.
  void append(std::uint32_t checksum, std::uint64_t length);

  /// The checksum of everything folded in so far: the complement of the register.
  std::uint32_t checksum() const { return value ^ 0xFFFFFFFF; }
};

}  // namespace corvelstow
