#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "backup/progress.h"
#include "backup/usage.h"
#include "platform/app_control.h"
#include "platform/dispatcher.h"
#include "store/host_app.h"
#include "store/layout.h"
#include "store/records.h"
#include "ui/geometry.h"
#include "ui/progress_relay.h"

namespace corvelstow {

/// How a published change asks to be animated.
struct StowAnimation {
  enum class Curve { standard, spring, easeInOut };

  Curve curve = Curve::standard;
  double duration = 0;         ///< ease-in-out: its length; spring: its response, in seconds
  double dampingFraction = 0;  ///< spring only
  double blendDuration = 0;    ///< spring only

  bool operator==(const StowAnimation&) const = default;

  /// The view layer's default animation: every change but showing and hiding the pill.
  static StowAnimation standard() { return {}; }
  /// Showing the pill: a spring with response 0.4 s, damping fraction 0.85, blend duration 0.
  static StowAnimation spring() { return {Curve::spring, 0.4, 0.85, 0}; }
  /// Hiding the pill when its time is up: ease-in-out over 0.25 s.
  static StowAnimation easeInOut() { return {Curve::easeInOut, 0.25, 0, 0}; }
};

/// The one observable state behind the overlay: what the pill and the panel show, and every
/// action their buttons call. Lives on the main queue: every member is called there, and long
/// work runs on the dispatcher's background queue, which reports back through the main queue.
/// Held by a shared pointer, so that timers and background work can hold it weakly.
class StowModel : public std::enable_shared_from_this<StowModel> {
 public:
  /// What the pill shows.
  struct Pill {
    /// The outcome of the restore (or undo) applied at this launch.
    struct Restored {
      StowOutcome outcome;
      bool operator==(const Restored&) const = default;
    };
    /// A one-line message, good or bad; a tap on it does nothing.
    struct Message {
      std::string text;
      bool good = true;
      bool operator==(const Message&) const = default;
    };
    /// Nothing: the pill is hidden.
    struct None {
      bool operator==(const None&) const = default;
    };
    /// The invitation to open the panel.
    struct Ready {
      bool operator==(const Ready&) const = default;
    };

    std::variant<Restored, Message, None, Ready> state = None{};

    static Pill restored(StowOutcome outcome) { return {Restored{std::move(outcome)}}; }
    static Pill message(std::string text, bool good) { return {Message{std::move(text), good}}; }
    static Pill none() { return {None{}}; }
    static Pill ready() { return {Ready{}}; }

    bool isNone() const { return std::holds_alternative<None>(state); }
    bool operator==(const Pill&) const = default;
  };

  /// The long operation under way, if any.
  struct Work {
    struct Running {
      std::string title;  ///< "Backing up" or "Preparing the restore"
      double fraction = 0;
      std::string detail;  ///< such as "9 of 20 files"
      bool operator==(const Running&) const = default;
    };
    struct Idle {
      bool operator==(const Idle&) const = default;
    };

    std::variant<Running, Idle> state = Idle{};

    static Work running(std::string title, double fraction, std::string detail) {
      return {Running{std::move(title), fraction, std::move(detail)}};
    }
    static Work idle() { return {Idle{}}; }

    /// The running operation, or null when idle.
    const Running* runningState() const { return std::get_if<Running>(&state); }
    bool isIdle() const { return std::holds_alternative<Idle>(state); }
    bool operator==(const Work&) const = default;
  };

  /// A chosen backup awaiting confirmation.
  struct Preview {
    std::string id;  ///< a fresh random UUID, so that each preview is a new identity to a view
    std::filesystem::path url;  ///< the chosen archive
    StowManifest manifest;
    bool pickedCopy = false;  ///< `url` is the document picker's copy, removed with the preview

    bool operator==(const Preview&) const = default;
  };

  /// The published fields, as observers are told about them.
  enum class Field {
    pill,
    panelShown,
    usage,
    settings,
    work,
    errorText,
    preview,
    scope,
    pending,
    previous,
    lastExport,
    outcome,
  };

  /// Hears each published change after it is made, with the animation it asks for. A field
  /// set to the value it already holds is no change.
  using Observer = std::function<void(Field field, const StowAnimation& animation)>;

