#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/dates.h"
#include "base/files.h"

namespace corvelstow {

struct StowLayout;

/// What a backup holds, stored as "manifest.json" in every backup archive.
struct StowManifest {
  std::int64_t schemaVersion = 1;
  std::string bundleIdentifier;
  std::string appName;
  std::optional<std::string> appVersion;
  StowDate createdAt{};
  std::optional<std::string> deviceName;
  std::vector<std::string> includedPaths;
  std::int64_t fileCount = 0;
  std::int64_t totalBytes = 0;
  std::optional<std::string> kind;
  std::optional<std::string> teamIdentifier;
  std::optional<std::string> signerIdentity;

  bool operator==(const StowManifest&) const = default;
};

/// Which part of the container a restore replaces, in the order the scope picker lists them.
enum class StowRestoreScope { everything, documents, settings };

/// The scope's stored form: "everything", "documents" or "settings".
std::string_view rawValue(StowRestoreScope scope);
/// The scope's title: "Everything", "Documents" or "Settings".
std::string_view title(StowRestoreScope scope);
/// The scope named by its stored form, or nothing for any other text.
std::optional<StowRestoreScope> scopeFromRawValue(std::string_view raw);

/// The user's two options and when the last backup was made (settings.json).
struct StowSettings {
  bool showOnLaunch = true;
  bool includeCaches = false;
  std::optional<StowDate> lastBackupAt;

  bool operator==(const StowSettings&) const = default;
};

/// A restore waiting in Staged (staged.json), or the data kept in Previous (previous.json).
struct StowStagedRestore {
  StowManifest manifest;
  StowRestoreScope scope = StowRestoreScope::everything;
  StowDate stagedAt{};
  /// Which staging it is: staged.json names the folder it was written for (which holds the
  /// file stagingMarker(token)), and previous.json the staging it came from, so that a record
  /// is never applied to another staging, nor twice.
  std::optional<std::string> token;

  bool operator==(const StowStagedRestore&) const = default;
};

/// A fresh token for a staging: 32 random hexadecimal digits.
std::string newStagingToken();

/// The name of the empty file that marks a staging folder as the one of `token`.
std::string stagingMarker(const std::string& token);

/// The result of the last launch-time restore or undo (outcome.json).
struct StowOutcome {
  bool succeeded = false;
  std::string message;
  std::string sourceName;
  StowDate sourceDate{};
  StowDate appliedAt{};
  bool canUndo = false;
  bool announced = false;

  bool operator==(const StowOutcome&) const = default;
};

/// Which launch-time operation a swap carries out: a staged restore or an undo.
enum class StowSwapKind { restore, undo };

/// The steps of a swap, in the order they run. A step that moves data aside may run again after
/// an interruption; a step that puts data back, and the finish, may not run after the step
/// before them has, so the journal names each of those as it begins.
enum class StowSwapStep {
  documentsAside,
  documentsIn,
  libraryAside,
  libraryIn,
  settingsAside,
  settingsIn,
  finish,  ///< keep what was replaced, write the outcome, clear the source
};

/// What a swap leaves live (kept.json in Previous, for the undo after a restore): the entries
/// and settings domains the restore could not set aside, which are still the user's own; or,
/// once an undo could not put everything back, everything but what Previous still holds, and
/// but the restored data that undo could not set aside, which the next one sets aside.
struct StowKeptLive {
  std::vector<std::string> entries;  ///< "Documents/NAME" or "Library/NAME"
  std::vector<std::string> domains;
  bool allButPrevious = false;
  std::vector<std::string> restoredEntries;  ///< set aside by the next undo all the same
  std::vector<std::string> restoredDomains;

  bool operator==(const StowKeptLive&) const = default;
};

/// The journal of a swap under way (swap.json): what it applies and how far it has come, so
/// that a launch that finds it finishes the swap instead of starting it again.
struct StowSwapJournal {
  StowSwapKind kind = StowSwapKind::restore;
  StowStagedRestore record;  ///< the record being applied (staged.json or previous.json)
  StowSwapStep step = StowSwapStep::documentsAside;
  std::vector<std::string> failures;  ///< the failure texts of the steps before `step`
  /// What it leaves live: what it could not set aside and, for an undo, what the restore before
  /// it left live (never `allButPrevious`: that is resolved into names as the undo starts).
  StowKeptLive kept;

