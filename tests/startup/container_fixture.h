#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "platform/platform.h"
#include "store/layout.h"
#include "store/records.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow::testing {

using Tree = std::map<std::string, std::string>;

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

  /// A backup archive of what stage() stages, as `restore` takes it; no staging is left.
  fs::path backupArchive(StowRestoreScope scope, bool withCaches = false);

  /// Launches the example host through `corvelstow run` with this container and bundle, and
  /// with the fault seam preloaded when `environment` sets anything.
  ProcessResult launch(const Environment& environment = {});

  /// Runs `corvelstow` on this container and bundle, exports going to folder/tmp, and with the
  /// fault seam preloaded when `environment` sets anything.
  ProcessResult command(const std::vector<std::string>& arguments,
                        const Environment& environment = {});

  std::optional<StowOutcome> outcome() { return readRecord<StowOutcome>(layout.outcomeRecord); }

  /// The app's files below `root` (the container, or Previous) by path, without the work folder,
  /// a settings domain as its "key=value" lines.
  Tree data(const fs::path& root);

  /// Copies the container to `copy`, or back from it.
  void save(const fs::path& copy);
  void reset(const fs::path& copy);

  /// Everything in the container by path, with the times that differ from run to run (when an
  /// outcome was applied, when Previous was kept) left out, and without the lock file and the
  /// trash: two containers that went through the same operations have equal states.
  Tree state();

  /// The settings domain stored in `file`, or an empty dictionary.
  static PlistDictionary domainIn(const fs::path& file);

  /// A one-key settings domain.
  static PlistDictionary domain(const std::string& key, const std::string& value);

  static void writeDomain(const fs::path& file, const PlistDictionary& values);
};

}  // namespace corvelstow::testing
