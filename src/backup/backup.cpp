#include "backup/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "archive/zip_error.h"
#include "archive/zip_writer.h"
#include "backup/tree_walk.h"
#include "base/checked.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "platform/platform.h"
#include "startup/startup.h"
#include "store/container_lock.h"
#include "store/records.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPrefix = "container/";
// The files of one folder handed to the writer at a time, at most: enough for it to batch small
// ones, few enough that their openers take little memory.
constexpr std::size_t kRunFiles = 256;

struct PlannedFile {
  std::string relative;   // such as "Documents/notes/a.txt"
  std::int64_t size = 0;  // when the walk saw it
};

/// What one walk of the container found to archive. Paths are kept relative to the container
/// as plain strings: tens of thousands of filesystem paths would cost far more memory.
struct BackupPlan {
  std::vector<std::string> folders;  // relative folder paths, each ending in "/"
  std::deque<PlannedFile> files;     // given back from the front as they are handed on
  std::int64_t totalBytes = 0;

  void addFolder(const std::string& relative) {
    checkNameLength(relative + "/");
    folders.push_back(relative + "/");
  }
  void addFile(std::string relative, std::int64_t size) {
    checkNameLength(relative);
    files.push_back({std::move(relative), size});
    totalBytes = checkedAdd(totalBytes, size);
  }

  // The one limit of the format left: found before anything is written.
  static void checkNameLength(const std::string& relative) {
    if (kPrefix.size() + relative.size() > StowZipWriter::kMaxNameLength) {
      throw StowZipError::nameTooLong(std::string(kPrefix) + relative);
    }
  }
};

// Walks one top folder of the container. Only its own children are sorted and checked against
// `excluded`; deeper levels keep the directory's order. Links are never followed nor archived,
// the top folder included. A folder that cannot be opened or read ends the backup.
void walk(FolderChain& chain, const std::string& top, const std::set<std::string>& excluded,
          BackupPlan& plan) {
  plan.folders.push_back(top + "/");
  chain.moveTo("");  // back at the container
  if (!enterFolder(chain, top, top, FolderFailures::fail)) return;
  std::vector<TreeEntry> children = listFolder(chain, top);
  // In the platform's order, which holds canonically equivalent names equal: two such names
  // (distinct files on Linux) keep an order of their bytes, whatever the directory's.
  std::sort(children.begin(), children.end(), [](const TreeEntry& a, const TreeEntry& b) {
    const int order = platform::compareNames(a.name, b.name);
    return order != 0 ? order < 0 : a.name < b.name;
  });
  for (const TreeEntry& child : children) {
    if (excluded.count(child.name)) continue;
    if (child.kind == TreeEntry::Kind::file) {
      plan.addFile(child.relative, child.size);
    } else if (child.kind == TreeEntry::Kind::folder) {
      plan.addFolder(child.relative);
      const auto visit = [&](const TreeEntry& entry) {
        if (entry.kind == TreeEntry::Kind::folder) {
          plan.addFolder(entry.relative);
        } else if (entry.kind == TreeEntry::Kind::file) {
          plan.addFile(entry.relative, entry.size);
        }
      };
      walkTree(chain, child.name, child.relative, visit, FolderFailures::fail);
    }
  }
}

// The manifest of what was archived: `files` files of `bytes` bytes in all.
StowManifest manifestFor(const StowHostApp& app, const std::string& deviceName, std::int64_t files,
                         std::int64_t bytes, StowDate createdAt) {
  StowManifest manifest;
  manifest.schemaVersion = 1;
  manifest.bundleIdentifier = app.bundleID;
  manifest.appName = app.name;
  manifest.appVersion = app.version;
  manifest.createdAt = createdAt;
  manifest.deviceName = deviceName;
  manifest.includedPaths = {"Documents", "Library"};
  manifest.fileCount = files;
  manifest.totalBytes = bytes;
  manifest.kind = "manual";
  manifest.teamIdentifier = app.teamID;
  return manifest;
}

// A folder of the plan, open for the writer's threads to open its files in; or why it cannot be.
struct OpenFolder {
  std::string relative;
  UniqueFd fd;
  int error = 0;
};

std::shared_ptr<const OpenFolder> openFolder(FolderChain& chain, std::string relative) {
  auto folder = std::make_shared<OpenFolder>();
  folder->relative = std::move(relative);
  if (chain.moveTo(folder->relative)) {
    folder->fd.reset(::fcntl(chain.current(), F_DUPFD_CLOEXEC, 0));
  }
  if (!folder->fd) folder->error = errno;
  return folder;
}

// Gone, or replaced by a link or by something else than was there.
bool isGone(int code) { return code == ENOENT || code == ENOTDIR || code == ELOOP; }

