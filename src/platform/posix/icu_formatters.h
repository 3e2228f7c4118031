#pragma once

#include <memory>
#include <string>

#include "platform/formatters.h"

namespace corvelstow::platform {

/// The formatters over ICU. Byte counts use ICU for the number and English unit names;
/// relative dates use ICU's relative date-time formatter in its long, numeric style, over
/// calendar differences in the given time zone; dates use ICU's medium date and short time.
/// Not for use from several threads at once.
class IcuFormatters final : public Formatters {
 public:
  /// Formatters for `locale` (an ICU locale name such as "en_US") and `timeZone` (an Olson
  /// name such as "Europe/Berlin"). Empty names mean the process's own (LANG, TZ). Throws
  /// std::runtime_error when ICU cannot open them.
  explicit IcuFormatters(const std::string& locale = {}, const std::string& timeZone = {});
  ~IcuFormatters() override;
  IcuFormatters(const IcuFormatters&) = delete;
  IcuFormatters& operator=(const IcuFormatters&) = delete;

  std::string byteCount(std::int64_t bytes) const override;
  std::string relativeDate(StowDate date, StowDate now) const override;
  std::string dateAndTime(StowDate date) const override;

 private:
  struct Handles;
  std::unique_ptr<Handles> handles_;
};

}  // namespace corvelstow::platform
