#include "ui/attachments.h"

namespace corvelstow {

namespace {

StowAttachments::Placement towards(StowAttachments::Identity scene,
                                   const StowAttachments::Overlay& overlay) {
  using Placement = StowAttachments::Placement;
  if (overlay.scene == scene) return Placement::keep;
  // A panel whose scene is gone shows nowhere: the overlay then moves, and shows it again.
  if (overlay.panelShown && overlay.scene != nullptr) return Placement::keep;
  return Placement::moveHere;
}

}  // namespace

StowAttachments::Placement StowAttachments::activated(Identity scene, bool applicationRole,
                                                      const Overlay& overlay) {
  return applicationRole ? towards(scene, overlay) : Placement::ignore;
}

StowAttachments::Placement StowAttachments::held(Identity scene, const Overlay& overlay) {
  return towards(scene, overlay);
}

bool StowAttachments::detaches(Identity scene, const Overlay& overlay) {
  return scene != nullptr && overlay.scene == scene;
}

std::vector<std::size_t> StowAttachments::windowsToInstrument(
    const std::vector<SceneWindow>& windows) {
  std::vector<std::size_t> positions;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (!windows[i].overlay && !windows[i].carriesHolds) positions.push_back(i);
  }
  return positions;
}

std::optional<std::size_t> StowAttachments::frontHostWindow(
    const std::vector<HostWindow>& windows) {
  std::optional<std::size_t> key, firstShown;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const HostWindow& window = windows[i];
    if (window.overlay || !window.visible) continue;
    if (window.remembered) return i;
    if (window.key && !key) key = i;
    if (!firstShown) firstShown = i;
  }
  return key ? key : firstShown;
}

bool StowAttachments::scheduleGreeting() {
  if (greeted_) return false;
  greeted_ = true;
  return true;
}

}  // namespace corvelstow
