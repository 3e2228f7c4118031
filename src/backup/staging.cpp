#include "backup/staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "archive/zip_error.h"
#include "archive/zip_reader.h"
#include "backup/inspection.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "base/unique_fd.h"
#include "platform/platform.h"
#include "startup/startup.h"

namespace corvelstow {
namespace {

constexpr std::string_view kPrefix = "container/";

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

/// Creates every folder of `path` with mode 0755; one that exists already is fine.
void makeFolders(const std::string& path) {
  std::string prefix = path.front() == '/' ? "/" : "";
  for (size_t start = 0; start < path.size();) {
    size_t end = std::min(path.find('/', start), path.size());
    std::string_view piece(path.data() + start, end - start);
    start = end + 1;
    if (piece.empty()) continue;
    if (!prefix.empty() && prefix.back() != '/') prefix += '/';
    prefix += piece;
    if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      throwFileError(errno, "Could not create the folder " + std::string(piece) + ".");
    }
  }
}

UniqueFd createFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd) throwFileError(errno, "Could not create " + fs::path(path).filename().string() + ".");
  return fd;
}

/// Unpacks the selected entries below `staged`; returns how many files came out.
std::int64_t unpack(StowZipReader& reader, const std::vector<const StowZipItem*>& selected,
                    const std::string& staged, std::int64_t fileCount,
                    const StowProgress& progress) {
  std::string base = staged.back() == '/' ? staged : staged + "/";
  std::string lastFolder;  // the folder made for the previous file: most files share one
  std::int64_t done = 0;
  for (const StowZipItem* item : selected) {
    std::string_view relative = std::string_view(item->path).substr(kPrefix.size());
    // An entry may only land inside the staging folder.
    if (!isSafeEntryPath(relative)) throw StowZipError::unsafePath(item->path);
    std::string destination = base + std::string(relative);
    if (destination.back() == '/') {
      destination.pop_back();
      makeFolders(destination);
      continue;
    }
    std::string folder = destination.substr(0, destination.rfind('/'));
    if (folder != lastFolder) {
      makeFolders(folder);
      lastFolder = folder;
    }
    UniqueFd file = createFile(destination);
    reader.extract(*item, file.get());
    if (!file.close()) throwFileError("write", destination);
    ++done;
    if (done % 8 == 0 || done == fileCount) {
      progress(static_cast<double>(done) / static_cast<double>(std::max<std::int64_t>(fileCount, 1)),
               std::to_string(done) + " of " + std::to_string(fileCount) + " files");
    }
  }
  return done;
}

}  // namespace

void stageRestore(const StowLayout& layout, const fs::path& archive, StowRestoreScope scope,
                  const StowProgress& progress) {
  // Ends (when it began) whatever happens below, failures included.
  platform::ScopedFileAccess access(archive);
  clearStaging(layout);
  if (!files::createFolders(layout.staged)) throwFileError("create the folder", layout.staged);
  StowZipReader reader(archive);
  StowManifest manifest = readManifest(reader);

  std::vector<const StowZipItem*> selected;
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

  ScopeGuard clearOnFailure([&] { clearStaging(layout); });
  std::int64_t done = unpack(reader, selected, layout.staged.string(), fileCount, progress);
  // Parts of a backup are partial by design; only a whole restore is held to the count.
  if (scope == StowRestoreScope::everything && manifest.fileCount > 0 &&
      done < manifest.fileCount) {
    throw StowRestoreError::incomplete(manifest.fileCount, done);
  }
  writeRecord(StowStagedRestore{manifest, scope, currentDate()}, layout.stagedRecord);
  clearOnFailure.cancel();
}

}  // namespace corvelstow
