#include "store/records.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <random>
#include <limits>
#include <nlohmann/json.hpp>

#include "store/layout.h"

namespace corvelstow {

using nlohmann::json;

std::string_view rawValue(StowRestoreScope scope) {
  switch (scope) {
    case StowRestoreScope::everything:
      return "everything";
    case StowRestoreScope::documents:
      return "documents";
    case StowRestoreScope::settings:
      return "settings";
  }
  return "everything";
}

std::string_view title(StowRestoreScope scope) {
  switch (scope) {
    case StowRestoreScope::everything:
      return "Everything";
    case StowRestoreScope::documents:
      return "Documents";
    case StowRestoreScope::settings:
      return "Settings";
  }
  return "Everything";
}

std::optional<StowRestoreScope> scopeFromRawValue(std::string_view raw) {
  for (auto scope :
       {StowRestoreScope::everything, StowRestoreScope::documents, StowRestoreScope::settings}) {
    if (rawValue(scope) == raw) return scope;
  }
  return std::nullopt;
}

namespace {

// Encoding ---------------------------------------------------------------------------------

// The journal's two enumerations, by their stored names.
constexpr std::pair<StowSwapKind, std::string_view> kKindNames[] = {
    {StowSwapKind::restore, "restore"}, {StowSwapKind::undo, "undo"}};

constexpr std::pair<StowSwapStep, std::string_view> kStepNames[] = {
    {StowSwapStep::documentsAside, "documentsAside"},
    {StowSwapStep::documentsIn, "documentsIn"},
    {StowSwapStep::libraryAside, "libraryAside"},
    {StowSwapStep::libraryIn, "libraryIn"},
    {StowSwapStep::settingsAside, "settingsAside"},
    {StowSwapStep::settingsIn, "settingsIn"},
    {StowSwapStep::finish, "finish"}};

template <typename Enum, size_t N>
std::string nameOf(Enum value, const std::pair<Enum, std::string_view> (&names)[N]) {
  for (const auto& [candidate, name] : names) {
    if (candidate == value) return std::string(name);
  }
  return std::string(names[0].second);
}

void putOptional(json& object, const char* key, const std::optional<std::string>& value) {
  if (value) object[key] = *value;
}

// Decoding: each reader throws Mismatch, which fails the whole record ------------------------

struct Mismatch {};

const json& field(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) throw Mismatch{};
  return *it;
}

bool hasValue(const json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && !it->is_null();
}

std::string readString(const json& value) {
  if (!value.is_string()) throw Mismatch{};
  return value.get<std::string>();
}

bool readBool(const json& value) {
  if (!value.is_boolean()) throw Mismatch{};
  return value.get<bool>();
}

std::int64_t readInt64(const json& value) {
  if (value.is_number_unsigned()) {
    auto number = value.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      throw Mismatch{};
    return static_cast<std::int64_t>(number);
  }
  if (!value.is_number_integer()) throw Mismatch{};
  return value.get<std::int64_t>();
}

StowDate readDate(const json& value) {
  auto date = parseInternetDate(readString(value));
  if (!date) throw Mismatch{};
  return *date;
}

std::optional<std::string> readOptionalString(const json& object, const char* key) {
  if (!hasValue(object, key)) return std::nullopt;
  return readString(object.at(key));
}

std::vector<std::string> readStrings(const json& value) {
  if (!value.is_array()) throw Mismatch{};
  std::vector<std::string> strings;
  for (const json& item : value) strings.push_back(readString(item));
  return strings;
}

// File names need not be UTF-8, and one written with U+FFFD would name another file: they are
// written as the hexadecimal digits of their bytes.
json namesJson(const std::vector<std::string>& names) {
  json array = json::array();
  for (const std::string& name : names) {
    std::string digits;
    for (unsigned char byte : name) {
      digits += "0123456789abcdef"[byte >> 4];
      digits += "0123456789abcdef"[byte & 15];
    }
    array.push_back(std::move(digits));
  }
  return array;
}

std::vector<std::string> readNames(const json& value) {
  std::vector<std::string> names;
  for (const std::string& digits : readStrings(value)) {
    if (digits.size() % 2) throw Mismatch{};
    std::string name;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      unsigned byte = 0;
      auto [end, error] = std::from_chars(digits.data() + i, digits.data() + i + 2, byte, 16);
      if (error != std::errc() || end != digits.data() + i + 2) throw Mismatch{};
      name += static_cast<char>(byte);
    }
    names.push_back(std::move(name));
  }
  return names;
}

