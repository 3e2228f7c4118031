#include "ui/attachments.h"

namespace corvelstow {

bool StowAttachments::needsOverlayWindow(Identity overlayScene, Identity scene) {
  return overlayScene == nullptr || overlayScene != scene;
}

std::vector<std::size_t> StowAttachments::instrument(const std::vector<SceneWindow>& windows) {
  std::vector<std::size_t> positions;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (windows[i].overlay) continue;
    if (watched_.insert(windows[i].window).second) positions.push_back(i);
  }
  return positions;
}

void StowAttachments::addStripRecognizer(Identity recognizer) {
  stripRecognizers_.insert(recognizer);
}

bool StowAttachments::isStripRecognizer(Identity recognizer) const {
  return stripRecognizers_.count(recognizer) != 0;
}

bool StowAttachments::scheduleGreeting() {
  if (greeted_) return false;
  greeted_ = true;
  return true;
}

}  // namespace corvelstow
