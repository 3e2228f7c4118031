#include "backup/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "archive/zip_writer.h"
#include "backup/tree_walk.h"
#include "base/checked.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "platform/platform.h"
#include "store/container_lock.h"
#include "store/records.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPrefix = "container/";

/// What one walk of the container found to archive. Paths are kept relative to the container
/// as plain strings: tens of thousands of filesystem paths would cost far more memory.
struct BackupPlan {
  std::vector<std::string> folders;  // relative folder paths, each ending in "/"
  std::vector<std::string> files;    // relative file paths such as "Documents/notes/a.txt"
  std::int64_t totalBytes = 0;

  void addFile(std::string relative, std::int64_t size) {
    files.push_back(std::move(relative));
    totalBytes = checkedAdd(totalBytes, size);
  }
};

// Walks one top folder of the container. Only its own children are sorted and checked against
// `excluded`; deeper levels keep the directory's order. Links are never followed nor archived,
// the top folder included.
void walk(FolderChain& chain, const std::string& top, const std::set<std::string>& excluded,
          BackupPlan& plan) {
  plan.folders.push_back(top + "/");
  chain.moveTo("");  // back at the container
  if (!enterFolder(chain, top, top)) return;
  std::vector<TreeEntry> children = listFolder(chain, top);
  std::sort(children.begin(), children.end(),
            [](const TreeEntry& a, const TreeEntry& b) { return a.name < b.name; });
  for (const TreeEntry& child : children) {
    if (excluded.count(child.name)) continue;
    if (child.kind == TreeEntry::Kind::file) {
      plan.addFile(child.relative, child.size);
    } else if (child.kind == TreeEntry::Kind::folder) {
      plan.folders.push_back(child.relative + "/");
      walkTree(chain, child.name, child.relative, [&](const TreeEntry& entry) {
        if (entry.kind == TreeEntry::Kind::folder) {
          plan.folders.push_back(entry.relative + "/");
        } else if (entry.kind == TreeEntry::Kind::file) {
          plan.addFile(entry.relative, entry.size);
        }
      });
    }
  }
}

StowManifest manifestFor(const StowHostApp& app, const std::string& deviceName,
                         const BackupPlan& plan, StowDate createdAt) {
  StowManifest manifest;
  manifest.schemaVersion = 1;
  manifest.bundleIdentifier = app.bundleID;
  manifest.appName = app.name;
  manifest.appVersion = app.version;
  manifest.createdAt = createdAt;
  manifest.deviceName = deviceName;
  manifest.includedPaths = {"Documents", "Library"};
  manifest.fileCount = static_cast<std::int64_t>(plan.files.size());
  manifest.totalBytes = plan.totalBytes;
  manifest.kind = "manual";
  manifest.teamIdentifier = app.teamID;
  return manifest;
}

[[noreturn]] void throwReplaced(const std::string& relative) {
  throwFileError(ELOOP,
                 "Could not back up " + relative + ": it was replaced while the backup ran.");
}

// Opens a file of the plan through its folders, following no link: a link, or anything but a
// plain file, put in place of the file or of a folder on its way since the walk is refused.
UniqueFd openPlanned(FolderChain& chain, const std::string& relative) {
  const std::size_t slash = relative.rfind('/');
  UniqueFd file;
  if (chain.moveTo(std::string_view(relative).substr(0, slash))) {
    file.reset(::openat(chain.current(), relative.c_str() + slash + 1,
                        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  }
  if (!file) {
    int code = errno;
    if (code == ELOOP || code == ENOTDIR) throwReplaced(relative);
    throwFileError(code, "Could not open " + relative + ": " + std::strerror(code) + ".");
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) throwFileError("read the attributes of", relative);
  if (!S_ISREG(info.st_mode)) throwReplaced(relative);
  return file;
}

// Opens a file of the plan as openPlanned does. When it cannot, the files before it are
// written first: a failure of theirs came first, and is the one raised.
UniqueFd openInTurn(StowZipWriter& writer, FolderChain& chain, const std::string& relative) {
  try {
    return openPlanned(chain, relative);
  } catch (...) {
    writer.writePending();
    throw;
  }
}

void writeArchive(StowZipWriter& writer, FolderChain& chain, const fs::path& home,
                  const StowManifest& manifest, BackupPlan plan, const StowProgress& progress) {
  writer.reserve(2 + plan.folders.size() + plan.files.size());
  writer.add(encodeRecord(manifest), "manifest.json", currentDate());
  writer.addDirectory("container", currentDate());
  for (const auto& folder : plan.folders) {
    writer.addDirectory(std::string(kPrefix) + folder, currentDate());
  }
  // As each file is written, which may be after later ones were read: every eighth file and the
  // last, so that many small files do not flood the panel.
  const size_t n = plan.files.size();
  const std::int64_t totalBytes = plan.totalBytes;
  size_t i = 0;
  std::int64_t written = 0;
  writer.onFileWritten([&](const StowZipWriter::Written& entry) {
    written = checkedAdd(written, static_cast<std::int64_t>(entry.size));
    if ((i & 7) == 0 || i == n - 1) {
      double fraction = totalBytes > 0
                            ? static_cast<double>(written) / static_cast<double>(totalBytes)
                            : static_cast<double>(i + 1) / static_cast<double>(n);
      progress(fraction, std::to_string(i + 1) + " of " + std::to_string(n) + " files");
    }
    ++i;
  });
  for (std::string& relative : plan.files) {
    UniqueFd file = openInTurn(writer, chain, relative);
    writer.addFile(file.get(), files::join(home, relative), std::string(kPrefix) + relative);
    std::string().swap(relative);  // the writer holds the name now: not twice in memory
  }
  // The central directory is built in memory next: give back the file list first.
  plan = BackupPlan();
  writer.finish();
}

// Held for the whole backup, so that no restore or undo changes the data while it is read and
// no second backup replaces the export being written. Only another holder stops the backup: a
// container whose work folder cannot be written (one given read-only) is backed up without it.
std::optional<StowContainerLock> lockFor(const StowLayout& layout) {
  try {
    return StowContainerLock::acquire(layout);
  } catch (const StowFileError& error) {
    if (error.code() == EWOULDBLOCK) throw;
    return std::nullopt;
  }
}

// Makes `folder` (whose parent exists) this user's own, which only they can open. A link, or a
// folder of another user's, is refused rather than written into.
void makePrivateFolder(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throwFileError("create the folder", folder);
  }
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) throwFileError("create the folder", folder);
  if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
    throwFileError(EPERM, "Could not use the folder " + folder.filename().string() +
                              ": it is a link or belongs to another user.");
  }
  if ((info.st_mode & 077) != 0 && ::chmod(folder.c_str(), 0700) != 0) {
    throwFileError("protect the folder", folder);
  }
}

