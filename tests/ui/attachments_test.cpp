// Where the overlay goes as scenes come, go and are held; which windows get the holds; which
// window is the app's front window; and the one greeting.

#include "ui/attachments.h"

#include <gtest/gtest.h>

#include <tuple>

namespace corvelstow {
namespace {

using Placement = StowAttachments::Placement;
using Overlay = StowAttachments::Overlay;

// Distinct identities, as the addresses of live scenes would be.
const int kScenes[2] = {};
const void* const sceneA = &kScenes[0];
const void* const sceneB = &kScenes[1];

TEST(AttachmentsTest, TheOverlayFollowsActivatedAppScenesButNeverMovesUnderAShownPanel) {
  // The scene activated, its role, the overlay as it is, and what happens.
  const std::vector<std::tuple<const char*, bool, Overlay, Placement>> cases{
      {"first app scene", true, {}, Placement::moveHere},
      {"the overlay's own scene again", true, {sceneA, false}, Placement::keep},
      {"another app scene (iPad)", true, {sceneB, false}, Placement::moveHere},
      {"another scene while the panel is shown", true, {sceneB, true}, Placement::keep},
      {"the panel's scene is gone", true, {nullptr, true}, Placement::moveHere},
      {"an external display", false, {}, Placement::ignore},
      {"an external display, overlay elsewhere", false, {sceneB, false}, Placement::ignore},
  };
  for (const auto& [name, applicationRole, overlay, expected] : cases) {
    EXPECT_EQ(StowAttachments::activated(sceneA, applicationRole, overlay), expected) << name;
  }
}

TEST(AttachmentsTest, AHoldOpensThePanelInItsOwnSceneAndADisconnectTakesTheOverlayAlong) {
  EXPECT_EQ(StowAttachments::held(sceneA, {sceneA, false}), Placement::keep);
  EXPECT_EQ(StowAttachments::held(sceneA, {sceneB, false}), Placement::moveHere);
  EXPECT_EQ(StowAttachments::held(sceneA, {nullptr, false}), Placement::moveHere);
  EXPECT_EQ(StowAttachments::held(sceneA, {sceneB, true}), Placement::keep);  // already open
  EXPECT_EQ(StowAttachments::held(sceneA, {nullptr, true}), Placement::moveHere);

  EXPECT_TRUE(StowAttachments::detaches(sceneA, {sceneA, true}));
  EXPECT_FALSE(StowAttachments::detaches(sceneA, {sceneB, true}));
  EXPECT_FALSE(StowAttachments::detaches(sceneA, {nullptr, false}));
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

}  // namespace
}  // namespace corvelstow
