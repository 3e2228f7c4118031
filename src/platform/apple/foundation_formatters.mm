#include "platform/apple/foundation_formatters.h"

#include "platform/apple/foundation_bridge.h"

namespace corvelstow::platform::apple {
namespace {

NSDate* dateFrom(StowDate date) {
  return [NSDate
      dateWithTimeIntervalSince1970:static_cast<NSTimeInterval>(date.time_since_epoch().count())];
}

}  // namespace

FoundationFormatters::FoundationFormatters() : relative_([NSRelativeDateTimeFormatter new]) {
  relative_.unitsStyle = NSRelativeDateTimeFormatterUnitsStyleFull;
}

std::string FoundationFormatters::byteCount(std::int64_t bytes) const {
  std::string plain = std::to_string(bytes) + " bytes";
  return catchingAll(plain, [bytes, &plain] {
    return stringFrom([NSByteCountFormatter stringFromByteCount:bytes
                                                     countStyle:NSByteCountFormatterCountStyleFile])
        .value_or(plain);
  });
}

std::string FoundationFormatters::relativeDate(StowDate date, StowDate now) const {
  std::string plain = formatInternetDate(date);
  NSRelativeDateTimeFormatter* formatter = relative_;
  return catchingAll(plain, [&] {
    return stringFrom([formatter localizedStringForDate:dateFrom(date)
                                         relativeToDate:dateFrom(now)])
        .value_or(plain);
  });
}

std::string FoundationFormatters::dateAndTime(StowDate date) const {
  std::string plain = formatInternetDate(date);
  return catchingAll(plain, [&] {
    return stringFrom([NSDateFormatter localizedStringFromDate:dateFrom(date)
                                                     dateStyle:NSDateFormatterMediumStyle
                                                     timeStyle:NSDateFormatterShortStyle])
        .value_or(plain);
  });
}

}  // namespace corvelstow::platform::apple
