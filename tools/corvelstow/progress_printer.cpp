#include "progress_printer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace corvelstow::cli {

ProgressPrinter::ProgressPrinter(std::string title, bool forced)
    : title_(std::move(title)),
      terminal_(::isatty(STDERR_FILENO) == 1),
      shown_(terminal_ || forced) {}

ProgressPrinter::~ProgressPrinter() {
  if (drawn_ && terminal_) std::fputc('\n', stderr);
}

void ProgressPrinter::operator()(double fraction, const std::string& detail) {
  if (!shown_) return;
  int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100.0 + 0.5);
  drawn_ = true;
  if (!terminal_) {
    if (percent != lastPercent_) {
      std::fprintf(stderr, "%s: %s (%d%%)\n", title_.c_str(), detail.c_str(), percent);
    }
    lastPercent_ = percent;
    return;
  }
  constexpr int kWidth = 30;
  int filled = percent * kWidth / 100;
  std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%  %s\x1b[K", title_.c_str(), filled,
               "##############################", kWidth - filled, "", percent, detail.c_str());
  std::fflush(stderr);
}

}  // namespace corvelstow::cli
