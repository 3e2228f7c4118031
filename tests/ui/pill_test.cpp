// What the pill shows per state, where it sits, and where it and the holds take touches.

#include <gtest/gtest.h>

#include "model_fixture.h"
#include "ui/hit_test.h"
#include "ui/pill_content.h"

namespace corvelstow {
namespace {

using Pill = StowModel::Pill;

TEST(PillContentTest, GoodNewsIsGreenProblemsRedAndOnlyTheInvitationAndOutcomesOpenThePanel) {
  const StowOutcome restored = testing::outcome(true, false);
  const StowOutcome failed = testing::outcome(false, false);
  const char* good = "checkmark.circle.fill";
  const char* bad = "exclamationmark.triangle.fill";
  const std::vector<std::pair<Pill, StowPillContent>> cases{
      {Pill::ready(),
       {"externaldrive.fill.badge.timemachine", tint::kPink, "App data backups",
        "Tap to back up or restore", "Open", true}},
      {Pill::restored(restored),
       {good, tint::kGreen, "Data restored", restored.message, "Details", true}},
      {Pill::restored(failed),
       {bad, tint::kRed, "Restore had problems", failed.message, "Details", true}},
      {Pill::message("Saved", true),
       {good, tint::kGreen, "Saved", std::nullopt, std::nullopt, false}},
      {Pill::message("Not saved", false),
       {bad, tint::kRed, "Not saved", std::nullopt, std::nullopt, false}},
  };
  for (const auto& [pill, expected] : cases) EXPECT_EQ(pillContent(pill), expected);
  EXPECT_FALSE(pillContent(Pill::none()));
}

TEST(PillLayoutTest, ThePillIsAtMost440PointsWideCentredUnderTheSafeAreaTop) {
  EXPECT_EQ(pillFrame({0, 24, 1024, 1342}, 60), (StowRect{292, 32, 440, 60}));  // an iPad
  EXPECT_EQ(pillFrame({0, 47, 390, 763}, 58), (StowRect{12, 55, 366, 58}));     // a phone
  // A phone in landscape: centred across the safe area, not the screen.
  EXPECT_EQ(pillFrame({47, 0, 750, 369}, 58), (StowRect{202, 8, 440, 58}));
  EXPECT_DOUBLE_EQ(pillWidth(20), 0);
  // A safe area given with negative sizes, as a CGRect may be, is standardized first.
  EXPECT_EQ(pillFrame({390, 810, -390, -763}, 58), (StowRect{12, 55, 366, 58}));
}

class OverlayHitTest : public testing::ModelFixture {};

TEST_F(OverlayHitTest, APillTakesTouchesEightPointsAroundItsFrameAndThePanelAllOfThem) {
  model->setPillFrame({100, 50, 200, 60});  // x 100..300, y 50..110
  auto hits = [&](double x, double y) { return overlayTakesPoint(model.get(), false, {x, y}); };
  EXPECT_FALSE(hits(200, 80));  // no pill
  EXPECT_TRUE(overlayTakesPoint(model.get(), true, {-5000, 9000}));
  EXPECT_FALSE(overlayTakesPoint(nullptr, true, {200, 80}));

  model->showPill(Pill::message("Saved", true), 10);
  // The minimum edges of the grown frame are inside, the maximum edges outside.
  EXPECT_TRUE(hits(92, 42));
  EXPECT_FALSE(hits(91.9, 80));
  EXPECT_FALSE(hits(200, 41.9));
  EXPECT_TRUE(hits(307.9, 117.9));
  EXPECT_FALSE(hits(308, 80));
  EXPECT_FALSE(hits(200, 118));
  dispatcher.advance(10);
  EXPECT_FALSE(hits(200, 80));
  // Moved in past its middle, a rectangle contains nothing.
  EXPECT_FALSE((StowRect{0, 0, 10, 10}.insetBy(6, 6).contains({5, 5})));
}

TEST(HoldTouchTest, TheOneFingerHoldTakesTouchesFromTheSafeAreaTopToFortyBelowInclusive) {
  const std::vector<std::pair<double, bool>> cases{
      {46.9, false}, {47, true}, {87, true}, {87.1, false}, {600, false}};
  for (const auto& [y, inStrip] : cases) {
    EXPECT_EQ(inOneFingerStrip(47, y), inStrip) << y;
    EXPECT_EQ(holdTakesTouch(true, StowWindowTouch{47, y}), inStrip) << y;
    EXPECT_TRUE(holdTakesTouch(false, StowWindowTouch{47, y})) << y;  // three fingers: anywhere
  }
  // A view that is not a window has no strip to measure.
  EXPECT_TRUE(holdTakesTouch(true, std::nullopt));
}

}  // namespace
}  // namespace corvelstow
