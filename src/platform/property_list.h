#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace corvelstow {

struct PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue>;

/// Raw bytes of a property list's data value.
struct PlistData {
  std::string bytes;
  bool operator==(const PlistData&) const = default;
};

/// A property list's date: seconds since 2001-01-01T00:00:00Z, as the format stores it.
struct PlistDate {
  double sinceReferenceDate = 0;
  bool operator==(const PlistDate&) const = default;
};

/// One value of a property list (XML or binary), the portable form of what the platform parses.
struct PlistValue {
  std::variant<bool, std::int64_t, double, std::string, PlistData, PlistDate, PlistArray,
               PlistDictionary>
      value;

  bool operator==(const PlistValue&) const = default;

  /// The value if it holds a T, otherwise null.
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&value);
  }
};

}  // namespace corvelstow
