#pragma once

#include <functional>
#include <string>

namespace corvelstow {

/// Receives progress from long work, on the thread doing it: a fraction from 0 to 1 and a
/// detail text such as "9 of 20 files".
using StowProgress = std::function<void(double fraction, const std::string& detail)>;

}  // namespace corvelstow
