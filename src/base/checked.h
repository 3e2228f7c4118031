#pragma once

#include <cstdint>
#include <cstdlib>

namespace corvelstow {

/// a + b; an overflow is a fault in the program, not an error to report, and ends it.
inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) std::abort();
  return sum;
}

}  // namespace corvelstow
