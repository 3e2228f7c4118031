#include "ui/model.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <random>

#include "backup/backup.h"
#include "backup/inspection.h"
#include "backup/staging.h"
#include "base/file_error.h"
#include "base/files.h"
#include "platform/platform.h"
#include "startup/undo.h"

namespace corvelstow {

namespace {

constexpr const char* kBackingUp = "Backing up";
constexpr const char* kPreparing = "Preparing the restore";
constexpr const char* kRestoreWaiting = "A restore is waiting. Close and reopen the app.";

}  // namespace

std::string makeUuid() {
  std::random_device device;
  std::array<std::uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    std::uint32_t word = device();
    for (std::size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0f];
  }
  return text;
}

std::shared_ptr<StowModel> StowModel::create(Environment environment) {
  return std::shared_ptr<StowModel>(new StowModel(std::move(environment)));
}

StowModel::StowModel(Environment environment)
    : layout_(std::move(environment.layout)),
      app_(std::move(environment.app)),
      // Read here, on the main queue: the platform's answer may not be had from the backup's.
      deviceName_(platform::deviceName()),
      dispatcher_(environment.dispatcher),
      appControl_(environment.appControl) {
  settings_ = loadSettings(layout_);
  pending_ = readRecord<StowStagedRestore>(layout_.stagedRecord);
  previous_ = readPreviousRestore(layout_);
  outcome_ = readRecord<StowOutcome>(layout_.outcomeRecord);
}

// Observation

int StowModel::observe(Observer observer) {
  observers_.emplace_back(nextToken_, std::move(observer));
  return nextToken_++;
}

