#pragma once

// Objective-C++ only: the Apple formatters, the Foundation ones that formatters.h names.

#import <Foundation/Foundation.h>

#include "platform/formatters.h"

namespace corvelstow::platform::apple {

/// NSByteCountFormatter (file style), NSRelativeDateTimeFormatter (units style full) and
/// NSDateFormatter (medium date, short time), in the current locale and time zone. For the
/// main queue only. Should Foundation fail, the answer is a plain form: "{n} bytes", or the
/// internet date.
class FoundationFormatters final : public Formatters {
 public:
  FoundationFormatters();

  std::string byteCount(std::int64_t bytes) const override;
  std::string relativeDate(StowDate date, StowDate now) const override;
  std::string dateAndTime(StowDate date) const override;

 private:
  NSRelativeDateTimeFormatter* relative_;
};

}  // namespace corvelstow::platform::apple
