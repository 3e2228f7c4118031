#include "ui/hit_test.h"

#include "ui/model.h"

namespace corvelstow {

bool overlayTakesPoint(const StowModel* model, bool panelPresented, StowPoint point) {
  if (!model) return false;
  if (panelPresented) return true;
  if (model->pill().isNone()) return false;
  return model->pillFrame().insetBy(-kPillHitMargin, -kPillHitMargin).contains(point);
}

bool inOneFingerStrip(double safeAreaTop, double y) {
  return safeAreaTop <= y && y <= safeAreaTop + kOneFingerStripHeight;
}

bool holdTakesTouch(bool stripRecognizer, const std::optional<StowWindowTouch>& touch) {
  if (!stripRecognizer || !touch) return true;
  return !touch->statusBarHidden && inOneFingerStrip(touch->safeAreaTop, touch->y);
}

}  // namespace corvelstow
