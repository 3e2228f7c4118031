#pragma once

#include <string>

namespace corvelstow::cli {

/// Shows long work's progress on stderr: a bar redrawn in place on a terminal, otherwise a plain
/// line whenever the percentage moves, so that stdout carries only the result.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(std::string title);
  ~ProgressPrinter();

  void operator()(double fraction, const std::string& detail);

 private:
  std::string title_;
  bool terminal_;
  bool drawn_ = false;
  int lastPercent_ = -1;
};

}  // namespace corvelstow::cli
