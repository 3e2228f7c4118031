#pragma once

namespace corvelstow {

/// A point in the overlay window's coordinates, in points (CGPoint).
struct StowPoint {
  double x = 0;
  double y = 0;

  bool operator==(const StowPoint&) const = default;
};

/// A rectangle in the overlay window's coordinates, in points (CGRect).
struct StowRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  bool operator==(const StowRect&) const = default;

  /// The same rectangle with a width and height that are not negative (CGRectStandardize).
  StowRect standardized() const;

  /// The rectangle moved in by `dx` on the left and right and `dy` at the top and bottom;
  /// negative values grow it (CGRectInset).
  StowRect insetBy(double dx, double dy) const;

  /// Whether `point` lies inside: the minimum edges belong to the rectangle, the maximum edges
  /// do not (CGRectContainsPoint).
  bool contains(StowPoint point) const;
};

}  // namespace corvelstow
