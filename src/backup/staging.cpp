#include "backup/staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_set>

#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "archive/zip_reader.h"
#include "backup/inspection.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/ordered_work.h"
#include "base/scope_guard.h"
#include "base/unique_fd.h"
#include "backup/tree_walk.h"
#include "platform/platform.h"
#include "startup/startup.h"
#include "store/container_lock.h"
#include "store/trash.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPrefix = "container/";
constexpr std::int64_t kProgressEvery = 8;  // files
// From this size on, a file's checksum and writes run on a thread beside its decompression.
constexpr std::uint64_t kLargeFile = 1 << 20;
// Past this many threads, more would only hold more buffers: storage is the bound by then.
constexpr unsigned kMostThreads = 8;
constexpr const char* kUndoUnfinishedText =
    "The last undo could not put everything back: undo again before restoring.";

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool inScope(std::string_view relative, StowRestoreScope scope) {
  switch (scope) {
    case StowRestoreScope::everything:
      return startsWith(relative, "Documents/") || startsWith(relative, "Library/");
    case StowRestoreScope::documents:
      return startsWith(relative, "Documents/");
    case StowRestoreScope::settings:
      return startsWith(relative, "Library/Preferences/");
  }
  return false;
}

// The name an entry's file is created under, after "container/": the decoded path, except for
// a name that a Unix tool stored as plain bytes (no UTF-8 flag, no Unicode path field). Its
// bytes are used as they are, as unzip does there, so that a file name in another encoding comes
// back byte for byte, and two such names never become one.
std::string_view relativeName(const StowZipItem& item) {
  const bool unixBytes = item.nameEncoding == StowZipItem::NameEncoding::cp437 &&
                         item.versionMadeBy >> 8 == zip::kHostUnix;
  return (unixBytes ? item.storedName() : std::string_view(item.path)).substr(kPrefix.size());
}

// A name as a message shows it: a NUL byte would end the message there, so it is spelled out.
std::string shown(std::string_view name) {
  std::string text;
  for (char c : name) text += c == '\0' ? std::string_view("\\0") : std::string_view(&c, 1);
  return text;
}

[[noreturn]] void throwCreateError(const std::string& what, int code) {
  const std::string reason = code == ELOOP ? "a link stands in its place" : std::strerror(code);
  throwFileError(code, "Could not create " + what + ": " + reason + ".");
}

/// Stands `chain` in `folder` (a path below its root), creating, with mode 0755, each folder on
/// the way that is missing; one that exists already is fine. Every folder is entered from its
/// parent without following a link, so that nothing is created outside the staging, whatever
/// is put in its way, and no path is longer than one name.
void makeFolders(FolderChain& chain, std::string_view folder) {
  if (chain.moveTo(folder)) return;
  std::vector<std::string> names;
  for (size_t start = 0; start < folder.size();) {
    size_t end = std::min(folder.find('/', start), folder.size());
    if (end > start) names.emplace_back(folder.substr(start, end - start));
    start = end + 1;
  }
  // moveTo stopped in front of the first folder it could not enter.
  for (size_t level = chain.depth(); level < names.size(); ++level) {
    const std::string& name = names[level];
    if (chain.enter(name)) continue;
    if (errno == ENOTDIR && files::isLink(chain.current(), name)) errno = ELOOP;
    if (errno != ENOENT || chain.current() < 0 ||
        (::mkdirat(chain.current(), name.c_str(), 0755) != 0 && errno != EEXIST) ||
        !chain.enter(name)) {
      throwCreateError("the folder " + name, errno);
    }
  }
}

// A new file: one already there came from an earlier entry, which this one would overwrite (a
// name that only differs in case, on a volume that ignores case).
UniqueFd createFile(int folder, const std::string& name, const StowZipItem& item) {
  UniqueFd fd(
      ::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd && errno == EEXIST && files::isLink(folder, name)) errno = ELOOP;
  if (!fd && errno == EEXIST) throw StowRestoreError::heldTwice(shown(item.path));
  if (!fd) throwCreateError(name, errno);
  return fd;
}

