#pragma once

#include <string>

namespace corvelstow::cli {

/// Shows long work's progress on stderr, as git does: a bar redrawn in place when stderr is a
/// terminal; otherwise nothing, unless `forced` (--progress), and then a plain line whenever the
/// percentage moves. Stdout carries only the result. The bar's line is ended when the printer
/// goes away, so it must be gone before the result or a failure is printed: on a terminal both
/// streams share one screen.
class ProgressPrinter {
 public:
  ProgressPrinter(std::string title, bool forced);
  ~ProgressPrinter();

  void operator()(double fraction, const std::string& detail);

 private:
  std::string title_;
  bool terminal_;
  bool shown_;
  bool drawn_ = false;
  int lastPercent_ = -1;
};

}  // namespace corvelstow::cli
