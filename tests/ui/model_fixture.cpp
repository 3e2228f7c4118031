#include "model_fixture.h"

#include "backup/backup.h"

namespace corvelstow::testing {

void ModelFixture::SetUp() {
  fs::create_directories(layout.documents);
  fs::create_directories(layout.library);
  launch();
}

void ModelFixture::launch() {
  changes.clear();
  workSeen.clear();
  model = StowModel::create({layout, app, dispatcher, control});
  model->observe([this](StowModel::Field field, const StowAnimation& animation) {
    changes.push_back({field, animation});
    if (field == StowModel::Field::work) workSeen.push_back(model->work());
  });
}

std::vector<StowAnimation> ModelFixture::pillAnimations() const {
  std::vector<StowAnimation> animations;
  for (const Change& change : changes) {
    if (change.field == StowModel::Field::pill) animations.push_back(change.animation);
  }
  return animations;
}

fs::path ModelFixture::makeBackup(const StowHostApp& maker,
                                  const std::map<std::string, std::string>& files,
                                  const std::string& name) {
  StowLayout source = StowLayout::forRoots(folder / ("source-" + name), folder / "source-tmp");
  fs::create_directories(source.documents);
  fs::create_directories(source.library);
  for (const auto& [path, contents] : files) writeFile(source.home / path, contents);
  fs::path archive = backUp(source, maker, false, [](double, const std::string&) {});
  fs::path kept = folder / name;
  fs::copy_file(archive, kept);
  return kept;
}

StowOutcome ModelFixture::outcome(bool succeeded, bool announced) {
  return {succeeded,
          succeeded ? "Restored everything from Notes." : "Could not move aside Documents",
          "Notes",
          *parseInternetDate("2024-05-01T09:30:00Z"),
          *parseInternetDate("2024-05-02T10:00:00Z"),
          succeeded,
          announced};
}

StowStagedRestore ModelFixture::stagedRestore(const std::string& appName, StowRestoreScope scope) {
  StowManifest manifest;
  manifest.bundleIdentifier = "com.example.notes";
  manifest.appName = appName;
  manifest.createdAt = *parseInternetDate("2024-05-01T09:30:00Z");
  manifest.includedPaths = {"Documents", "Library"};
  manifest.fileCount = 3;
  manifest.totalBytes = 1200;
  return {manifest, scope, *parseInternetDate("2024-05-02T08:00:00Z")};
}

}  // namespace corvelstow::testing
