#include "ui/pill_content.h"

#include <algorithm>

namespace corvelstow {

namespace {

constexpr const char* kGoodSymbol = "checkmark.circle.fill";
constexpr const char* kBadSymbol = "exclamationmark.triangle.fill";

struct PillVisitor {
  std::optional<StowPillContent> operator()(const StowModel::Pill::Ready&) const {
    return StowPillContent{"externaldrive.fill.badge.timemachine",
                           tint::kPink,
                           "App data backups",
                           "Tap to back up or restore",
                           "Open",
                           true};
  }

  std::optional<StowPillContent> operator()(const StowModel::Pill::Restored& restored) const {
    const StowOutcome& outcome = restored.outcome;
    if (outcome.succeeded) {
      return StowPillContent{kGoodSymbol,     tint::kGreen, "Data restored",
                             outcome.message, "Details",    true};
    }
    return StowPillContent{kBadSymbol,      tint::kRed, "Restore had problems",
                           outcome.message, "Details",  true};
  }

  std::optional<StowPillContent> operator()(const StowModel::Pill::Message& message) const {
    return StowPillContent{message.good ? kGoodSymbol : kBadSymbol,
                           message.good ? tint::kGreen : tint::kRed,
                           message.text,
                           std::nullopt,
                           std::nullopt,
                           false};
  }

  std::optional<StowPillContent> operator()(const StowModel::Pill::None&) const {
    return std::nullopt;
  }
};

}  // namespace

std::optional<StowPillContent> pillContent(const StowModel::Pill& pill) {
  return std::visit(PillVisitor{}, pill.state);
}

double pillWidth(double safeAreaWidth, double contentWidth) {
  const double room =
      std::min(safeAreaWidth - 2 * pill_layout::kSideMargin, pill_layout::kMaxWidth);
  return std::max(std::min(contentWidth, room), 0.0);
}

StowRect pillFrame(const StowRect& safeArea, double width, double height) {
  StowRect area = safeArea.standardized();
  return {area.x + (area.width - width) / 2, area.y + pill_layout::kTopMargin, width, height};
}

double hairline(double displayScale) { return displayScale > 0 ? 1 / displayScale : 1; }

}  // namespace corvelstow
