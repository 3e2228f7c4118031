#include "container_fixture.h"

#include "archive/zip_writer.h"

namespace corvelstow::testing {

void ContainerFixture::SetUp() {
  writeFile(layout.documents / "a.txt", "live a");
  writeFile(layout.documents / "old.txt", "live old");
  writeFile(layout.documents / "Folder/x.txt", "live x");
  writeFile(layout.documents / ".hidden", "live hidden");
  writeFile(layout.library / "Application Support/db", "live db");
  writeFile(layout.library / "Caches/c.bin", "live cache");
  writeFile(layout.library / "SplashBoard/s", "splash");
  writeFile(layout.library / "Saved Application State/st", "state");
  writeDomain(layout.preferences / "com.example.notes.plist", domain("theme", "live"));
  writeDomain(layout.preferences / "com.live.only.plist", domain("k", "live only"));
  writeFile(bundle / "Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
            "<key>CFBundleIdentifier</key><string>com.example.notes</string>"
            "<key>CFBundleName</key><string>Notes</string></dict></plist>");
}

void ContainerFixture::stage(StowRestoreScope scope, const std::string& sourceID, bool withCaches) {
  const fs::path& staged = layout.staged;
  writeFile(staged / "Documents/a.txt", "backup a");
  writeFile(staged / "Documents/new.txt", "backup new");
  writeFile(staged / "Library/Application Support/db", "backup db");
  writeFile(staged / "Library/SplashBoard/s2", "backup splash");
  writeDomain(staged / "Library/Preferences" / (sourceID + ".plist"), domain("theme", "backup"));
  writeDomain(staged / "Library/Preferences/group.shared.plist", domain("g", "backup group"));
  writeFile(staged / "Library/Preferences/notes.txt", "not a settings file");
  if (withCaches) writeFile(staged / "Library/Caches/c2.bin", "backup cache");

  StowStagedRestore record;
  record.manifest.bundleIdentifier = sourceID;
  record.manifest.appName = "Notes";
  record.manifest.createdAt = *parseInternetDate("2024-05-01T09:30:00Z");
  record.manifest.includedPaths = {"Documents", "Library"};
  record.manifest.fileCount = 5;
  record.scope = scope;
  record.stagedAt = currentDate();
  record.token = newStagingToken();
  writeFile(staged / stagingMarker(*record.token), "");
  writeRecord(record, layout.stagedRecord);
}

fs::path ContainerFixture::backupArchive(StowRestoreScope scope, bool withCaches) {
  stage(scope, kHostID, withCaches);
  StowStagedRestore record = *readRecord<StowStagedRestore>(layout.stagedRecord);
  const fs::path archive = folder / (withCaches ? "caches.corvelappdata" : "backup.corvelappdata");
  StowZipWriter writer(archive);
  Tree files = readStagedTree(layout.staged);
  std::erase_if(files, [](const auto& entry) { return entry.second == "/"; });
  record.manifest.fileCount = static_cast<std::int64_t>(files.size());
  writer.add(encodeRecord(record.manifest), "manifest.json", currentDate());
  for (const auto& [path, contents] : files)
    writer.add(contents, "container/" + path, currentDate());
  writer.finish();
  fs::remove_all(layout.staged);
  fs::remove(layout.stagedRecord);
  return archive;
}

ProcessResult ContainerFixture::launch(const Environment& environment) {
  return command({"run", "--", CORVELSTOW_EXAMPLE_HOST}, environment);
}

ProcessResult ContainerFixture::command(const std::vector<std::string>& arguments,
                                        const Environment& environment) {
  Environment all{{"CORVELSTOW_HOME", layout.home.string()},
                  {"CORVELSTOW_BUNDLE", bundle.string()},
                  {"TMPDIR", (folder / "tmp").string()}};
  if (!environment.empty()) all["LD_PRELOAD"] = CORVELSTOW_FAULT_SEAM;
  all.insert(environment.begin(), environment.end());
  fs::create_directories(folder / "tmp");
  return runCommand(arguments, all);
}

Tree ContainerFixture::data(const fs::path& root) {
  Tree data;
  for (auto [path, contents] : readTree(root)) {
    if (contents == "/" || path.starts_with("Library/CorvelStow") || path == "kept.json") continue;
    if (path.starts_with("Library/Preferences/") && path.ends_with(".plist")) {
      if (auto domain = platform::parsePropertyList(contents);
          domain && domain->as<PlistDictionary>()) {
        contents.clear();
        for (const auto& [key, value] : *domain->as<PlistDictionary>()) {
          contents += key + "=" + (value.as<std::string>() ? *value.as<std::string>() : "?") + "\n";
        }
      }
    }
    data[path] = contents;
  }
  return data;
}

void ContainerFixture::save(const fs::path& copy) {
  fs::remove_all(copy);
  fs::copy(layout.home, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

void ContainerFixture::reset(const fs::path& copy) {
  fs::remove_all(layout.home);
  fs::copy(copy, layout.home, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

Tree ContainerFixture::state() {
  auto tree = readTree(layout.home);
  auto relative = [&](const fs::path& path) {
    return path.lexically_relative(layout.home).string();
  };
  tree.erase(relative(layout.lockFile));
  std::erase_if(tree,
                [&](const auto& entry) { return entry.first.starts_with(relative(layout.trash)); });
  if (auto outcome = readRecord<StowOutcome>(layout.outcomeRecord)) {
    outcome->appliedAt = {};
    tree[relative(layout.outcomeRecord)] = encodeRecord(*outcome);
  }
  if (auto previous = readRecord<StowStagedRestore>(layout.previousRecord)) {
    previous->stagedAt = {};
    tree[relative(layout.previousRecord)] = encodeRecord(*previous);
  }
  return tree;
}

PlistDictionary ContainerFixture::domainIn(const fs::path& file) {
  auto parsed = platform::parsePropertyList(readFile(file));
  if (!parsed || !parsed->as<PlistDictionary>()) return {};
  return *parsed->as<PlistDictionary>();
}

PlistDictionary ContainerFixture::domain(const std::string& key, const std::string& value) {
  return {{key, PlistValue{value}}};
}

void ContainerFixture::writeDomain(const fs::path& file, const PlistDictionary& values) {
  writeFile(file, *platform::encodeBinaryPropertyList(PlistValue{values}));
}

}  // namespace corvelstow::testing
