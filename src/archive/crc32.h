#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvelstow {

/// The CRC-32 of the ZIP format (reflected polynomial 0xEDB88320, initial value 0xFFFFFFFF,
/// final complement). Feeding consecutive pieces gives the same checksum as feeding them joined.
struct StowCRC32 {
  /// The running register.
  std::uint32_t value = 0xFFFFFFFF;

  /// Folds `length` bytes into the register, in order; an empty run changes nothing.
  void update(const void* bytes, std::size_t length);
  void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }

  /// The checksum of everything folded in so far: the complement of the register.
  std::uint32_t checksum() const { return value ^ 0xFFFFFFFF; }
};

}  // namespace corvelstow
