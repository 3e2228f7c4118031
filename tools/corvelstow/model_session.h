#pragma once

#include <functional>
#include <memory>

#include "backup/progress.h"
#include "platform/app_control.h"
#include "platform/posix/icu_formatters.h"
#include "platform/posix/run_loop.h"
#include "store/layout.h"
#include "ui/model.h"

namespace corvelstow::cli {

/// The panel model of a container, as the app would hold it, for one command: its main queue
/// is served by the command's own thread while the command waits, its long work runs on the
/// run loop's worker, and its numbers and dates are formatted for the user's locale and time
/// zone (LANG, TZ).
class ModelSession final : private platform::AppControl {
 public:
  /// The model of the container, with the app named by the bundle (--bundle).
  explicit ModelSession(const StowLayout& layout);
  ~ModelSession() override;

  StowModel& model() { return *model_; }
  const platform::Formatters& formatters() const { return formatters_; }

  /// Serves the main queue until `done` answers true, or until the model ends the process.
  void runUntil(const std::function<bool()>& done);

  /// Hands every progress report of the model's work to `sink`, from the main queue.
  void followWork(StowProgress sink);

  /// Waits for the work under way; throws its failure's text when it failed.
  void finishWork();

 private:
  // A terminal has no haptic and no app to send to the home screen; ending the process ends
  // the session's run loop, and the command then exits with status 0.
  void impactHaptic() override {}
  void suspend() override {}
  void terminate() override { terminated_ = true; }

  platform::RunLoopDispatcher dispatcher_;
  platform::IcuFormatters formatters_;
  std::shared_ptr<StowModel> model_;
  bool terminated_ = false;
};

}  // namespace corvelstow::cli