void StowModel::stopObserving(int token) {
  std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

void StowModel::notify(Field field, const StowAnimation& animation) {
  if (field == Field::work || field == Field::panelShown) keepScreenAwakeWhileWatched();
  // A copy, so that an observer may come or go while others are told.
  auto observers = observers_;
  for (const auto& [token, observer] : observers) observer(field, animation);
}

template <typename T>
void StowModel::publish(T& field, T value, Field name, const StowAnimation& animation) {
  if (field == value) return;
  field = std::move(value);
  notify(name, animation);
}

// The pill

void StowModel::setPill(Pill pill, const StowAnimation& animation) {
  publish(pill_, std::move(pill), Field::pill, animation);
}

void StowModel::cancelHide() {
  if (hideTask_) hideTask_->cancel();
  hideTask_.reset();
}

void StowModel::showPill(Pill pill, double seconds) {
  cancelHide();
  pillSeconds_ = seconds;
  setPill(std::move(pill), StowAnimation::spring());
  if (!voiceOverRunning_) scheduleHide();
}

void StowModel::scheduleHide() {
  // The task holds the model weakly: a model that is gone by then is left alone.
  std::weak_ptr<StowModel> weak = weak_from_this();
  hideTask_ = dispatcher_.after(pillSeconds_, [weak] {
    if (auto model = weak.lock()) {
      model->hideTask_.reset();
      model->setPill(Pill::none(), StowAnimation::easeInOut());
    }
  });
}

void StowModel::dismissPill() {
  cancelHide();
  setPill(Pill::none(), StowAnimation::easeInOut());
}

void StowModel::setVoiceOverRunning(bool running) {
  if (running == voiceOverRunning_) return;
  voiceOverRunning_ = running;
  cancelHide();
  if (!running && !pill_.isNone()) scheduleHide();
}

void StowModel::greet() {
  if (auto outcome = readRecord<StowOutcome>(layout_.outcomeRecord);
      outcome && !outcome->announced) {
    // Marked before it shows, so that it is announced exactly once.
    outcome->announced = true;
    writeRecord(*outcome, layout_.outcomeRecord);
    publish(outcome_, std::optional<StowOutcome>(*outcome), Field::outcome);
    showPill(Pill::restored(*outcome), kRestoredSeconds);
    return;
  }
  if (readRecord<StowStagedRestore>(layout_.stagedRecord)) {
    showPill(Pill::message(kRestoreWaiting, true), kPillSeconds);
    return;
  }
  if (loadSettings(layout_).showOnLaunch) showPill(Pill::ready(), kPillSeconds);
}

// The panel

void StowModel::openPanel() {
  if (panelShown_) return;
  appControl_.impactHaptic();
  openPanelFromPill();
}

void StowModel::openPanelFromPill() {
  cancelHide();
  setPill(Pill::none(), StowAnimation::standard());
  reload();
  publish(panelShown_, true, Field::panelShown);
}

void StowModel::closePanel() { publish(panelShown_, false, Field::panelShown); }

void StowModel::readRecords() {
  publish(settings_, loadSettings(layout_), Field::settings);
  publish(pending_, readRecord<StowStagedRestore>(layout_.stagedRecord), Field::pending);
  publish(previous_, readPreviousRestore(layout_), Field::previous);
  publish(outcome_, readRecord<StowOutcome>(layout_.outcomeRecord), Field::outcome);
}

void StowModel::reload() {
  readRecords();
  runInBackground([layout = layout_]() -> Continuation {
    StowUsage usage = surveyUsage(layout);
    return [usage](StowModel& model) {
      model.publish(model.usage_, std::optional<StowUsage>(usage), Field::usage);
    };
  });
}

// Long work

void StowModel::runInBackground(std::function<Continuation()> job) {
  std::weak_ptr<StowModel> weak = weak_from_this();
  dispatcher_.inBackground([job = std::move(job), weak, &dispatcher = dispatcher_] {
    Continuation then;
    try {
      then = job();
    } catch (const std::exception& error) {
      then = [message = std::string(error.what())](StowModel& model) { model.fail(message); };
    }
    dispatcher.onMain([weak, then = std::move(then)] {
      if (auto model = weak.lock()) then(*model);
    });
  });
}

StowProgress StowModel::progressFor(const std::string& title) {
  // Once the system takes the background time back, the app is about to be suspended, and the
  // work cannot finish: it stops at its next report, cleaning up as after any failure.
  auto outOfTime = std::make_shared<std::atomic<bool>>(false);
  backgroundTime_ = appControl_.beginBackgroundTime(title, [outOfTime] { *outOfTime = true; });
  std::weak_ptr<StowModel> weak = weak_from_this();
  progress_ = StowProgressRelay::create(
      dispatcher_, [weak, title](double fraction, const std::string& detail) {
        if (auto model = weak.lock()) {
          model->publish(model->work_, Work::running(title, fraction, detail), Field::work);
        }
      });
  return [relay = progress_, outOfTime](double fraction, const std::string& detail) {
    if (*outOfTime) throwFileError(ECANCELED, kOutOfTimeText);
    relay->report(fraction, detail);
  };
}

void StowModel::finishProgress() {
  if (progress_) progress_->finish();
  progress_.reset();
  backgroundTime_.reset();
}

void StowModel::fail(const std::string& message) {
  finishProgress();
  publish(work_, Work::idle(), Field::work);
  publish(errorText_, std::optional<std::string>(message), Field::errorText);
  // A staging that failed has cleared the restore staged before it.
  publish(pending_, readRecord<StowStagedRestore>(layout_.stagedRecord), Field::pending);
}

void StowModel::keepScreenAwakeWhileWatched() {
  // Auto-Lock would otherwise lock the screen under the progress the user is watching, and the
  // app's protected files with it.
  const bool awake = panelShown_ && !work_.isIdle();
  if (awake == screenKeptAwake_) return;
  screenKeptAwake_ = awake;
  appControl_.keepScreenAwake(awake);
}

void StowModel::backUp(std::function<void(const std::filesystem::path&)> completion) {
  backUpWith(settings_.includeCaches, platform::processorCount(), std::move(completion));
}

void StowModel::backUpWith(bool includeCaches, unsigned threads,
                           std::function<void(const std::filesystem::path&)> completion) {
  if (!work_.isIdle()) return;
  publish(errorText_, std::optional<std::string>(), Field::errorText);
  publish(work_, Work::running(kBackingUp, 0, "Starting"), Field::work);
  runInBackground([layout = layout_, app = app_, device = deviceName_, includeCaches, threads,
                   progress = progressFor(kBackingUp),
                   completion = std::move(completion)]() -> Continuation {
    StowBackupResult backup =
        corvelstow::backUp(layout, app, device, includeCaches, threads, progress);
    return [backup, completion](StowModel& model) {
      model.finishProgress();
      model.publish(model.work_, Work::idle(), Field::work);
      model.publish(model.lastExportLeftOut_, backup.leftOut, Field::lastExport);
      model.publish(model.lastExport_, std::optional<std::filesystem::path>(backup.archive),
                    Field::lastExport);
      // The backup stamped lastBackupAt.
      model.publish(model.settings_, loadSettings(model.layout_), Field::settings);
      if (completion) completion(backup.archive);
    };
  });
}

void StowModel::chooseBackup(const std::filesystem::path& archive, bool pickedCopy) {
  if (!work_.isIdle()) {
    // Nothing will preview this copy: without its preview nothing would ever remove it.
    if (pickedCopy) files::removeAll(archive);
    return;
  }
  publish(errorText_, std::optional<std::string>(), Field::errorText);
  runInBackground([archive, pickedCopy]() -> Continuation {
    StowManifest manifest;
    try {
      manifest = readManifest(archive);
    } catch (...) {
      if (pickedCopy) files::removeAll(archive);
      throw;
    }
    return [archive, manifest, pickedCopy](StowModel& model) {
      // The copy behind the preview this one replaces is of no more use.
      if (const auto& old = model.preview_; old && old->pickedCopy && old->url != archive) {
        files::removeAll(old->url);
      }
      // Every new preview starts from the widest choice.
      model.publish(model.preview_,
                    std::optional<Preview>(Preview{makeUuid(), archive, manifest, pickedCopy}),
                    Field::preview);
      model.publish(model.scope_, StowRestoreScope::everything, Field::scope);
    };
  });
}

void StowModel::setScope(StowRestoreScope scope) { publish(scope_, scope, Field::scope); }

void StowModel::prepareRestore(unsigned threads) {
  if (!preview_ || !work_.isIdle()) return;
  publish(errorText_, std::optional<std::string>(), Field::errorText);
  publish(work_, Work::running(kPreparing, 0, "Unpacking"), Field::work);
  if (threads == 0) threads = platform::processorCount();
  runInBackground([layout = layout_, archive = preview_->url, scope = scope_, threads,
                   progress = progressFor(kPreparing)]() -> Continuation {
    stageRestore(layout, archive, scope, threads, progress);
    return [](StowModel& model) {
      model.finishProgress();
      model.publish(model.work_, Work::idle(), Field::work);
      model.endPreview();
      model.publish(model.pending_, readRecord<StowStagedRestore>(model.layout_.stagedRecord),
                    Field::pending);
    };
  });
}

void StowModel::cancelPreview() { endPreview(); }

void StowModel::endPreview() {
  if (preview_ && preview_->pickedCopy) files::removeAll(preview_->url);
  publish(preview_, std::optional<Preview>(), Field::preview);
}

// Closing the app

void StowModel::closeApp() {
  if (!work_.isIdle() || closing_) return;
  closing_ = true;
  auto ended = std::make_shared<bool>(false);
  // Time to end the process off screen: suspended first, the app would be resumed rather than
  // launched anew at the next tap on its icon, and what waits would not be applied.
  // Out of that time, the process ends at once, whatever is still queued.
  std::shared_ptr<platform::BackgroundTime> time =
      appControl_.beginBackgroundTime("Closing the app", [&control = appControl_, ended] {
        *ended = true;
        control.terminate();
      });
  appControl_.suspend();
  // The process ends once the app is off screen, so that the user sees no crash-like exit and
  // the app's own saves on leaving the screen are done; then after what our queue holds, so
  // that none of our work is cut off half-way.
  auto end = [&dispatcher = dispatcher_, &control = appControl_, time, ended] {
    if (std::exchange(*ended, true)) return;
    dispatcher.inBackground([&dispatcher, &control, time]() mutable {
      // The background time is let go on the main queue, where it was taken.
      dispatcher.onMain([&control, time = std::move(time)] { control.terminate(); });
    });
  };
  appControl_.whenInBackground(end);
  dispatcher_.after(kCloseTimeout, end);
}

void StowModel::undoAndCloseApp() {
  if (!previous_ || !work_.isIdle()) return;
  try {
    requestUndo(layout_);
  } catch (const std::exception& error) {
    // The app stays open, so that the user sees why nothing will be undone.
    publish(errorText_, std::optional<std::string>(error.what()), Field::errorText);
    return;
  }
  closeApp();
}

// Options

void StowModel::changeSettings(const std::function<void(StowSettings&)>& change) {
  // From the file rather than memory: a backup may have stamped lastBackupAt since.
  StowSettings settings = loadSettings(layout_);
  change(settings);
  saveSettings(layout_, settings);
  publish(settings_, settings, Field::settings);
}

void StowModel::setIncludeCaches(bool on) {
  changeSettings([on](StowSettings& settings) { settings.includeCaches = on; });
}

void StowModel::setShowOnLaunch(bool on) {
  changeSettings([on](StowSettings& settings) { settings.showOnLaunch = on; });
}

}  // namespace corvelstow
