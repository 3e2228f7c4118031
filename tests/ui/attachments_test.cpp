// What the presenter remembers between scene activations: the overlay window, the instrumented
// host windows, the strip-only recognizers and the one greeting.

#include "ui/attachments.h"

#include <gtest/gtest.h>

namespace corvelstow {
namespace {

using Window = StowAttachments::SceneWindow;

// Distinct identities, as the addresses of objects would be.
const int kObjects[6] = {};
const void* const sceneA = &kObjects[0];
const void* const sceneB = &kObjects[1];
const void* const host1 = &kObjects[2];
const void* const host2 = &kObjects[3];
const void* const host3 = &kObjects[4];
const void* const overlay = &kObjects[5];

TEST(AttachmentsTest, TheOverlayWindowIsReusedForItsOwnSceneOnly) {
  EXPECT_TRUE(StowAttachments::needsOverlayWindow(nullptr, sceneA));  // none yet, or no scene
  EXPECT_FALSE(StowAttachments::needsOverlayWindow(sceneA, sceneA));
  EXPECT_TRUE(StowAttachments::needsOverlayWindow(sceneA, sceneB));
}

TEST(AttachmentsTest, EachHostWindowIsInstrumentedOnceAndTheOverlayNever) {
  StowAttachments attachments;
  EXPECT_EQ(attachments.instrument({{host1, false}, {overlay, true}, {host2, false}}),
            (std::vector<std::size_t>{0, 2}));
  // The same scene again: nothing new.
  EXPECT_TRUE(attachments.instrument({{host1, false}, {overlay, true}, {host2, false}}).empty());
  // A window that appeared since is picked up at the next activation, in the scene's order.
  EXPECT_EQ(attachments.instrument({{host3, false}, {host1, false}, {host2, false}}),
            (std::vector<std::size_t>{0}));
  // A window listed twice is instrumented once.
  StowAttachments fresh;
  EXPECT_EQ(fresh.instrument({{host1, false}, {host1, false}}), (std::vector<std::size_t>{0}));
}

TEST(AttachmentsTest, OnlyRecordedRecognizersAreStripOnly) {
  StowAttachments attachments;
  EXPECT_FALSE(attachments.isStripRecognizer(host1));
  attachments.addStripRecognizer(host1);
  EXPECT_TRUE(attachments.isStripRecognizer(host1));
  EXPECT_FALSE(attachments.isStripRecognizer(host2));
}

TEST(AttachmentsTest, TheGreetingIsScheduledAtTheFirstAttachOnly) {
  StowAttachments attachments;
  EXPECT_TRUE(attachments.scheduleGreeting());
  EXPECT_FALSE(attachments.scheduleGreeting());
  EXPECT_FALSE(attachments.scheduleGreeting());
  EXPECT_DOUBLE_EQ(StowAttachments::kGreetDelay, 1.2);
}

TEST(AttachmentsTest, TheHoldsAreThreeFingersAnywhereAndOneFingerInTheStrip) {
  EXPECT_EQ(kThreeFingerHold.touches, 3);
  EXPECT_DOUBLE_EQ(kThreeFingerHold.seconds, 0.5);
  EXPECT_FALSE(kThreeFingerHold.stripOnly);
  EXPECT_EQ(kOneFingerHold.touches, 1);
  EXPECT_DOUBLE_EQ(kOneFingerHold.seconds, 1.2);
  EXPECT_TRUE(kOneFingerHold.stripOnly);
}

}  // namespace
}  // namespace corvelstow
