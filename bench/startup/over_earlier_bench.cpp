// Times a launch that applies a restore over an earlier one: FILES files in FOLDERS folders live
// in Documents, as many staged, as many kept in Previous by the earlier restore. The launch-time
// work (runLaunchTimeWork, what runs before the app's main) against a bare loop of the renames it
// is made of: each live folder aside, each staged folder in, Previous out of the way.
//
//   over_earlier_bench [FILES] [FOLDERS]     (default 100000 100)

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "startup/startup.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

static void fill(const fs::path& documents, int files, int folders) {
  for (int folder = 0; folder < folders; ++folder) {
    const fs::path inside = documents / ("folder-" + std::to_string(folder));
    fs::create_directories(inside);
    for (int file = 0; file < files / folders; ++file) {
      std::ofstream(inside / ("file-" + std::to_string(file))) << file;
    }
  }
}

// A record as staging and the earlier restore write it (written as text, so that the same
// bench builds against engines that read more or fewer keys).
static void writeRecord(const fs::path& file, const std::string& token) {
  std::ofstream(file) << R"({"manifest": {"appName": "Bench", "bundleIdentifier": "com.example.bench",
    "createdAt": "2024-05-01T09:30:00Z", "fileCount": 0, "includedPaths": ["Documents"],
    "schemaVersion": 1, "totalBytes": 0}, "scope": "documents",
    "stagedAt": "2024-05-01T09:30:00Z", "token": ")"
                      << token << "\"}\n";
}

static double milliseconds(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int main(int argc, char** argv) {
  const int files = argc > 1 ? std::atoi(argv[1]) : 100000;
  const int folders = argc > 2 ? std::atoi(argv[2]) : 100;
  const fs::path root = fs::temp_directory_path() / "over-earlier-bench";
  const auto layout = corvelstow::StowLayout::forRoots(root / "home", root / "tmp");
  const auto prepare = [&] {
    fs::remove_all(root);
    fill(layout.documents, files, folders);
    fill(layout.staged / "Documents", files, folders);
    fill(layout.previous / "Documents", files, folders);
    std::ofstream(layout.staged / ".staging-0123456789abcdef0123456789abcdef");
    writeRecord(layout.stagedRecord, "0123456789abcdef0123456789abcdef");
    writeRecord(layout.previousRecord, "fedcba9876543210fedcba9876543210");
    // The data was written long before the app opens: its first sync must not pay for it.
    ::sync();
  };

  double bare = 1e9, launch = 1e9;
  for (int round = 0; round < 2; ++round) {
    prepare();
    fs::create_directories(root / "aside");
    auto start = Clock::now();
    for (const auto& entry : fs::directory_iterator(layout.documents)) {
      fs::rename(entry.path(), root / "aside" / entry.path().filename());
    }
    for (const auto& entry : fs::directory_iterator(layout.staged / "Documents")) {
      fs::rename(entry.path(), layout.documents / entry.path().filename());
    }
    fs::rename(layout.previous, root / "old previous");
    bare = std::min(bare, milliseconds(start));

    prepare();
    start = Clock::now();
    corvelstow::runLaunchTimeWork(layout);
    launch = std::min(launch, milliseconds(start));
    if (!fs::exists(layout.previous / "Documents" / "folder-0" / "file-0") ||
        fs::exists(layout.stagedRecord)) {
      std::fprintf(stderr, "the restore was not applied\n");
      return 1;
    }
  }
  fs::remove_all(root);
  std::printf(
      "%d files in %d folders live, staged and kept: bare rename loop %.1f ms, launch-time work "
      "%.1f ms\n",
      files, folders, bare, launch);
  return 0;
}
