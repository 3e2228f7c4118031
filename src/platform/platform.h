#pragma once

// The engine's only way to the platform. Apple builds implement it with Foundation and UIKit
// (platform/apple), everything else with POSIX and libplist (platform/posix).
//
// The user interface's part of the seam is three interfaces that the shell hands to the panel
// model, so that tests can hand it a manual clock instead: dispatcher.h (the main queue, the
// background queue, delayed tasks), formatters.h (byte counts, relative and absolute dates)
// and app_control.h (the haptic tap, suspending the app, ending the process).

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/property_list.h"

namespace corvelstow::platform {

namespace fs = std::filesystem;

/// The app container (home) folder, or nothing when none is set (on Linux, CORVELSTOW_HOME).
std::optional<fs::path> containerFolder();

/// The process's temporary folder (on Linux, TMPDIR or /tmp).
fs::path temporaryFolder();

/// The bytes that files may still take on the volume that holds `folder`, or nothing when that
/// cannot be told. Apple: the volume's capacity for important use, which counts what the system
/// would purge to make room; elsewhere what statvfs gives an unprivileged process.
std::optional<std::uint64_t> freeSpace(const fs::path& folder);

/// What the host app's bundle says about itself.
struct Bundle {
  std::optional<std::string> identifier;  ///< CFBundleIdentifier
  PlistDictionary info;                   ///< the Info dictionary; empty when there is none
  std::optional<fs::path> folder;         ///< the bundle folder (on Linux, CORVELSTOW_BUNDLE)
  std::optional<std::string> provisioningProfile;  ///< bytes of embedded.mobileprovision
};

/// The host app's main bundle.
Bundle mainBundle();

/// Parses a property list in XML or binary form; nothing when the bytes are not one.
std::optional<PlistValue> parsePropertyList(std::string_view bytes);

/// Encodes a property list in binary form; nothing when it cannot be encoded.
std::optional<std::string> encodeBinaryPropertyList(const PlistValue& value);

/// The app's preferences: named domains of key-value data. On Apple platforms these are the
/// user defaults' persistent domains; elsewhere a domain is the binary property list
/// `<domain>.plist` in the container's Library/Preferences folder, where iOS keeps it too.
class PreferencesStore {
 public:
  /// The store of the container whose preferences folder is `preferencesFolder`. `folder`, when
  /// given, is that folder already open: where domains are files they are then reached through
  /// it, so that a link put in the folder's place meanwhile is never followed.
  explicit PreferencesStore(fs::path preferencesFolder, int folder = -1);

  /// The domain's values, or nothing when there is no such domain (or it cannot be read).
  std::optional<PlistDictionary> domain(const std::string& name) const;
  /// Replaces the domain's values; false when they could not be written.
  bool setDomain(const std::string& name, const PlistDictionary& values);
  /// Removes the domain; an absent domain is no failure. False when it stays.
  bool removeDomain(const std::string& name);
  /// Writes pending changes to storage and makes other readers see them; false when the store
  /// could not.
  bool synchronize();

 private:
  fs::path folder_;
  [[maybe_unused]] int folderFd_ = -1;
};

/// Compares two file names as the platform's standard string comparison does: negative, zero or
/// positive. Apple: NSString compare:, which compares characters by their code points after
/// canonical decomposition, so that a name in composed and in decomposed form compares equal and
/// "e\u0301" and "\u00E9" both come before "f". Linux: the same order, through ICU's canonical
/// decomposition (NFD). Names that are not UTF-8 compare by their bytes.
int compareNames(std::string_view a, std::string_view b);

/// The device's user-visible name (on Linux, the host name). Called on the main queue: on Apple
/// platforms it comes from UIKit (UIDevice), which answers there only.
std::string deviceName();

/// How many threads the engine keeps busy at once for long work: the processors the system
/// gives the app (Apple: the active processor count; elsewhere the hardware's concurrency as
/// the C++ library reports it), at least 1.
unsigned processorCount();

/// Access to a file that the user picked outside the app's own folders, for as long as this
/// object lives. Apple: startAccessingSecurityScopedResource on the location the document
/// picker returned, and stopAccessingSecurityScopedResource at the end when access began.
/// Elsewhere plain file access is enough, and this does nothing. Never throws.
class ScopedFileAccess {
 public:
  explicit ScopedFileAccess(const fs::path& file) noexcept;
  ~ScopedFileAccess();
  ScopedFileAccess(const ScopedFileAccess&) = delete;
  ScopedFileAccess& operator=(const ScopedFileAccess&) = delete;

 private:
  [[maybe_unused]] void* grant_ = nullptr;  ///< Apple: the location whose access began, retained
};

/// Whether data protection keeps `file`, a file of the app's container, from being read now:
/// false when it can be read or does not exist. The system may load an app (prewarm it) long
/// before the user opens it, even before the device's first unlock after a restart, when the
/// container's files are still locked; the launch-time work then leaves what waits for a launch
/// that can read it. The file is opened to find out: at load time the app object, which could
/// otherwise be asked (UIApplication's protectedDataAvailable), does not exist yet. Apple: the
/// open is refused with EPERM (or EACCES). Linux: a locked fscrypt folder refuses it with
/// ENOKEY; EPERM and EACCES count too.
bool dataLocked(const fs::path& file);

/// Excludes `folder` from the user's iCloud and computer backups (Apple: the URL resource value
/// NSURLIsExcludedFromBackupKey); elsewhere nothing. False when it could not be marked.
bool excludeFromBackup(const fs::path& folder);

/// Runs `work` once the app is up, off the launch: on Apple platforms on a background queue
/// after the main queue has begun to run. Elsewhere it is not run: there the corvelstow command
/// does such work, and a preloaded library leaves the host's process to the host.
void afterLaunch(std::function<void()> work);

/// What the platform does once the launch-time file work is done. Apple: watch for window
/// scenes becoming active. Linux: take this library out of LD_PRELOAD, so that the host's own
/// child processes do not run the start-up again.
void finishStartup();

}  // namespace corvelstow::platform
