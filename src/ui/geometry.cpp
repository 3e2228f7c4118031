#include "ui/geometry.h"

namespace corvelstow {

StowRect StowRect::standardized() const {
  StowRect rect = *this;
  if (rect.width < 0) {
    rect.x += rect.width;
    rect.width = -rect.width;
  }
  if (rect.height < 0) {
    rect.y += rect.height;
    rect.height = -rect.height;
  }
  return rect;
}

StowRect StowRect::insetBy(double dx, double dy) const {
  StowRect rect = standardized();
  rect.x += dx;
  rect.y += dy;
  rect.width -= 2 * dx;
  rect.height -= 2 * dy;
  // Moved in past its middle, the rectangle is empty and contains no point.
  if (rect.width < 0 || rect.height < 0) return {rect.x, rect.y, 0, 0};
  return rect;
}

bool StowRect::contains(StowPoint point) const {
  StowRect rect = standardized();
  return point.x >= rect.x && point.x < rect.x + rect.width && point.y >= rect.y &&
         point.y < rect.y + rect.height;
}

}  // namespace corvelstow