  /// What the model works on and with. The dispatcher and the app control must outlive it.
  struct Environment {
    StowLayout layout;
    StowHostApp app;
    platform::Dispatcher& dispatcher;
    platform::AppControl& appControl;
  };

  /// How long each pill stays, in seconds.
  static constexpr double kRestoredSeconds = 15;
  static constexpr double kPillSeconds = 10;
  /// How long closing the app waits at most for the app to reach the background, in seconds:
  /// should it stay on screen, the process ends anyway, as the user asked.
  static constexpr double kCloseTimeout = 2;
  /// The failure of long work stopped because the system took back the app's background time.
  static constexpr const char* kOutOfTimeText =
      "The app was in the background too long, so the work was stopped. Keep the app open "
      "until it is done.";

  /// Creation: reads settings.json, staged.json, previous.json and outcome.json (a missing or
  /// undecodable file leaves the default: the default settings, or no record), and the
  /// device's name for the backups' manifests (on the main queue, where the platform gives it).
  static std::shared_ptr<StowModel> create(Environment environment);

  StowModel(const StowModel&) = delete;
  StowModel& operator=(const StowModel&) = delete;

  // Observation.

  /// Adds an observer; returns a token for stopObserving.
  int observe(Observer observer);
  void stopObserving(int token);

  // Published fields.

  const Pill& pill() const { return pill_; }
  bool panelShown() const { return panelShown_; }
  const std::optional<StowUsage>& usage() const { return usage_; }
  const StowSettings& settings() const { return settings_; }
  const Work& work() const { return work_; }
  const std::optional<std::string>& errorText() const { return errorText_; }
  const std::optional<Preview>& preview() const { return preview_; }
  StowRestoreScope scope() const { return scope_; }
  const std::optional<StowStagedRestore>& pending() const { return pending_; }
  const std::optional<StowStagedRestore>& previous() const { return previous_; }
  const std::optional<std::filesystem::path>& lastExport() const { return lastExport_; }
  /// The files the last backup could not archive (see StowBackupResult), published with
  /// lastExport.
  const std::vector<std::string>& lastExportLeftOut() const { return lastExportLeftOut_; }
  /// The last launch-time operation's outcome (outcome.json), read at creation and reload.
  const std::optional<StowOutcome>& outcome() const { return outcome_; }

  // Unpublished state.

  /// The pill's frame in the overlay window, written by the pill's view for the hit test.
  const StowRect& pillFrame() const { return pillFrame_; }
  void setPillFrame(const StowRect& frame) { pillFrame_ = frame; }
  const StowHostApp& app() const { return app_; }
  const StowLayout& layout() const { return layout_; }

  // Actions.

  /// Shows `pill` (with the spring) and hides it `seconds` later (ease-in-out), replacing the
  /// hide of any pill shown before. While VoiceOver runs it stays until the panel opens or it
  /// is dismissed: a pill that goes by itself may go unheard.
  void showPill(Pill pill, double seconds);

  /// Hides the pill at once (ease-in-out): the VoiceOver user's escape gesture on it.
  void dismissPill();

  /// Whether VoiceOver runs, as the platform says now and whenever it changes. When it stops, a
  /// pill still shown gets its time again and then hides.
  void setVoiceOverRunning(bool running);

  /// The announcement after the first scene is attached: an unannounced outcome (marked
  /// announced in outcome.json before it shows, for 15 s), else a waiting restore (10 s), else
  /// the invitation when "Show When the App Opens" is on (10 s).
  void greet();

  /// From the long press: a medium haptic, then as openPanelFromPill. Nothing when the panel
  /// is already open.
  void openPanel();

  /// From a tap on the pill: hides the pill, reloads and opens the panel.
  void openPanelFromPill();

  /// Rereads settings.json, staged.json, previous.json and outcome.json, and surveys the data
  /// in the background.
  void reload();

  /// Backs up the container in the background, with the saved choice about caches, compressing
  /// on one thread per processor. On success `completion` receives the archive, which also
  /// becomes lastExport; on failure the error's text becomes errorText. Nothing while other
  /// work runs. Long work (a backup, a staging) holds background time, so that it goes on when
  /// the screen locks or the user switches apps; should the system take that time back, the
  /// work stops at its next progress report with kOutOfTimeText. While it runs with the panel
  /// shown the screen is kept awake.
  void backUp(std::function<void(const std::filesystem::path&)> completion = {});

