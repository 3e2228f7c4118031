#pragma once

// The formatters part of the platform seam: numbers and dates as the panel shows them, in the
// user's locale and time zone.
//
// Apple implements each with the Foundation formatter named below. Linux uses ICU
// (platform/posix/icu_formatters.h), which yields the same texts for the English locales except
// where Apple's own locale data differs (for example "May 1, 2024 at 9:30 AM" there, "May 1,
// 2024, 9:30 AM" in ICU's data).

#include <cstdint>
#include <string>

#include "base/dates.h"

namespace corvelstow::platform {

class Formatters {
 public:
  virtual ~Formatters() = default;

  /// A byte count in the file style (NSByteCountFormatter, NSByteCountFormatterCountStyleFile):
  /// decimal units, "Zero KB", "1 byte", "999 bytes", "12 KB", "12.3 MB", "1.23 GB".
  virtual std::string byteCount(std::int64_t bytes) const = 0;

  /// `date` relative to `now` in full units (NSRelativeDateTimeFormatter, units style full,
  /// localizedStringForDate:relativeToDate:): the largest calendar unit that is not zero,
  /// "5 minutes ago", "in 2 days", "in 0 seconds".
  virtual std::string relativeDate(StowDate date, StowDate now) const = 0;

  /// `date` with a medium date and a short time (NSDateFormatter
  /// localizedStringFromDate:dateStyle:NSDateFormatterMediumStyle
  /// timeStyle:NSDateFormatterShortStyle).
  virtual std::string dateAndTime(StowDate date) const = 0;
};

}  // namespace corvelstow::platform
