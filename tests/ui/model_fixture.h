#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backup/backup.h"
#include "platform/dispatcher.h"
#include "store/host_app.h"
#include "store/layout.h"
#include "store/records.h"
#include "support/temp_folder.h"
#include "ui/model.h"

namespace corvelstow::testing {

/// A dispatcher whose clock moves and whose queues run only when a test says so, all on the
/// test's own thread: "a second pill 5 s into a 10 s pill" takes no time at all.
class ManualDispatcher final : public platform::Dispatcher {
 public:
  void onMain(std::function<void()> work) override { main_.push_back(std::move(work)); }
  void inBackground(std::function<void()> work) override { background_.push_back(std::move(work)); }
  std::shared_ptr<platform::DelayedTask> after(double seconds,
                                               std::function<void()> action) override {
    auto task = std::make_shared<platform::DelayedTask>(std::move(action));
    timers_.emplace(now_ + seconds, task);
    return task;
  }

  double now() const { return now_; }
  std::size_t backgroundWaiting() const { return background_.size(); }

  /// Runs the background queue one item at a time, each followed by the main queue, until both
  /// are empty. The clock does not move.
  void settle() {
    for (runAll(main_); !background_.empty(); runAll(main_)) runFront(background_);
  }

  /// Drops everything queued and every timer, unrun.
  void drop() {
    main_.clear();
    background_.clear();
    timers_.clear();
  }

  /// Moves the clock forward by `seconds`; each delayed task due by then runs at its due time,
  /// in order, followed by the main queue.
  void advance(double seconds) {
    const double until = now_ + seconds;
    for (runAll(main_); !timers_.empty() && timers_.begin()->first <= until; runAll(main_)) {
      now_ = timers_.begin()->first;
      auto task = std::move(timers_.begin()->second);
      timers_.erase(timers_.begin());
      task->fire();
    }
    now_ = until;
  }

 private:
  using Queue = std::deque<std::function<void()>>;

  static void runFront(Queue& queue) {
    auto work = std::move(queue.front());
    queue.pop_front();
    work();
  }
  // Including what its items add to it.
  static void runAll(Queue& queue) {
    while (!queue.empty()) runFront(queue);
  }

  double now_ = 0;
  Queue main_, background_;
  std::multimap<double, std::shared_ptr<platform::DelayedTask>> timers_;
};

/// What the model asked of the app, with the manual clock's time of each call.
using Calls = std::vector<std::pair<std::string, double>>;

/// Stands in for UIKit: records what the model asked of the app ("begin {name}" and "end
/// {name}" for background time), and lets a test take that time back or send the app to the
/// background.
class RecordingAppControl final : public platform::AppControl {
 public:
  explicit RecordingAppControl(const ManualDispatcher& clock) : clock_(clock) {}

  void impactHaptic() override { record("haptic"); }
  void suspend() override { record("suspend"); }
  void terminate() override { record("terminate"); }
  void keepScreenAwake(bool awake) override { record(awake ? "awake" : "may sleep"); }
  void whenInBackground(std::function<void()> then) override { inBackground_ = std::move(then); }
  std::unique_ptr<platform::BackgroundTime> beginBackgroundTime(
      const std::string& name, std::function<void()> expired) override {
    record("begin " + name);
    expire_ = std::move(expired);
    return std::make_unique<Time>(*this, name);
  }

  /// The system takes back the background time last begun.
  void expire() { std::exchange(expire_, nullptr)(); }
  /// The app has reached the background since the model asked to be told.
  void enterBackground() { std::exchange(inBackground_, nullptr)(); }
  /// Forgets what it was handed, then what it recorded.
  void reset() {
    expire_ = inBackground_ = nullptr;
    calls.clear();
  }

  Calls calls;

 private:
  struct Time final : platform::BackgroundTime {
    Time(RecordingAppControl& control, std::string name) : control(control), name(name) {}
    ~Time() override { control.record("end " + name); }
    RecordingAppControl& control;
    std::string name;
  };

  void record(const std::string& call) { calls.emplace_back(call, clock_.now()); }

  const ManualDispatcher& clock_;
  std::function<void()> expire_, inBackground_;
};

/// A restore outcome as the launch-time swap writes it.
inline StowOutcome outcome(bool succeeded, bool announced) {
  return {succeeded,
          succeeded ? "Restored everything from Notes." : "Could not move aside Documents",
          "Notes",
          *parseInternetDate("2024-05-01T09:30:00Z"),
          *parseInternetDate("2024-05-02T10:00:00Z"),
          succeeded,
          announced};
}

/// A restore record (staged.json, previous.json) of a backup made by `appName`.
inline StowStagedRestore stagedRestore(const std::string& appName, StowRestoreScope scope) {
  StowManifest manifest;
  manifest.bundleIdentifier = "com.example.notes";
  manifest.appName = appName;
  manifest.createdAt = *parseInternetDate("2024-05-01T09:30:00Z");
  manifest.includedPaths = {"Documents", "Library"};
  return {manifest, scope, *parseInternetDate("2024-05-02T08:00:00Z"), std::nullopt};
}

/// A model over a temporary container, driven by the manual clock, with every published change
/// recorded.
class ModelFixture : public ::testing::Test {
 protected:
  TempFolder folder;
  StowLayout layout = StowLayout::forRoots(folder / "home", folder / "tmp");
  StowHostApp app{"com.example.notes", "Notes", "1.2", std::nullopt};
  ManualDispatcher dispatcher;
  RecordingAppControl control{dispatcher};
  std::shared_ptr<StowModel> model;
  std::size_t changes = 0;                    // every published change
  std::vector<StowAnimation> pillAnimations;  // the pill's changes, in order
  std::vector<StowModel::Work> workSeen;      // every value work took, in order
  int observer = 0;                           // the token of the observer that records them

  void SetUp() override {
    fs::create_directories(layout.documents);
    fs::create_directories(layout.library);
    launch();
  }

  // What the queues still hold may hold background time, which records to the control: it goes
  // before the control does.
  void TearDown() override { dispatcher.drop(); }

  /// A fresh model on the same container, as at the next launch, with nothing queued or
  /// recorded before it.
  void launch() {
    model.reset();
    dispatcher.drop();
    control.reset();
    changes = 0;
    pillAnimations.clear();
    workSeen.clear();
    model = StowModel::create({layout, app, dispatcher, control});
    observer = model->observe([this](StowModel::Field field, const StowAnimation& animation) {
      ++changes;
      if (field == StowModel::Field::pill) pillAnimations.push_back(animation);
      if (field == StowModel::Field::work) workSeen.push_back(model->work());
    });
  }

  /// A real backup made by `maker` of a container holding `files` (path → contents).
  fs::path makeBackup(const StowHostApp& maker, const std::map<std::string, std::string>& files) {
    static int made = 0;
    const std::string name = "source" + std::to_string(++made);
    StowLayout source = StowLayout::forRoots(folder / name, folder / (name + "-tmp"));
    fs::create_directories(source.documents);
    fs::create_directories(source.library);
    for (const auto& [path, contents] : files) writeFile(source.home / path, contents);
    return backUp(source, maker, "Ada's iPhone", false, 2, [](double, const std::string&) {})
        .archive;
  }
};

}  // namespace corvelstow::testing
