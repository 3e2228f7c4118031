// What the presenter remembers between scene activations: the overlay window, the instrumented
// host windows, the strip-only recognizers and the one greeting.

#include "ui/attachments.h"

#include <gtest/gtest.h>

namespace corvelstow {
namespace {

// Distinct identities, as the addresses of objects would be.
const int kObjects[5] = {};
const void* const sceneA = &kObjects[0];
const void* const sceneB = &kObjects[1];
const void* const host1 = &kObjects[2];
const void* const host2 = &kObjects[3];
const void* const overlay = &kObjects[4];

TEST(AttachmentsTest, TheOverlayWindowIsReusedForItsOwnSceneOnly) {
  EXPECT_TRUE(StowAttachments::needsOverlayWindow(nullptr, sceneA));  // none yet, or no scene
  EXPECT_FALSE(StowAttachments::needsOverlayWindow(sceneA, sceneA));
  EXPECT_TRUE(StowAttachments::needsOverlayWindow(sceneA, sceneB));
}

TEST(AttachmentsTest, EachHostWindowIsInstrumentedOnceTheOverlayNeverAndTheGreetingOnce) {
  StowAttachments attachments;
  EXPECT_EQ(attachments.instrument({{host1}, {overlay, true}, {host1}}),
            (std::vector<std::size_t>{0}));
  // A window that appeared since is picked up at the next activation, at its place in the scene.
  EXPECT_EQ(attachments.instrument({{overlay, true}, {host2}, {host1}}),
            (std::vector<std::size_t>{1}));
  EXPECT_TRUE(attachments.instrument({{host1}, {host2}}).empty());

  attachments.addStripRecognizer(host1);
  EXPECT_TRUE(attachments.isStripRecognizer(host1));
  EXPECT_FALSE(attachments.isStripRecognizer(host2));

  EXPECT_TRUE(attachments.scheduleGreeting());
  EXPECT_FALSE(attachments.scheduleGreeting());
}

}  // namespace
}  // namespace corvelstow