// Before anything is unpacked: every name is safe, and no two entries land on one file, be it a
// file named twice or a file where a folder is, named or implied by a deeper entry.
void checkNames(const std::vector<const StowZipItem*>& selected) {
  std::unordered_set<std::string_view> folders, files;
  for (const StowZipItem* item : selected) {
    std::string_view relative = relativeName(*item);
    if (!isSafeEntryPath(relative, item->backslashSeparates())) {
      throw StowZipError::unsafePath(shown(item->path));
    }
    for (size_t slash = relative.find('/'); slash != std::string_view::npos;
         slash = relative.find('/', slash + 1)) {
      folders.insert(relative.substr(0, slash));
    }
  }
  for (const StowZipItem* item : selected) {
    std::string_view relative = relativeName(*item);
    if (relative.back() == '/') continue;
    if (folders.count(relative)) throw StowRestoreError::fileAndFolder(shown(item->path));
    if (!files.insert(relative).second) throw StowRestoreError::heldTwice(shown(item->path));
  }
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

// Before anything is unpacked: room on the volume for every selected file as declared. A total
// that does not fit because an entry declares more than its data could ever unpack to is no
// want of room: that entry is damaged. Returns the most that unpacking may write: what the files
// declare plus what the manifest counts, a second line behind the reader, which holds each entry
// to its declared size.
std::uint64_t checkRoom(const fs::path& staged, const std::vector<const StowZipItem*>& selected,
                        std::int64_t manifestBytes) {
  std::uint64_t declared = 0;
  for (const StowZipItem* item : selected) {
    if (!item->isFolder()) declared = saturatingAdd(declared, item->size);
  }
  auto available = platform::freeSpace(staged);
  if (available && *available < declared) {
    for (const StowZipItem* item : selected) {
      if (!item->isFolder() && !declaresPossibleSize(*item)) {
        throw StowZipError::wrongSize(shown(item->path));
      }
    }
    throw StowRestoreError::noRoom(declared, *available);
  }
  return saturatingAdd(declared,
                       static_cast<std::uint64_t>(std::max<std::int64_t>(manifestBytes, 0)));
}

// What each unpacking thread keeps of its own.
struct UnpackThread {
  StowZipReader::Unpacker unpacker;
  FolderChain chain;  // standing in the folder of its previous file: most files share one
};

// Thrown into a file's unpacking once an earlier entry has failed.
struct NoLongerNeeded {};

/// Unpacks the selected entries below `staged`, several at once, writing at most `limit` bytes
/// in all; returns how many files came out. Progress is told from the calling thread, at every
/// 8th file finished and the last, whatever the number of threads.
std::int64_t unpack(const StowZipReader& reader, const std::vector<const StowZipItem*>& selected,
                    const fs::path& staged, std::int64_t fileCount, std::uint64_t limit,
                    unsigned threads, const StowProgress& progress) {
  std::vector<UnpackThread> own;
  for (unsigned thread = 0; thread < threads; ++thread) {
    own.push_back({reader.unpacker(), FolderChain(staged)});
  }
  std::atomic<std::uint64_t> written{0};

  const auto unpackOne = [&](const StowWorkSlot& slot) {
    const StowZipItem& item = *selected[slot.index];
    UnpackThread& mine = own[slot.thread];
    std::string destination(relativeName(item));
    if (destination.back() == '/') {
      destination.pop_back();
      makeFolders(mine.chain, destination);
      return false;
    }
    const size_t slash = destination.rfind('/');
    makeFolders(mine.chain, std::string_view(destination).substr(0, slash));
    UniqueFd file = createFile(mine.chain.current(), destination.substr(slash + 1), item);
    const ByteSink write = [&](std::string_view piece) {
      if (slot.cancelled()) throw NoLongerNeeded{};
      // The reader holds each entry to its declared size; this holds the whole to the total.
      const std::uint64_t before = written.fetch_add(piece.size());
      if (before > limit || piece.size() > limit - before) {
        throw StowRestoreError::moreThanDeclared();
      }
      if (!files::writeAll(file.get(), piece)) throwFileError("write", item.path);
    };
    // A large file's checksum and writes run beside its decompression, when there are threads
    // to spare; on one thread everything runs in turn.
    if (threads > 1 && item.size >= kLargeFile) {
      mine.unpacker.extractBeside(item, write);
    } else {
      mine.unpacker.extract(item, write);
    }
    files::startSync(file.get());
    if (!file.close()) throwFileError("write", item.path);
    return true;
  };

  std::int64_t reported = 0;
  const auto report = [&](std::size_t finished) {
    const auto done = static_cast<std::int64_t>(finished);
    for (std::int64_t next = reported + 1; next <= done; ++next) {
      if (next % kProgressEvery != 0 && next != fileCount) continue;
      progress(
          static_cast<double>(next) / static_cast<double>(std::max<std::int64_t>(fileCount, 1)),
          std::to_string(next) + " of " + std::to_string(fileCount) + " files");
    }
    reported = done;
  };
  const auto large = [&](std::size_t index) { return selected[index]->size >= kLargeFile; };
  return static_cast<std::int64_t>(
      runInOrder(selected.size(), threads, kProgressEvery, unpackOne, report, large));
}

}  // namespace