  /// As backUp, with the choice about caches and the number of threads given (the command
  /// line's --include-caches and --threads); the saved option is left as it is.
  void backUpWith(bool includeCaches, unsigned threads,
                  std::function<void(const std::filesystem::path&)> completion = {});

  /// Reads the manifest of `archive` in the background: a preview on success (the scope back
  /// to everything), errorText on failure. Nothing while work runs. A `pickedCopy` is the
  /// document picker's copy of the user's file, made for the app in its temporary folder: it
  /// is removed as soon as it is of no more use (chosen while work runs, not a backup; or its
  /// preview cancelled, replaced by another, or staged), so that no picked backup stays behind
  /// at full size.
  void chooseBackup(const std::filesystem::path& archive, bool pickedCopy = false);

  void setScope(StowRestoreScope scope);

  /// Stages the previewed backup in the chosen scope, in the background, unpacking on `threads`
  /// threads (0: one for each processor): on success the preview closes and pending holds the
  /// staged restore; on failure errorText says why. Nothing without a preview or while work runs.
  void prepareRestore(unsigned threads = 0);

  void cancelPreview();

  /// Sends the app to the home screen and ends the process once it is there (after the app's
  /// own background handlers, and after what the background queue holds), so that the next
  /// launch applies what is waiting; kCloseTimeout after suspending at the latest. Nothing while
  /// work runs: it would end half-way.
  void closeApp();

  /// Leaves the undo request for the next launch, then closes the app. Nothing when there is
  /// no previous restore to undo or while work runs; when the request cannot be left (another
  /// operation holds the app's data), errorText says so and the app stays open.
  void undoAndCloseApp();

  /// The two options: each writes through to settings.json at once.
  void setIncludeCaches(bool on);
  void setShowOnLaunch(bool on);

  void closePanel();

 private:
  explicit StowModel(Environment environment);

  // Continues on the main queue once background work is done.
  using Continuation = std::function<void(StowModel&)>;

  void notify(Field field, const StowAnimation& animation);
  template <typename T>
  void publish(T& field, T value, Field name, const StowAnimation& animation = {});
  void setPill(Pill pill, const StowAnimation& animation);
  void cancelHide();
  void scheduleHide();
  void keepScreenAwakeWhileWatched();
  void readRecords();
  void changeSettings(const std::function<void(StowSettings&)>& change);
  void runInBackground(std::function<Continuation()> job);
  StowProgress progressFor(const std::string& title);
  void finishProgress();
  void fail(const std::string& message);
  void endPreview();

  StowLayout layout_;
  StowHostApp app_;
  std::string deviceName_;
  platform::Dispatcher& dispatcher_;
  platform::AppControl& appControl_;

  Pill pill_;
  bool panelShown_ = false;
  std::optional<StowUsage> usage_;
  StowSettings settings_;
  Work work_;
  std::optional<std::string> errorText_;
  std::optional<Preview> preview_;
  StowRestoreScope scope_ = StowRestoreScope::everything;
  std::optional<StowStagedRestore> pending_;
  std::optional<StowStagedRestore> previous_;
  std::optional<std::filesystem::path> lastExport_;
  std::vector<std::string> lastExportLeftOut_;
  std::optional<StowOutcome> outcome_;

  StowRect pillFrame_;
  std::shared_ptr<platform::DelayedTask> hideTask_;
  double pillSeconds_ = 0;  ///< how long the pill shown last stays
  bool voiceOverRunning_ = false;
  bool screenKeptAwake_ = false;
  bool closing_ = false;
  std::shared_ptr<StowProgressRelay> progress_;               ///< the running work's progress
  std::unique_ptr<platform::BackgroundTime> backgroundTime_;  ///< the running work's
  std::vector<std::pair<int, Observer>> observers_;
  int nextToken_ = 0;
};

/// A fresh random (version 4) UUID in upper-case hex, such as
/// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeUuid();

}  // namespace corvelstow