  bool operator==(const StowSwapJournal&) const = default;
};

/// A record as a JSON object: keys are the field names, absent optionals are left out,
/// dates are internet date-times.
nlohmann::json toJson(const StowManifest& manifest);
nlohmann::json toJson(const StowSettings& settings);
nlohmann::json toJson(const StowStagedRestore& restore);
nlohmann::json toJson(const StowOutcome& outcome);
nlohmann::json toJson(const StowKeptLive& kept);
nlohmann::json toJson(const StowSwapJournal& journal);

/// The one encoding of a record: keys sorted, pretty-printed; equal records give equal bytes.
/// Text that is not valid UTF-8 is encoded with U+FFFD in place of each invalid sequence.
template <typename Record>
std::string encodeRecord(const Record& record);

/// Decodes a whole record, or nothing: a missing required key, a wrong type, an unknown scope
/// or a date that is not a strict internet date-time fails the whole record.
template <typename Record>
std::optional<Record> decodeRecord(std::string_view bytes);

/// Reads a record file; every failure (absent, unreadable, malformed) gives nothing.
template <typename Record>
std::optional<Record> readRecord(const std::filesystem::path& file) {
  auto bytes = files::readWhole(file);
  if (!bytes) return std::nullopt;
  return decodeRecord<Record>(*bytes);
}

/// A record file as found: its record, or none, and then whether something stands in its place
/// all the same (a file cut short or garbled, a folder, a dangling link): a damaged record,
/// which is never taken for an absent one.
template <typename Record>
struct StowRecordFile {
  std::optional<Record> record;
  bool damaged = false;
};

/// Reads the record file `name` of the open folder `folder` (not following a link).
template <typename Record>
StowRecordFile<Record> readRecordFile(int folder, const std::string& name) {
  StowRecordFile<Record> found;
  if (auto bytes = files::readWhole(folder, name)) found.record = decodeRecord<Record>(*bytes);
  found.damaged = !found.record && files::exists(folder, name);
  return found;
}

/// The same by path.
template <typename Record>
StowRecordFile<Record> readRecordFile(const std::filesystem::path& file) {
  StowRecordFile<Record> found;
  found.record = readRecord<Record>(file);
  found.damaged = !found.record && files::exists(file);
  return found;
}

/// Writes a record atomically, creating its folder first. Never throws: on any failure an older
/// file stays as it was and the result is false (with errno set when a file operation failed).
template <typename Record>
bool writeRecord(const Record& record, const std::filesystem::path& file) noexcept {
  try {
    return files::writeAtomically(file, encodeRecord(record));
  } catch (...) {
    return false;
  }
}

/// The same into the file `name` of the open folder `folder`.
template <typename Record>
bool writeRecord(const Record& record, int folder, const std::string& name) noexcept {
  try {
    return files::writeAtomically(folder, name, encodeRecord(record));
  } catch (...) {
    return false;
  }
}

/// The last restore's record (previous.json). When it exists but cannot be read while the
/// Previous folder does, a stand-in (previousStandIn), so that what Previous keeps can still be
/// put back; nothing when there is no record.
std::optional<StowStagedRestore> readPreviousRestore(const StowLayout& layout);

/// What stands in for a previous.json that cannot be read: "Before the restore", scope
/// everything, the backup dated when Previous last changed, no token.
StowStagedRestore previousStandIn(const StowLayout& layout);

/// The settings in settings.json, or the defaults when it is missing or does not decode.
StowSettings loadSettings(const StowLayout& layout);

/// Saves the settings to settings.json, creating the work folder first; failures are dropped.
void saveSettings(const StowLayout& layout, const StowSettings& settings);

}  // namespace corvelstow