// The staging is built in Staged-new, beside the one that waits, which stays whole until the
// new one is complete: staged.json, written last, names it by its token, and only then does it
// take Staged's place (a launch finishes that move when it is cut short: settleStaging).
void stageRestore(const StowLayout& layout, const fs::path& archive, StowRestoreScope scope,
                  unsigned threads, const StowProgress& progress) {
  // Ends (when it began) whatever happens below, failures included.
  platform::ScopedFileAccess access(archive);
  StowContainerLock lock = StowContainerLock::acquire(layout);
  // A swap cut short still needs its Staged folder: the next launch finishes it first.
  refuseWhileSwapUnfinished(layout);
  if (undoUnfinished(layout)) throwFileError(EBUSY, kUndoUnfinishedText);
  settleStaging(layout);
  UniqueFd work = files::openFolder(layout.workFolder);
  UniqueFd trash = files::makeFolder(work.get(), layout.trash.filename().string());
  // A staged.json that cannot be read names no staging: it goes, with the folder it stood for.
  if (readRecordFile<StowStagedRestore>(layout.stagedRecord).damaged) {
    moveToTrash(work.get(), layout.stagedRecord.filename().string(), trash.get());
    moveToTrash(work.get(), layout.staged.filename().string(), trash.get());
  }
  const std::string building = layout.stagedNew.filename().string();
  if (files::exists(work.get(), building)) moveToTrash(work.get(), building, trash.get());
  UniqueFd staging = files::makeFolder(work.get(), building);
  if (!staging) throwFileError("create the folder", layout.stagedNew);
  ScopeGuard trashOnFailure([&] { moveToTrash(work.get(), building, trash.get()); });
  StowZipReader reader(archive);
  StowManifest manifest = readManifest(reader);

  std::vector<const StowZipItem*> selected;
  selected.reserve(reader.items().size());
  std::int64_t fileCount = 0;
  for (const StowZipItem& item : reader.items()) {
    if (!startsWith(item.path, kPrefix)) continue;
    if (!inScope(std::string_view(item.path).substr(kPrefix.size()), scope)) continue;
    selected.push_back(&item);
    if (item.path.back() != '/') ++fileCount;
  }
  // An empty backup restores as "everything" on purpose: it empties the app.
  if (fileCount == 0 && scope != StowRestoreScope::everything) {
    throw StowRestoreError::nothingToRestore();
  }

  checkNames(selected);
  const std::uint64_t limit = checkRoom(layout.stagedNew, selected, manifest.totalBytes);
  std::int64_t done = unpack(reader, selected, layout.stagedNew, fileCount, limit,
                             std::clamp(threads, 1u, kMostThreads), progress);
  // Parts of a backup are partial by design; only a whole restore is held to the count.
  if (scope == StowRestoreScope::everything && manifest.fileCount > 0 &&
      done < manifest.fileCount) {
    throw StowRestoreError::incomplete(manifest.fileCount, done);
  }
  // Every file reaches the storage before the record that names them does.
  const StowStagedRestore record{manifest, scope, currentDate(), newStagingToken()};
  if (!UniqueFd(::openat(staging.get(), stagingMarker(*record.token).c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644))) {
    throwFileError("write", layout.stagedNew);
  }
  if (!files::syncVolume(staging.get())) throwFileError("write", layout.stagedNew);
  if (!writeRecord(record, layout.stagedRecord)) throwFileError("write", layout.stagedRecord);
  trashOnFailure.cancel();
  settleStaging(layout);
}

}  // namespace corvelstow
