// Times the launch-time swap of a Documents folder with N top-level entries against a bare loop
// of the same renames: the swap's own cost is what it adds to the rename system calls.
//
//   swap_bench [ENTRIES]     (default 10000)

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <algorithm>
#include <unistd.h>

#include "startup/swap.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using corvelstow::StowLayout;

static void fill(const fs::path& folder, int entries, const char* prefix) {
  fs::create_directories(folder);
  for (int i = 0; i < entries; ++i) {
    std::ofstream(folder / (prefix + std::to_string(i))) << i;
  }
}

static double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Timings {
  double bare = 0, swap = 0;
  std::string message;
};

static Timings measure(int entries) {
  const fs::path root = fs::temp_directory_path() / ("swap-bench-" + std::to_string(::getpid()));
  StowLayout layout = StowLayout::forRoots(root / "home", root / "tmp");
  Timings timings;

  // A bare rename loop: live entries aside, staged entries in.
  fill(layout.documents, entries, "live-");
  fill(layout.staged / "Documents", entries, "backup-");
  fs::create_directories(root / "aside");
  auto start = Clock::now();
  for (const auto& entry : fs::directory_iterator(layout.documents)) {
    std::rename(entry.path().c_str(), (root / "aside" / entry.path().filename()).c_str());
  }
  for (const auto& entry : fs::directory_iterator(layout.staged / "Documents")) {
    std::rename(entry.path().c_str(), (layout.documents / entry.path().filename()).c_str());
  }
  timings.bare = seconds(start);
  fs::remove_all(root);

  // The swap, retaining what it replaced.
  fill(layout.documents, entries, "live-");
  fill(layout.staged / "Documents", entries, "backup-");
  corvelstow::StowStagedRestore record;
  record.manifest.appName = "Bench";
  record.scope = corvelstow::StowRestoreScope::documents;
  start = Clock::now();
  auto outcome = corvelstow::performSwap(layout, "com.example.bench", record, layout.staged, true);
  timings.swap = seconds(start);
  timings.message = outcome.message;
  fs::remove_all(root);
  return timings;
}

int main(int argc, char** argv) {
  const int entries = argc > 1 ? std::atoi(argv[1]) : 10000;
  Timings best{1e9, 1e9, ""};
  for (int round = 0; round < 3; ++round) {  // the best of three, so that caches are warm
    Timings t = measure(entries);
    best = {std::min(best.bare, t.bare), std::min(best.swap, t.swap), t.message};
  }
  std::printf("%d entries each way: bare rename loop %.1f ms, swap %.1f ms (%.2fx); %s\n",
              entries, best.bare * 1e3, best.swap * 1e3, best.swap / best.bare,
              best.message.c_str());
  return 0;
}