// The exports folder and "CorvelStow Exports" above it are private; the temporary folder is
// made when it is missing, as it is.
void prepareExports(const fs::path& exports) {
  const fs::path temporary = exports.parent_path().parent_path();
  if (!files::createFolders(temporary)) throwFileError("create the folder", temporary);
  makePrivateFolder(exports.parent_path());
  makePrivateFolder(exports);
}

// Writes `archive` under a hidden name beside it and renames it into place once finished, so
// that its name never holds a partial archive. A failure leaves nothing behind.
void writeWhenDone(const fs::path& archive, unsigned threads,
                   const std::function<void(StowZipWriter&)>& write) {
  std::string partial = archive.parent_path() / ("." + archive.filename().string() + ".XXXXXX");
  if (UniqueFd created(::mkstemp(partial.data())); !created) throwFileError("create", archive);
  ScopeGuard removePartial([&] { ::unlink(partial.c_str()); });
  StowZipWriter writer(partial, threads);
  write(writer);
  if (::rename(partial.c_str(), archive.c_str()) != 0) throwFileError("save", archive);
  removePartial.cancel();
}

// Only the newest export is kept: the older ones, and what an interrupted backup left, go once
// `archive` is in place.
void removeOtherExports(const fs::path& archive) {
  const fs::path exports = archive.parent_path();
  for (const std::string& name : files::listNames(exports)) {
    if (name != archive.filename()) ::unlink((exports / name).c_str());
  }
}

}  // namespace

std::string exportFileName(std::string_view appName, StowDate createdAt) {
  std::string name;
  for (char c : appName) {
    if (std::string_view("/\\:?%*|\"<>").find(c) == std::string_view::npos) name += c;
  }
  size_t first = name.find_first_not_of(" \t");
  name = first == std::string::npos ? ""
                                    : name.substr(first, name.find_last_not_of(" \t") - first + 1);
  if (name.empty()) name = "App";

  CivilTime t = localCivilTime(createdAt);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, " %04d-%02d-%02d %02d%02d", t.year, t.month, t.day, t.hour,
                t.minute);
  return name + stamp + "." + std::string(kBackupExtension);
}

fs::path backUp(const StowLayout& layout, const StowHostApp& app, const std::string& deviceName,
                bool includeCaches, unsigned threads, const StowProgress& progress) {
  const std::optional<StowContainerLock> lock = lockFor(layout);
  // Settings reach Library/Preferences only when the store has written them out.
  platform::PreferencesStore(layout.preferences).synchronize();
  progress(0.0, "Looking through the app's data");

  std::set<std::string> libraryExcluded = excludedLibraryNames();
  if (!includeCaches) libraryExcluded.insert("Caches");
  BackupPlan plan;
  FolderChain chain(layout.home);
  walk(chain, "Documents", {}, plan);
  walk(chain, "Library", libraryExcluded, plan);
  const StowDate createdAt = currentDate();
  StowManifest manifest = manifestFor(app, deviceName, plan, createdAt);

  prepareExports(layout.exports);
  const fs::path archive = layout.exports / exportFileName(app.name, createdAt);
  writeWhenDone(archive, threads, [&](StowZipWriter& writer) {
    writeArchive(writer, chain, layout.home, manifest, std::move(plan), progress);
  });
  removeOtherExports(archive);

  StowSettings settings = loadSettings(layout);
  settings.lastBackupAt = createdAt;
  saveSettings(layout, settings);
  return archive;
}

}  // namespace corvelstow
