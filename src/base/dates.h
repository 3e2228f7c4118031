#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvelstow {

/// A moment, to the whole second: what every record and archive entry stores.
using StowDate = std::chrono::sys_seconds;

/// The current time, truncated to the second.
StowDate currentDate();

/// Parses a strict internet date-time: "YYYY-MM-DDTHH:MM:SS" then "Z" or "+hh:mm"/"-hh:mm".
/// A fraction, a missing zone or an impossible field gives nothing.
std::optional<StowDate> parseInternetDate(std::string_view text);

/// Formats a moment as "YYYY-MM-DDTHH:MM:SSZ" (UTC).
std::string formatInternetDate(StowDate date);

/// A moment broken into calendar fields in some time zone.
struct CivilTime {
  int year = 1970;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

/// The moment in the process's local time zone (the device's zone).
CivilTime localCivilTime(StowDate date);

/// The moment in UTC.
CivilTime utcCivilTime(StowDate date);

}  // namespace corvelstow