const json& requireObject(const json& value) {
  if (!value.is_object()) throw Mismatch{};
  return value;
}

void read(const json& object, StowManifest& m) {
  requireObject(object);
  m.schemaVersion = readInt64(field(object, "schemaVersion"));
  m.bundleIdentifier = readString(field(object, "bundleIdentifier"));
  m.appName = readString(field(object, "appName"));
  m.appVersion = readOptionalString(object, "appVersion");
  m.createdAt = readDate(field(object, "createdAt"));
  m.deviceName = readOptionalString(object, "deviceName");
  m.includedPaths = readStrings(field(object, "includedPaths"));
  m.fileCount = readInt64(field(object, "fileCount"));
  m.totalBytes = readInt64(field(object, "totalBytes"));
  m.kind = readOptionalString(object, "kind");
  m.teamIdentifier = readOptionalString(object, "teamIdentifier");
  m.signerIdentity = readOptionalString(object, "signerIdentity");
}

void read(const json& object, StowSettings& s) {
  requireObject(object);
  s.showOnLaunch = readBool(field(object, "showOnLaunch"));
  s.includeCaches = readBool(field(object, "includeCaches"));
  s.lastBackupAt.reset();
  if (hasValue(object, "lastBackupAt")) s.lastBackupAt = readDate(object.at("lastBackupAt"));
}

void read(const json& object, StowStagedRestore& r) {
  requireObject(object);
  read(field(object, "manifest"), r.manifest);
  auto scope = scopeFromRawValue(readString(field(object, "scope")));
  if (!scope) throw Mismatch{};
  r.scope = *scope;
  r.stagedAt = readDate(field(object, "stagedAt"));
  r.token = readOptionalString(object, "token");
}

template <typename Enum, size_t N>
Enum readName(const json& value, const std::pair<Enum, std::string_view> (&names)[N]) {
  std::string text = readString(value);
  for (const auto& [candidate, name] : names) {
    if (name == text) return candidate;
  }
  throw Mismatch{};
}

void read(const json& object, StowKeptLive& k) {
  requireObject(object);
  k.entries = readNames(field(object, "entries"));
  k.domains = readStrings(field(object, "domains"));
  k.allButPrevious = readBool(field(object, "allButPrevious"));
  if (hasValue(object, "restoredEntries")) k.restoredEntries = readNames(object.at("restoredEntries"));
  if (hasValue(object, "restoredDomains")) k.restoredDomains = readStrings(object.at("restoredDomains"));
}

void read(const json& object, StowSwapJournal& j) {
  requireObject(object);
  j.kind = readName(field(object, "kind"), kKindNames);
  read(field(object, "record"), j.record);
  j.step = readName(field(object, "step"), kStepNames);
  j.failures = readStrings(field(object, "failures"));
  read(field(object, "kept"), j.kept);
}

void read(const json& object, StowOutcome& o) {
  requireObject(object);
  o.succeeded = readBool(field(object, "succeeded"));
  o.message = readString(field(object, "message"));
  o.sourceName = readString(field(object, "sourceName"));
  o.sourceDate = readDate(field(object, "sourceDate"));
  o.appliedAt = readDate(field(object, "appliedAt"));
  o.canUndo = readBool(field(object, "canUndo"));
  o.announced = readBool(field(object, "announced"));
}

}  // namespace

json toJson(const StowManifest& m) {
  json object = {{"schemaVersion", m.schemaVersion},
                 {"bundleIdentifier", m.bundleIdentifier},
                 {"appName", m.appName},
                 {"createdAt", formatInternetDate(m.createdAt)},
                 {"includedPaths", m.includedPaths},
                 {"fileCount", m.fileCount},
                 {"totalBytes", m.totalBytes}};
  putOptional(object, "appVersion", m.appVersion);
  putOptional(object, "deviceName", m.deviceName);
  putOptional(object, "kind", m.kind);
  putOptional(object, "teamIdentifier", m.teamIdentifier);
  putOptional(object, "signerIdentity", m.signerIdentity);
  return object;
}

json toJson(const StowSettings& s) {
  json object = {{"showOnLaunch", s.showOnLaunch}, {"includeCaches", s.includeCaches}};
  if (s.lastBackupAt) object["lastBackupAt"] = formatInternetDate(*s.lastBackupAt);
  return object;
}

