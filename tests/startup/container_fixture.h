#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "platform/platform.h"
#include "store/layout.h"
#include "store/records.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow::testing {

/// A live app container with documents, library data, caches, system folders and two settings
/// domains, and a backup of another state of it ready to be staged.
class ContainerFixture : public ::testing::Test {
 protected:
  static constexpr const char* kHostID = "com.example.notes";

  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  fs::path bundle = folder / "Notes.app";

  void SetUp() override;

  /// Writes Staged and staged.json, as a staging does: a backup of `sourceID` for `scope`.
  void stage(StowRestoreScope scope, const std::string& sourceID = kHostID,
             bool withCaches = false);

  /// Launches the example host through `corvelstow run` with this container and bundle.
  ProcessResult launch(const std::map<std::string, std::string>& environment = {});

  /// The same launch, started and left running.
  std::unique_ptr<ChildProcess> startLaunch(
      const std::map<std::string, std::string>& environment = {});

  /// Everything in the container by path, with the times that differ from run to run (when an
  /// outcome was applied, when Previous was kept) left out, and without the lock file and the
  /// trash: two containers that went through the same operations have equal states.
  std::map<std::string, std::string> state();

  /// The settings domain stored in `file`, or an empty dictionary.
  static PlistDictionary domainIn(const fs::path& file);

  /// A one-key settings domain.
  static PlistDictionary domain(const std::string& key, const std::string& value);

  static void writeDomain(const fs::path& file, const PlistDictionary& values);
};

}  // namespace corvelstow::testing
