#include "backup/backup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "archive/zip_writer.h"
#include "backup/tree_walk.h"
#include "base/checked.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/scope_guard.h"
#include "platform/platform.h"
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

// Walks one top folder. Only its own children are sorted and checked against `excluded`;
// deeper levels keep the directory's order. Links are never followed nor archived.
void walk(const fs::path& folder, const std::string& top, const std::set<std::string>& excluded,
          BackupPlan& plan) {
  plan.folders.push_back(top + "/");
  std::vector<TreeEntry> children = listFolder(folder);
  std::sort(children.begin(), children.end(),
            [](const TreeEntry& a, const TreeEntry& b) { return a.name < b.name; });
  for (const TreeEntry& child : children) {
    if (excluded.count(child.name)) continue;
    std::string relative = top + "/" + child.name;
    if (child.kind == TreeEntry::Kind::file) {
      plan.addFile(relative, child.size);
    } else if (child.kind == TreeEntry::Kind::folder) {
      plan.folders.push_back(relative + "/");
      walkTree(folder / child.name, relative, [&](const TreeEntry& entry) {
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

std::int64_t sizeOf(const fs::path& file) {
  struct stat info {};
  return ::stat(file.c_str(), &info) == 0 ? info.st_size : 0;
}

void writeArchive(StowZipWriter& writer, const fs::path& home, const StowManifest& manifest,
                  BackupPlan plan, const StowProgress& progress) {
  writer.add(encodeRecord(manifest), "manifest.json", currentDate());
  writer.addDirectory("container", currentDate());
  for (const auto& folder : plan.folders) {
    writer.addDirectory(std::string(kPrefix) + folder, currentDate());
  }
  const size_t n = plan.files.size();
  std::int64_t written = 0;
  for (size_t i = 0; i < n; ++i) {
    const fs::path location = files::join(home, plan.files[i]);
    writer.addFile(location, std::string(kPrefix) + plan.files[i]);
    written = checkedAdd(written, sizeOf(location));
    // Every eighth file and the last, so that many small files do not flood the panel.
    if ((i & 7) == 0 || i == n - 1) {
      double fraction = plan.totalBytes > 0
                            ? static_cast<double>(written) / static_cast<double>(plan.totalBytes)
                            : static_cast<double>(i + 1) / static_cast<double>(n);
      progress(fraction, std::to_string(i + 1) + " of " + std::to_string(n) + " files");
    }
  }
  // The central directory is built in memory next: give back the file list first.
  plan = BackupPlan();
  writer.finish();
}

}  // namespace

std::string exportFileName(std::string_view appName, StowDate createdAt) {
  std::string name;
  for (char c : appName) {
    if (std::string_view("/\\:?%*|\"<>").find(c) == std::string_view::npos) name += c;
  }
  size_t first = name.find_first_not_of(" \t");
  name = first == std::string::npos ? "" : name.substr(first, name.find_last_not_of(" \t") - first + 1);
  if (name.empty()) name = "App";

  CivilTime t = localCivilTime(createdAt);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, " %04d-%02d-%02d %02d%02d", t.year, t.month, t.day, t.hour,
                t.minute);
  return name + stamp + "." + std::string(kBackupExtension);
}

fs::path backUp(const StowLayout& layout, const StowHostApp& app, const std::string& deviceName,
                bool includeCaches, const StowProgress& progress) {
  // Settings reach Library/Preferences only when the store has written them out.
  platform::PreferencesStore(layout.preferences).synchronize();
  progress(0.0, "Looking through the app's data");

  std::set<std::string> libraryExcluded = excludedLibraryNames();
  if (!includeCaches) libraryExcluded.insert("Caches");
  BackupPlan plan;
  walk(layout.documents, "Documents", {}, plan);
  walk(layout.library, "Library", libraryExcluded, plan);
  const StowDate createdAt = currentDate();
  StowManifest manifest = manifestFor(app, deviceName, plan, createdAt);

  // Only the newest export is kept.
  files::removeAll(layout.exports);
  if (!files::createFolders(layout.exports)) throwFileError("create the folder", layout.exports);
  fs::path archive = layout.exports / exportFileName(app.name, createdAt);
  {
    StowZipWriter writer(archive);
    ScopeGuard removePartial([&] { ::unlink(archive.c_str()); });
    writeArchive(writer, layout.home, manifest, std::move(plan), progress);
    removePartial.cancel();
  }

  StowSettings settings = loadSettings(layout);
  settings.lastBackupAt = createdAt;
  saveSettings(layout, settings);
  return archive;
}

}  // namespace corvelstow
