#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "manual_dispatcher.h"
#include "store/host_app.h"
#include "store/layout.h"
#include "store/records.h"
#include "support/temp_folder.h"
#include "ui/model.h"

namespace corvelstow::testing {

/// Stands in for UIKit: records what the model asked of the app, and when on the manual clock.
class RecordingAppControl final : public platform::AppControl {
 public:
  explicit RecordingAppControl(const ManualDispatcher& clock) : clock_(clock) {}

  void impactHaptic() override { calls.emplace_back("haptic", clock_.now()); }
  void suspend() override { calls.emplace_back("suspend", clock_.now()); }
  void terminate() override { calls.emplace_back("terminate", clock_.now()); }

  std::vector<std::pair<std::string, double>> calls;

 private:
  const ManualDispatcher& clock_;
};

/// A model over a temporary container, driven by the manual clock, with every published change
/// recorded.
class ModelFixture : public ::testing::Test {
 protected:
  struct Change {
    StowModel::Field field;
    StowAnimation animation;
  };

  static constexpr const char* kHostID = "com.example.notes";

  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  StowHostApp app{kHostID, "Notes", "1.2", std::nullopt};
  ManualDispatcher dispatcher;
  RecordingAppControl control{dispatcher};
  std::shared_ptr<StowModel> model;
  std::vector<Change> changes;
  std::vector<StowModel::Work> workSeen;  // every value work took, in order

  void SetUp() override;

  /// A fresh model on the same container, as at the next launch.
  void launch();

  /// The pill changes recorded so far, with their animations.
  std::vector<StowAnimation> pillAnimations() const;

  /// A real backup of a container holding `files` (path → contents) made by `maker`, copied to
  /// `name` in the test folder.
  fs::path makeBackup(const StowHostApp& maker, const std::map<std::string, std::string>& files,
                      const std::string& name = "backup.corvelappdata");

  /// A restore outcome as the launch-time swap writes it.
  static StowOutcome outcome(bool succeeded, bool announced);

  /// A restore record (staged.json, previous.json) of a backup made by `appName`.
  static StowStagedRestore stagedRestore(const std::string& appName, StowRestoreScope scope);
};

}  // namespace corvelstow::testing
