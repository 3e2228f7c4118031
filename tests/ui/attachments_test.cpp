// Where the overlay goes as scenes come, go and are held; which windows get the holds; which
// window is the app's front window and which of its controllers decides for the screen; when
// the overlay window is shown and the panel presented; and the one greeting.

#include "ui/attachments.h"

#include <gtest/gtest.h>

#include <tuple>

#include "ui/presentation.h"

namespace corvelstow {
namespace {

using Placement = StowAttachments::Placement;
using Overlay = StowAttachments::Overlay;

// Distinct identities, as the addresses of live scenes would be.
const int kScenes[2] = {};
const void* const sceneA = &kScenes[0];
const void* const sceneB = &kScenes[1];

TEST(AttachmentsTest, TheOverlayFollowsActivatedOrHeldAppScenesButNeverMovesUnderAShownPanel) {
  // The overlay as it is, where an app scene activated or held puts it, and whether that
  // scene's disconnect takes it.
  const std::vector<std::tuple<const char*, Overlay, Placement, bool>> cases{
      {"first app scene", {}, Placement::moveHere, false},
      {"the overlay's own scene again", {sceneA, false}, Placement::keep, true},
      {"its own scene, the panel shown", {sceneA, true}, Placement::keep, true},
      {"another app scene (iPad)", {sceneB, false}, Placement::moveHere, false},
      {"another scene while the panel is shown", {sceneB, true}, Placement::keep, false},
      {"the panel's scene is gone", {nullptr, true}, Placement::moveHere, false},
  };
  for (const auto& [name, overlay, expected, detaches] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(StowAttachments::activated(sceneA, true, overlay), expected);
    EXPECT_EQ(StowAttachments::held(sceneA, overlay), expected);
    // An external display is no place for it.
    EXPECT_EQ(StowAttachments::activated(sceneA, false, overlay), Placement::ignore);
    EXPECT_EQ(StowAttachments::detaches(sceneA, overlay), detaches);
  }
  EXPECT_FALSE(StowAttachments::detaches(nullptr, {}));
}

TEST(AttachmentsTest, HoldsGoOnHostWindowsThatLackThemAndTheGreetingIsScheduledOnce) {
  using W = StowAttachments::SceneWindow;
  EXPECT_EQ(StowAttachments::windowsToInstrument({W{}, W{true, false}, W{false, true}, W{}}),
            (std::vector<std::size_t>{0, 3}));
  EXPECT_TRUE(StowAttachments::windowsToInstrument({W{true, false}, W{false, true}}).empty());

  StowAttachments attachments;
  EXPECT_TRUE(attachments.scheduleGreeting());
  EXPECT_FALSE(attachments.scheduleGreeting());
}

TEST(AttachmentsTest, TheFrontWindowIsTheOneKeyBeforeThePanelElseTheKeyElseTheFirstShown) {
  using H = StowAttachments::HostWindow;
  const H overlay{true, true, true, false}, hidden{false, false, true, true};
  const H shown{false, true, false, false}, key{false, true, true, false};
  const H remembered{false, true, false, true};
  const std::vector<std::tuple<const char*, std::vector<H>, std::optional<std::size_t>>> cases{
      {"remembered", {overlay, shown, key, remembered}, 3},
      {"remembered but hidden", {overlay, hidden, shown, key}, 3},
      {"no key host window", {overlay, hidden, shown, shown}, 2},
      {"only the overlay", {overlay, hidden}, std::nullopt},
  };
  for (const auto& [name, windows, expected] : cases) {
    EXPECT_EQ(StowAttachments::frontHostWindow(windows), expected) << name;
  }
}

TEST(PresentationTest, APresentedControllerDecidesOnlyWhenItCoversTheWindowOrCapturesTheBar) {
  using P = StowPresented;
  using S = P::Style;
  const P root{}, fullScreen{S::fullScreen}, over{S::overFullScreen}, sheet{S::other};
  const P capturingSheet{S::other, true}, capturingOver{S::overFullScreen, true};
  // The chain from the root up, and who decides the status bar and the window's other traits.
  const std::vector<std::tuple<const char*, std::vector<P>, std::size_t, std::size_t>> cases{
      {"nothing presented", {root}, 0, 0},
      // A game with a hidden status bar presents a page sheet: the game still decides.
      {"a sheet", {root, sheet}, 0, 0},
      {"a sheet capturing the status bar", {root, capturingSheet}, 1, 0},
      {"full screen", {root, fullScreen}, 1, 1},
      {"over full screen", {root, over}, 0, 1},
      {"over full screen, capturing", {root, capturingOver}, 1, 1},
      {"a sheet over a full-screen one", {root, fullScreen, sheet}, 1, 1},
      {"a full-screen one over a sheet", {root, sheet, fullScreen}, 2, 2},
      {"no window", {}, 0, 0},
  };
  for (const auto& [name, chain, statusBar, window] : cases) {
    EXPECT_EQ(decidingPresented(chain, StowHostDecision::statusBar), statusBar) << name;
    EXPECT_EQ(decidingPresented(chain, StowHostDecision::window), window) << name;
  }
}

TEST(PresentationTest, TheWindowShowsOnlyWhatItHoldsAndThePanelFollowsTheModel) {
  using F = StowOverlayFacts;
  using Step = StowPanelStep;
  // Whether the model shows the panel, the facts, and the plan.
  const std::vector<std::tuple<const char*, bool, F, StowOverlayPlan>> cases{
      {"nothing to show", false, {}, {false, Step::none}},
      {"a pill, or one fading out", false, {true}, {true, Step::none}},
      {"the panel opens", true, {}, {true, Step::present}},
      {"the panel is up", true, {false, true}, {true, Step::none}},
      {"the panel closes", false, {false, true}, {true, Step::dismiss}},
      {"the panel is going", false, {false, false, false, true}, {true, Step::none}},
      {"the panel is coming", true, {false, false, false, true}, {true, Step::none}},
      // The app presented on the overlay's controller: the panel cannot go there, so the model
      // lets go of it, and the next hold opens it again.
      {"the app's controller is there", true, {false, false, true}, {true, Step::closeInModel}},
      {"the app's controller stays", false, {false, false, true}, {true, Step::none}},
  };
  for (const auto& [name, panelShown, facts, expected] : cases) {
    EXPECT_EQ(planOverlay(panelShown, facts), expected) << name;
  }
}

}  // namespace
}  // namespace corvelstow
