// Times the launch-time swap of a Documents folder with N top-level entries against a bare loop
// of the same renames: the swap's own cost is what it adds to the rename system calls. Then the
// same swap cut short (before its first move, and half-way) and finished by a later launch.
//
//   swap_bench [ENTRIES]     (default 10000)

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

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
  double bare = 0, fresh = 0, resumedAtStart = 0, resumedHalfway = 0;
  std::string message;
};

static corvelstow::StowStagedRestore benchRecord() {
  corvelstow::StowStagedRestore record;
  record.manifest.appName = "Bench";
  record.scope = corvelstow::StowRestoreScope::documents;
  return record;
}

// The state a launch killed after `moved` entries of the swap leaves: the journal written, the
// aside folder made, the first `moved` live entries set aside.
static void interrupt(const StowLayout& layout, int moved) {
  fs::create_directories(layout.previousNew / "Documents");
  corvelstow::StowSwapJournal journal;
  journal.record = benchRecord();
  journal.step = corvelstow::StowSwapStep::documentsAside;
  corvelstow::writeRecord(journal, layout.swapJournal);
  int done = 0;
  for (const auto& entry : fs::directory_iterator(layout.documents)) {
    if (done++ == moved) break;
    std::rename(entry.path().c_str(),
                (layout.previousNew / "Documents" / entry.path().filename()).c_str());
  }
}

static Timings measure(int entries) {
  const fs::path root = fs::temp_directory_path() / ("swap-bench-" + std::to_string(::getpid()));
  StowLayout layout = StowLayout::forRoots(root / "home", root / "tmp");
  Timings timings;
  auto prepare = [&] {
    fs::remove_all(root);
    fill(layout.documents, entries, "live-");
    fill(layout.staged / "Documents", entries, "backup-");
  };

  // A bare rename loop: live entries aside, staged entries in.
  prepare();
  fs::create_directories(root / "aside");
  auto start = Clock::now();
  for (const auto& entry : fs::directory_iterator(layout.documents)) {
    std::rename(entry.path().c_str(), (root / "aside" / entry.path().filename()).c_str());
  }
  for (const auto& entry : fs::directory_iterator(layout.staged / "Documents")) {
    std::rename(entry.path().c_str(), (layout.documents / entry.path().filename()).c_str());
  }
  timings.bare = seconds(start);

  // The swap, retaining what it replaced.
  prepare();
  start = Clock::now();
  corvelstow::performSwap(layout, "com.example.bench", corvelstow::StowSwapKind::restore,
                          benchRecord());
  timings.fresh = seconds(start);
  timings.message = corvelstow::readRecord<corvelstow::StowOutcome>(layout.outcomeRecord)->message;

  // The same swap finished by a later launch, cut short before its first move and half-way.
  for (auto [moved, result] :
       {std::pair{0, &timings.resumedAtStart}, std::pair{entries / 2, &timings.resumedHalfway}}) {
    prepare();
    interrupt(layout, moved);
    start = Clock::now();
    corvelstow::resumeSwap(layout, "com.example.bench");
    *result = seconds(start);
  }
  fs::remove_all(root);
  return timings;
}

int main(int argc, char** argv) {
  const int entries = argc > 1 ? std::atoi(argv[1]) : 10000;
  Timings best{1e9, 1e9, 1e9, 1e9, ""};
  for (int round = 0; round < 3; ++round) {  // the best of three, so that caches are warm
    Timings t = measure(entries);
    best = {std::min(best.bare, t.bare), std::min(best.fresh, t.fresh),
            std::min(best.resumedAtStart, t.resumedAtStart),
            std::min(best.resumedHalfway, t.resumedHalfway), t.message};
  }
  std::printf(
      "%d entries each way: bare rename loop %.1f ms, swap %.1f ms (%.2fx); %s\n"
      "resumed before its first move %.1f ms, resumed half-way %.1f ms\n",
      entries, best.bare * 1e3, best.fresh * 1e3, best.fresh / best.bare, best.message.c_str(),
      best.resumedAtStart * 1e3, best.resumedHalfway * 1e3);
  return 0;
}
