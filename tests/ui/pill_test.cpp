// What the pill shows per state, and where it and the one-finger strip take touches.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "model_fixture.h"
#include "ui/hit_test.h"
#include "ui/pill_content.h"

namespace corvelstow {
namespace {

using Pill = StowModel::Pill;

StowOutcome outcomeWith(bool succeeded) {
  StowOutcome outcome;
  outcome.succeeded = succeeded;
  outcome.message = succeeded ? "Restored everything from Notes." : "Could not put back Library";
  return outcome;
}

TEST(PillContentTest, EachStateHasItsSymbolTintTextsAndButton) {
  EXPECT_EQ(pillContent(Pill::ready()), (StowPillContent{"externaldrive.fill.badge.timemachine",
                                                         {1.0, 0.17647, 0.33333},
                                                         "App data backups",
                                                         "Tap to back up or restore",
                                                         "Open",
                                                         true}));
  EXPECT_EQ(pillContent(Pill::restored(outcomeWith(true))),
            (StowPillContent{"checkmark.circle.fill",
                             {0.20392, 0.82745, 0.6},
                             "Data restored",
                             "Restored everything from Notes.",
                             "Details",
                             true}));
  EXPECT_EQ(pillContent(Pill::restored(outcomeWith(false))),
            (StowPillContent{"exclamationmark.triangle.fill",
                             {1.0, 0.0, 0.43137},
                             "Restore had problems",
                             "Could not put back Library",
                             "Details",
                             true}));
  EXPECT_EQ(pillContent(Pill::message("A restore is waiting.", true)),
            (StowPillContent{"checkmark.circle.fill", tint::kGreen, "A restore is waiting.",
                             std::nullopt, std::nullopt, false}));
  EXPECT_EQ(pillContent(Pill::message("That did not work.", false)),
            (StowPillContent{"exclamationmark.triangle.fill", tint::kRed, "That did not work.",
                             std::nullopt, std::nullopt, false}));
  EXPECT_FALSE(pillContent(Pill::none()));
}

TEST(PillContentTest, TheTintsAreTheirEightBitValuesOver255) {
  auto over255 = [](StowColor color) {
    return std::array<long, 3>{std::lround(color.red * 255), std::lround(color.green * 255),
                               std::lround(color.blue * 255)};
  };
  EXPECT_EQ(over255(tint::kPink), (std::array<long, 3>{255, 45, 85}));
  EXPECT_EQ(over255(tint::kGreen), (std::array<long, 3>{52, 211, 153}));
  EXPECT_EQ(over255(tint::kRed), (std::array<long, 3>{255, 0, 110}));
}

class OverlayHitTest : public testing::ModelFixture {
 protected:
  void SetUp() override {
    ModelFixture::SetUp();
    model->setPillFrame({100, 50, 200, 60});  // x 100..300, y 50..110
  }
  bool hits(double x, double y, bool panelPresented = false) {
    return overlayTakesPoint(model.get(), panelPresented, {x, y});
  }
};

TEST_F(OverlayHitTest, APillTakesTouchesEightPointsAroundItsFrame) {
  model->showPill(Pill::message("Saved", true), 10);  // a message pill still takes touches
  EXPECT_TRUE(hits(200, 80));
  // The minimum edges of the grown frame are inside, the maximum edges outside.
  EXPECT_TRUE(hits(92, 42));
  EXPECT_FALSE(hits(91, 80));
  EXPECT_FALSE(hits(200, 41));
  EXPECT_TRUE(hits(307.9, 117.9));
  EXPECT_FALSE(hits(308, 80));
  EXPECT_FALSE(hits(200, 118));
}

TEST_F(OverlayHitTest, WithoutAPillEverythingFallsThroughUnlessThePanelIsPresented) {
  EXPECT_FALSE(hits(200, 80));
  EXPECT_TRUE(hits(200, 80, true));
  EXPECT_TRUE(hits(-5000, 9000, true));
  model->showPill(Pill::ready(), 10);
  dispatcher.advance(10);
  EXPECT_FALSE(hits(200, 80));
  EXPECT_FALSE(overlayTakesPoint(nullptr, true, {200, 80}));
}

TEST(GeometryTest, RectanglesFollowTheCoreGraphicsRules) {
  StowRect flipped{300, 110, -200, -60};
  EXPECT_EQ(flipped.standardized(), (StowRect{100, 50, 200, 60}));
  EXPECT_TRUE(flipped.contains({100, 50}));
  EXPECT_FALSE(flipped.contains({300, 50}));
  EXPECT_EQ((StowRect{100, 50, 200, 60}.insetBy(-8, -8)), (StowRect{92, 42, 216, 76}));
  EXPECT_FALSE((StowRect{0, 0, 10, 10}.insetBy(6, 6).contains({5, 5})));
  EXPECT_FALSE(StowRect{}.contains({0, 0}));
}

TEST(OneFingerStripTest, CountsFromTheSafeAreaTopToFortyPointsBelowItInclusive) {
  EXPECT_TRUE(inOneFingerStrip(47, 47));
  EXPECT_TRUE(inOneFingerStrip(47, 87));
  EXPECT_FALSE(inOneFingerStrip(47, 88));
  EXPECT_FALSE(inOneFingerStrip(47, 46.5));
  EXPECT_TRUE(inOneFingerStrip(0, 40));
  EXPECT_FALSE(inOneFingerStrip(0, 41));
}

TEST(HoldTouchTest, OnlyTheOneFingerHoldOnAWindowIsLimitedToTheStrip) {
  // The three-finger hold takes touches anywhere, in the strip or not.
  EXPECT_TRUE(holdTakesTouch(false, StowWindowTouch{47, 600}));
  EXPECT_TRUE(holdTakesTouch(false, std::nullopt));
  // The one-finger hold: inside the strip only, both edges included.
  EXPECT_TRUE(holdTakesTouch(true, StowWindowTouch{47, 87}));
  EXPECT_FALSE(holdTakesTouch(true, StowWindowTouch{47, 88}));
  EXPECT_FALSE(holdTakesTouch(true, StowWindowTouch{47, 20}));
  // ...unless its view is not a window, when there is no strip to measure.
  EXPECT_TRUE(holdTakesTouch(true, std::nullopt));
}

TEST(PillLayoutTest, ThePillIsAtMost440PointsWideCentredUnderTheSafeAreaTop) {
  // An iPad: the width stops at 440 points, centred.
  EXPECT_EQ(pillFrame({0, 24, 1024, 1342}, 60), (StowRect{292, 32, 440, 60}));
  // A phone: the safe area less 12 points on each side.
  EXPECT_EQ(pillFrame({0, 47, 390, 763}, 58), (StowRect{12, 55, 366, 58}));
  // A phone in landscape: centred across the safe area, not the screen.
  EXPECT_EQ(pillFrame({47, 0, 750, 369}, 58), (StowRect{202, 8, 440, 58}));
  EXPECT_DOUBLE_EQ(pillWidth(100000), 440);
  EXPECT_DOUBLE_EQ(pillWidth(20), 0);
  EXPECT_DOUBLE_EQ(pillWidth(-5), 0);
}

TEST(PillLayoutTest, TheCardUsesOnlyItsListedMeasures) {
  // Corners, padding and shadow take their values from 22, 12, 10, 8 and 6 points.
  const std::array<double, 5> listed{22, 12, 10, 8, 6};
  for (double measure : {pill_layout::kCornerRadius, pill_layout::kPadding, pill_layout::kSpacing,
                         pill_layout::kShadowRadius, pill_layout::kShadowOffsetY}) {
    EXPECT_NE(std::find(listed.begin(), listed.end(), measure), listed.end()) << measure;
  }
  // The symbol's backdrop fits inside its frame.
  EXPECT_LE(2 * pill_layout::kSymbolCornerRadius, pill_layout::kSymbolFrame);
}

}  // namespace
}  // namespace corvelstow