json toJson(const StowStagedRestore& r) {
  json object = {{"manifest", toJson(r.manifest)},
                 {"scope", std::string(rawValue(r.scope))},
                 {"stagedAt", formatInternetDate(r.stagedAt)}};
  putOptional(object, "token", r.token);
  return object;
}

json toJson(const StowOutcome& o) {
  return {{"succeeded", o.succeeded},
          {"message", o.message},
          {"sourceName", o.sourceName},
          {"sourceDate", formatInternetDate(o.sourceDate)},
          {"appliedAt", formatInternetDate(o.appliedAt)},
          {"canUndo", o.canUndo},
          {"announced", o.announced}};
}

json toJson(const StowKeptLive& k) {
  json object = {{"entries", namesJson(k.entries)},
                 {"domains", k.domains},
                 {"allButPrevious", k.allButPrevious}};
  if (!k.restoredEntries.empty()) object["restoredEntries"] = namesJson(k.restoredEntries);
  if (!k.restoredDomains.empty()) object["restoredDomains"] = k.restoredDomains;
  return object;
}

json toJson(const StowSwapJournal& j) {
  return {{"kind", nameOf(j.kind, kKindNames)},
          {"record", toJson(j.record)},
          {"step", nameOf(j.step, kStepNames)},
          {"failures", j.failures},
          {"kept", toJson(j.kept)}};
}

// nlohmann::json keeps object keys in a std::map, so dump() writes them sorted. A name that is
// not UTF-8 (a file name in a failure text, say) is written with U+FFFD rather than thrown on.
template <typename Record>
std::string encodeRecord(const Record& record) {
  return toJson(record).dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

template <typename Record>
std::optional<Record> decodeRecord(std::string_view bytes) {
  json document = json::parse(bytes, nullptr, /*allow_exceptions=*/false);
  if (document.is_discarded()) return std::nullopt;
  try {
    Record record;
    read(document, record);
    return record;
  } catch (const Mismatch&) {
    return std::nullopt;
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

template std::string encodeRecord(const StowManifest&);
template std::string encodeRecord(const StowSettings&);
template std::string encodeRecord(const StowStagedRestore&);
template std::string encodeRecord(const StowOutcome&);
template std::string encodeRecord(const StowSwapJournal&);
template std::string encodeRecord(const StowKeptLive&);
template std::optional<StowManifest> decodeRecord(std::string_view);
template std::optional<StowSettings> decodeRecord(std::string_view);
template std::optional<StowStagedRestore> decodeRecord(std::string_view);
template std::optional<StowOutcome> decodeRecord(std::string_view);
template std::optional<StowSwapJournal> decodeRecord(std::string_view);
template std::optional<StowKeptLive> decodeRecord(std::string_view);

std::string newStagingToken() {
  std::random_device source;
  std::string token;
  for (int i = 0; i < 4; ++i) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(source()));
    token += digits;
  }
  return token;
}

std::string stagingMarker(const std::string& token) { return ".staging-" + token; }

StowStagedRestore previousStandIn(const StowLayout& layout) {
  StowStagedRestore standIn;
  standIn.manifest.appName = "Before the restore";
  standIn.manifest.includedPaths = {"Documents", "Library"};
  struct stat info {};
  standIn.manifest.createdAt = ::stat(layout.previous.c_str(), &info) == 0
                                   ? StowDate(std::chrono::seconds(info.st_mtime))
                                   : currentDate();
  standIn.scope = StowRestoreScope::everything;
  standIn.stagedAt = standIn.manifest.createdAt;
  return standIn;
}

std::optional<StowStagedRestore> readPreviousRestore(const StowLayout& layout) {
  auto found = readRecordFile<StowStagedRestore>(layout.previousRecord);
  if (found.record) return found.record;
  if (found.damaged && files::isFolder(layout.previous)) return previousStandIn(layout);
  return std::nullopt;
}

StowSettings loadSettings(const StowLayout& layout) {
  return readRecord<StowSettings>(layout.settingsRecord).value_or(StowSettings{});
}

void saveSettings(const StowLayout& layout, const StowSettings& settings) {
  makeWorkFolder(layout);
  writeRecord(settings, layout.settingsRecord);
}

}  // namespace corvelstow