// Opens a file of the plan in its folder, following no link. Nothing when it is gone or no
// longer a plain file (renamed, removed, or replaced since the walk, or its folder was): an app
// that runs while it is backed up does that, and the file is then left out. Any other failure
// ends the backup, with a sentence naming the file or folder.
UniqueFd openPlanned(const OpenFolder& folder, const std::string& relative) {
  int code = folder.error;
  if (folder.fd) {
    const char* name = relative.c_str() + folder.relative.size() + 1;
    UniqueFd file(::openat(folder.fd.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file) {
      struct stat info {};
      if (::fstat(file.get(), &info) != 0) throwFileError("read the attributes of", relative);
      return S_ISREG(info.st_mode) ? std::move(file) : UniqueFd();
    }
    code = errno;
  }
  if (isGone(code)) return {};
  const std::string what = folder.fd ? relative : "the folder " + folder.relative;
  throwFileError(code, "Could not open " + what + ": " + std::strerror(code) + ".");
}

// Hands the plan's files to the writer, those of one folder at a time, each opened only when
// the writer comes to it.
void addPlannedFiles(StowZipWriter& writer, FolderChain& chain, std::deque<PlannedFile>& files) {
  std::vector<StowZipWriter::DeferredFile> run;
  std::shared_ptr<const OpenFolder> folder;
  for (; !files.empty(); files.pop_front()) {
    PlannedFile& file = files.front();
    const std::string_view parent =
        std::string_view(file.relative).substr(0, file.relative.rfind('/'));
    const bool newFolder = !folder || folder->relative != parent;
    if (newFolder || run.size() == kRunFiles) {
      writer.addFiles(std::move(run));
      run.clear();
    }
    if (newFolder) folder = openFolder(chain, std::string(parent));
    std::string name = std::string(kPrefix) + file.relative;
    run.push_back(
        {std::move(name), static_cast<std::uint64_t>(file.size),
         [folder, relative = std::move(file.relative)] { return openPlanned(*folder, relative); }});
  }
  writer.addFiles(std::move(run));
}

// The folders, then the files, then the manifest of what was archived: its local entry comes
// last, once the files are written, and its record first in the directory. What an app that runs
// meanwhile removes or replaces is left out, and the manifest counts what is there. Returns the
// files left out.
std::vector<std::string> writeArchive(StowZipWriter& writer, FolderChain& chain,
                                      const StowHostApp& app, const std::string& deviceName,
                                      StowDate createdAt, BackupPlan plan,
                                      const StowProgress& progress) {
  writer.reserve(2 + plan.folders.size() + plan.files.size());
  writer.addDirectory("container", currentDate());
  for (const auto& folder : plan.folders) {
    writer.addDirectory(std::string(kPrefix) + folder, currentDate());
  }
  // As each file is written or left out, which may be after later ones were read: every eighth
  // file and the last, so that many small files do not flood the panel.
  const size_t n = plan.files.size();
  const std::int64_t totalBytes = plan.totalBytes;
  size_t i = 0;
  std::int64_t files = 0, bytes = 0;
  std::vector<std::string> leftOut;
  const auto report = [&] {
    if ((i & 7) == 0 || i == n - 1) {
      double fraction =
          totalBytes > 0
              ? std::min(1.0, static_cast<double>(bytes) / static_cast<double>(totalBytes))
              : static_cast<double>(i + 1) / static_cast<double>(n);
      progress(fraction, std::to_string(i + 1) + " of " + std::to_string(n) + " files");
    }
    ++i;
  };
  writer.onFileWritten([&](const StowZipWriter::Written& entry) {
    ++files;
    bytes = checkedAdd(bytes, static_cast<std::int64_t>(entry.size));
    report();
  });
  writer.onFileLeftOut([&](const std::string& name) {
    leftOut.push_back(name.substr(kPrefix.size()));
    report();
  });
  addPlannedFiles(writer, chain, plan.files);
  plan = BackupPlan();    // the central directory is built next: the file list goes first
  writer.writePending();  // every file counted
  writer.addListedFirst(encodeRecord(manifestFor(app, deviceName, files, bytes, createdAt)),
                        "manifest.json", currentDate());
  writer.finish();
  return leftOut;
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

// White space as the platform defines it (NSCharacterSet whitespaceAndNewlineCharacterSet): the
// space separators, tab, the line and paragraph separators and the other line ends.
bool isWhiteSpace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// The character whose UTF-8 begins at `at`, and its length; a byte that begins none stands for
// itself (and is no white space).
std::pair<char32_t, std::size_t> characterAt(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const std::size_t length = lead < 0xC2 || lead > 0xF4 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (length == 1 || at + length > text.size()) return {lead, 1};
  char32_t c = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return {lead, 1};
    c = c << 6 | (next & 0x3F);
  }
  return {c, length};
}

// `text` without the white space at its ends.
std::string_view trimmedOfWhiteSpace(std::string_view text) {
  std::size_t begin = text.size(), end = 0;
  for (std::size_t at = 0; at < text.size();) {
    const auto [c, length] = characterAt(text, at);
    if (!isWhiteSpace(c)) {
      begin = std::min(begin, at);
      end = at + length;
    }
    at += length;
  }
  return begin < end ? text.substr(begin, end - begin) : std::string_view();
}

}  // namespace

std::string exportFileName(std::string_view appName, StowDate createdAt) {
  std::string name;
  for (char c : appName) {
    if (std::string_view("/\\:?%*|\"<>").find(c) == std::string_view::npos) name += c;
  }
  name = std::string(trimmedOfWhiteSpace(name));
  if (name.empty()) name = "App";

  CivilTime t = localCivilTime(createdAt);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, " %04d-%02d-%02d %02d%02d", t.year, t.month, t.day, t.hour,
                t.minute);
  return name + stamp + "." + std::string(kBackupExtension);
}

StowBackupResult backUp(const StowLayout& layout, const StowHostApp& app,
                        const std::string& deviceName, bool includeCaches, unsigned threads,
                        const StowProgress& progress) {
  const std::optional<StowContainerLock> lock = lockFor(layout);
  // Half-swapped data is no backup, and would replace the last good export.
  refuseWhileSwapUnfinished(layout);
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

  prepareExports(layout.exports);
  StowBackupResult result{layout.exports / exportFileName(app.name, createdAt), {}};
  writeWhenDone(result.archive, threads, [&](StowZipWriter& writer) {
    result.leftOut =
        writeArchive(writer, chain, app, deviceName, createdAt, std::move(plan), progress);
  });
  removeOtherExports(result.archive);

  StowSettings settings = loadSettings(layout);
  settings.lastBackupAt = createdAt;
  saveSettings(layout, settings);
  return result;
}

}  // namespace corvelstow
