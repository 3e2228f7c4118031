#include <plist/plist.h>

#include <cstring>
#include <limits>
#include <memory>

#include "platform/platform.h"

namespace corvelstow::platform {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

// Dates. libplist keeps a date as the double that the binary format stores, but its accessors
// pass it through 32-bit whole seconds, which holds only 1933 to 2069 and breaks fractions
// before 2001. So a date goes in and out as that double, through the smallest binary property
// list that holds one: an array whose one element is the date.
//   "bplist00", A1 01 (array, 1 element: object 1), 33 + 8 bytes (the date, big-endian),
//   offset table 08 0A, then the trailer: offset and reference sizes 1, 2 objects, top object 0,
//   offset table at 19.
constexpr size_t kDateListSize = 53;
constexpr size_t kDateOffset = 11;  // the date's eight bytes
constexpr uint8_t kDateMarker = 0x33;

std::string dateList(double sinceReferenceDate) {
  std::string bytes("bplist00\xA1\x01\x33", 11);
  uint64_t bits = 0;
  std::memcpy(&bits, &sinceReferenceDate, sizeof bits);
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(bits >> shift);
  bytes += "\x08\x0A";
  std::string trailer(32, '\0');
  trailer[6] = 1;    // offset size
  trailer[7] = 1;    // object reference size
  trailer[15] = 2;   // objects
  trailer[31] = 19;  // where the offset table begins
  return bytes + trailer;
}

plist_t dateNode(double sinceReferenceDate) {
  std::string bytes = dateList(sinceReferenceDate);
  plist_t list = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &list);
  PlistNode owned(list);
  plist_t date = list ? plist_array_get_item(list, 0) : nullptr;
  return date ? plist_copy(date) : plist_new_date(0, 0);
}

double dateValue(plist_t date) {
  PlistNode list(plist_new_array());
  plist_array_append_item(list.get(), plist_copy(date));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(list.get(), &bytes, &length);
  std::unique_ptr<char, decltype(&plist_to_bin_free)> owned(bytes, &plist_to_bin_free);
  if (bytes == nullptr || length != kDateListSize ||
      static_cast<uint8_t>(bytes[kDateOffset - 1]) != kDateMarker) {
    return 0;
  }
  uint64_t bits = 0;
  for (size_t i = 0; i < 8; ++i) bits = bits << 8 | static_cast<uint8_t>(bytes[kDateOffset + i]);
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::optional<PlistValue> fromNode(plist_t node, int depth);

std::optional<PlistValue> fromArray(plist_t node, int depth) {
  PlistArray items;
  uint32_t count = plist_array_get_size(node);
  for (uint32_t i = 0; i < count; ++i) {
    auto item = fromNode(plist_array_get_item(node, i), depth + 1);
    if (!item) return std::nullopt;
    items.push_back(std::move(*item));
  }
  return PlistValue{std::move(items)};
}

std::optional<PlistValue> fromDictionary(plist_t node, int depth) {
  PlistDictionary entries;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(node, &it);
  std::unique_ptr<void, decltype(&free)> iterator(it, &free);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(node, it, &key, &value);
    if (value == nullptr) return PlistValue{std::move(entries)};
    std::unique_ptr<char, decltype(&free)> owned(key, &free);
    auto converted = fromNode(value, depth + 1);
    if (!key || !converted) return std::nullopt;
    entries.emplace(key, std::move(*converted));
  }
}

std::optional<PlistValue> fromNode(plist_t node, int depth) {
  if (node == nullptr || depth > 512) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return PlistValue{value != 0};
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return PlistValue{static_cast<std::int64_t>(value)};
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return PlistValue{value};
    }
    case PLIST_STRING: {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return PlistValue{std::string(text ? text : "", text ? length : 0)};
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return PlistValue{PlistData{std::string(bytes ? bytes : "", bytes ? length : 0)}};
    }
    case PLIST_DATE:
      return PlistValue{PlistDate{dateValue(node)}};
    case PLIST_ARRAY:
      return fromArray(node, depth);
    case PLIST_DICT:
      return fromDictionary(node, depth);
    default:
      return std::nullopt;  // keys and keyed-archiver UIDs have no place in settings
  }
}

plist_t toNode(const PlistValue& value) {
  struct Visitor {
    plist_t operator()(bool v) const { return plist_new_bool(v); }
    plist_t operator()(std::int64_t v) const { return plist_new_uint(static_cast<uint64_t>(v)); }
    plist_t operator()(double v) const { return plist_new_real(v); }
    plist_t operator()(const std::string& v) const { return plist_new_string(v.c_str()); }
    plist_t operator()(const PlistData& v) const {
      return plist_new_data(v.bytes.data(), v.bytes.size());
    }
    plist_t operator()(const PlistDate& v) const { return dateNode(v.sinceReferenceDate); }
    plist_t operator()(const PlistArray& items) const {
      plist_t array = plist_new_array();
      for (const auto& item : items) plist_array_append_item(array, toNode(item));
      return array;
    }
    plist_t operator()(const PlistDictionary& entries) const {
      plist_t dict = plist_new_dict();
      for (const auto& [key, item] : entries) plist_dict_set_item(dict, key.c_str(), toNode(item));
      return dict;
    }
  };
  return std::visit(Visitor{}, value.value);
}

}  // namespace

std::optional<PlistValue> parsePropertyList(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  PlistNode owned(root);
  return fromNode(root, 0);
}

std::optional<std::string> encodeBinaryPropertyList(const PlistValue& value) {
  PlistNode root(toNode(value));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root.get(), &bytes, &length);
  if (bytes == nullptr) return std::nullopt;
  std::string encoded(bytes, length);
  plist_to_bin_free(bytes);
  return encoded;
}

}  // namespace corvelstow::platform
