// What the pill shows per state, where it sits, and where it and the holds take touches.

#include <gtest/gtest.h>

#include <tuple>

#include "model_fixture.h"
#include "ui/hit_test.h"
#include "ui/pill_content.h"

namespace corvelstow {
namespace {

using Pill = StowModel::Pill;

// The pill by what it means: its tint, whether a tap and a button open the panel, and the
// text it computes (an outcome's message, a message's text).
TEST(PillContentTest, GoodNewsIsGreenProblemsRedAndOnlyTheInvitationAndOutcomesOpenThePanel) {
  const StowOutcome restored = testing::outcome(true, false),
                    failed = testing::outcome(false, false);
  const std::vector<std::tuple<Pill, StowColor, bool, std::string>> cases{
      {Pill::ready(), tint::kPink, true, "Tap to back up or restore"},
      {Pill::restored(restored), tint::kGreen, true, restored.message},
      {Pill::restored(failed), tint::kRed, true, failed.message},
      {Pill::message("Saved", true), tint::kGreen, false, "Saved"},
      {Pill::message("Not saved", false), tint::kRed, false, "Not saved"},
  };
  for (const auto& [pill, tint, opensPanel, text] : cases) {
    const StowPillContent content = pillContent(pill).value();
    EXPECT_EQ(content.tint, tint);
    EXPECT_EQ(content.tapOpensPanel, opensPanel);
    EXPECT_EQ(content.buttonLabel.has_value(), opensPanel);
    EXPECT_EQ(content.subtitle.value_or(content.title), text);
  }
  EXPECT_FALSE(pillContent(Pill::none()));
}

TEST(PillLayoutTest, ThePillIsAsWideAsItsContentAtMost440PointsCentredUnderTheSafeAreaTop) {
  // The safe area, the content's width on one line, and the pill's frame (58 points high).
  const std::vector<std::tuple<const char*, StowRect, double, StowRect>> cases{
      // The invitation on an iPhone 14: the bar's Back and "+" stay clear beside it.
      {"a phone", {0, 47, 390, 763}, 255, {67.5, 55, 255, 58}},
      {"a long message on a phone", {0, 47, 390, 763}, 900, {12, 55, 366, 58}},
      {"an iPad", {0, 24, 1024, 1342}, 900, {292, 32, 440, 58}},
      // In landscape: centred across the safe area, not the screen.
      {"a phone in landscape", {47, 0, 750, 369}, 600, {202, 8, 440, 58}},
      {"no room", {0, 0, 20, 100}, 255, {10, 8, 0, 58}},
      // A safe area given with negative sizes, as a CGRect may be, is standardized first.
      {"negative sizes", {390, 810, -390, -763}, 255, {67.5, 55, 255, 58}},
  };
  for (const auto& [name, safeArea, content, expected] : cases) {
    const double width = pillWidth(safeArea.standardized().width, content);
    EXPECT_EQ(pillFrame(safeArea, width, 58), expected) << name;
  }
  EXPECT_DOUBLE_EQ(hairline(3), 1.0 / 3);
  EXPECT_DOUBLE_EQ(hairline(0), 1);  // not in a window yet
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
  EXPECT_FALSE(hits(200, 80));  // from the moment it starts fading out, taps reach the app
  // Moved in past its middle, a rectangle contains nothing.
  EXPECT_FALSE((StowRect{0, 0, 10, 10}.insetBy(6, 6).contains({5, 5})));
}

TEST(HoldTouchTest, TheOneFingerHoldTakesTouchesFromTheSafeAreaTopToFortyBelowInclusive) {
  const std::vector<std::pair<double, bool>> cases{
      {46.9, false}, {47, true}, {87, true}, {87.1, false}, {600, false}};
  for (const auto& [y, inStrip] : cases) {
    EXPECT_EQ(inOneFingerStrip(47, y), inStrip) << y;
    EXPECT_EQ(holdTakesTouch(true, StowWindowTouch{47, y}), inStrip) << y;
    // While the app hides the status bar the strip is not armed; three fingers count anywhere.
    EXPECT_FALSE(holdTakesTouch(true, StowWindowTouch{47, y, true})) << y;
    EXPECT_TRUE(holdTakesTouch(false, StowWindowTouch{47, y, true})) << y;
  }
  // A view that is not a window has no strip to measure.
  EXPECT_TRUE(holdTakesTouch(true, std::nullopt));
}

}  // namespace
}  // namespace corvelstow
