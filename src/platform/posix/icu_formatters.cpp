#include "platform/posix/icu_formatters.h"

#include <unicode/ucal.h>
#include <unicode/udat.h>
#include <unicode/uloc.h>
#include <unicode/unum.h>
#include <unicode/ureldatefmt.h>
#include <unicode/ustring.h>

#include <array>
#include <stdexcept>

namespace corvelstow::platform {

namespace {

constexpr int kTextCapacity = 256;

void check(UErrorCode status, const char* what) {
  if (U_FAILURE(status)) {
    throw std::runtime_error(std::string("ICU could not ") + what + ": " + u_errorName(status));
  }
}

std::string toUtf8(const UChar* text, int32_t length) {
  UErrorCode status = U_ZERO_ERROR;
  std::string bytes(static_cast<std::size_t>(length) * 3, '\0');
  int32_t written = 0;
  u_strToUTF8(bytes.data(), static_cast<int32_t>(bytes.size()), &written, text, length, &status);
  check(status, "convert a text");
  bytes.resize(static_cast<std::size_t>(written));
  return bytes;
}

std::u16string toUtf16(const std::string& text) {
  UErrorCode status = U_ZERO_ERROR;
  std::u16string units(text.size() + 1, u'\0');
  int32_t written = 0;
  u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &written, text.data(),
                static_cast<int32_t>(text.size()), &status);
  check(status, "convert a text");
  units.resize(static_cast<std::size_t>(written));
  return units;
}

UDate toUDate(StowDate date) {
  return static_cast<UDate>(date.time_since_epoch().count()) * 1000.0;
}

// The POSIX locale ("C", or LANG unset) is meant for machine-readable output, and the root
// locale (an empty LC_ALL) has no names for anything; the panel's texts are English, so they
// are formatted for en_US there.
std::string localeName(const std::string& requested) {
  std::string name = requested.empty() ? uloc_getDefault() : requested;
  return name.empty() || name == "root" || name == "en_US_POSIX" ? "en_US" : name;
}

// The decimal units of the file style: how many bytes make one, and how many fraction digits
// the adaptive style shows for it.
struct ByteUnit {
  const char* name;
  double size;
  int fractionDigits;
};
constexpr std::array<ByteUnit, 6> kByteUnits{{{"KB", 1e3, 0},
                                              {"MB", 1e6, 1},
                                              {"GB", 1e9, 2},
                                              {"TB", 1e12, 2},
                                              {"PB", 1e15, 2},
                                              {"EB", 1e18, 2}}};

// The calendar units a relative date may be given in, largest first.
struct RelativeUnit {
  UCalendarDateFields field;
  URelativeDateTimeUnit unit;
};
constexpr std::array<RelativeUnit, 7> kRelativeUnits{{{UCAL_YEAR, UDAT_REL_UNIT_YEAR},
                                                      {UCAL_MONTH, UDAT_REL_UNIT_MONTH},
                                                      {UCAL_WEEK_OF_YEAR, UDAT_REL_UNIT_WEEK},
                                                      {UCAL_DATE, UDAT_REL_UNIT_DAY},
                                                      {UCAL_HOUR_OF_DAY, UDAT_REL_UNIT_HOUR},
                                                      {UCAL_MINUTE, UDAT_REL_UNIT_MINUTE},
                                                      {UCAL_SECOND, UDAT_REL_UNIT_SECOND}}};

}  // namespace

struct IcuFormatters::Handles {
  UNumberFormat* number = nullptr;
  URelativeDateTimeFormatter* relative = nullptr;
  UDateFormat* date = nullptr;
  UCalendar* calendar = nullptr;

  ~Handles() {
    if (calendar) ucal_close(calendar);
    if (date) udat_close(date);
    if (relative) ureldatefmt_close(relative);
    if (number) unum_close(number);
  }

  std::string formatNumber(double value, int fractionDigits) const {
    unum_setAttribute(number, UNUM_MIN_FRACTION_DIGITS, 0);
    unum_setAttribute(number, UNUM_MAX_FRACTION_DIGITS, fractionDigits);
    UChar text[kTextCapacity];
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = unum_formatDouble(number, value, text, kTextCapacity, nullptr, &status);
    check(status, "format a number");
    return toUtf8(text, length);
  }
};

IcuFormatters::IcuFormatters(const std::string& locale, const std::string& timeZone)
    : handles_(std::make_unique<Handles>()) {
  std::string name = localeName(locale);
  std::u16string zone = toUtf16(timeZone);
  const UChar* zoneID = timeZone.empty() ? nullptr : reinterpret_cast<const UChar*>(zone.c_str());
  int32_t zoneLength = timeZone.empty() ? 0 : -1;

  UErrorCode status = U_ZERO_ERROR;
  handles_->number = unum_open(UNUM_DECIMAL, nullptr, 0, name.c_str(), nullptr, &status);
  check(status, "open a number format");
  handles_->relative = ureldatefmt_open(name.c_str(), nullptr, UDAT_STYLE_LONG,
                                        UDISPCTX_CAPITALIZATION_NONE, &status);
  check(status, "open a relative date format");
  handles_->date =
      udat_open(UDAT_SHORT, UDAT_MEDIUM, name.c_str(), zoneID, zoneLength, nullptr, 0, &status);
  check(status, "open a date format");
  handles_->calendar = ucal_open(zoneID, zoneLength, name.c_str(), UCAL_GREGORIAN, &status);
  check(status, "open a calendar");
}

IcuFormatters::~IcuFormatters() = default;

std::string IcuFormatters::byteCount(std::int64_t bytes) const {
  if (bytes == 0) return "Zero KB";
  double value = static_cast<double>(bytes);
  double magnitude = value < 0 ? -value : value;
  if (magnitude == 1) return handles_->formatNumber(value, 0) + " byte";
  if (magnitude < kByteUnits.front().size) return handles_->formatNumber(value, 0) + " bytes";
  const ByteUnit* unit = &kByteUnits.front();
  for (const ByteUnit& larger : kByteUnits) {
    if (magnitude >= larger.size) unit = &larger;
  }
  return handles_->formatNumber(value / unit->size, unit->fractionDigits) + " " + unit->name;
}

std::string IcuFormatters::relativeDate(StowDate date, StowDate now) const {
  // Step the calendar from `now` towards `date` one unit size at a time, as the calendar's
  // component difference does: the first unit with a whole count is the one shown.
  UErrorCode status = U_ZERO_ERROR;
  ucal_setMillis(handles_->calendar, toUDate(now), &status);
  check(status, "set a calendar");
  int32_t count = 0;
  URelativeDateTimeUnit unit = UDAT_REL_UNIT_SECOND;
  for (const RelativeUnit& candidate : kRelativeUnits) {
    count = ucal_getFieldDifference(handles_->calendar, toUDate(date), candidate.field, &status);
    check(status, "compare two dates");
    unit = candidate.unit;
    if (count != 0) break;
  }
  UChar text[kTextCapacity];
  int32_t length =
      ureldatefmt_formatNumeric(handles_->relative, count, unit, text, kTextCapacity, &status);
  check(status, "format a relative date");
  return toUtf8(text, length);
}

std::string IcuFormatters::dateAndTime(StowDate date) const {
  UChar text[kTextCapacity];
  UErrorCode status = U_ZERO_ERROR;
  int32_t length =
      udat_format(handles_->date, toUDate(date), text, kTextCapacity, nullptr, &status);
  check(status, "format a date");
  return toUtf8(text, length);
}

}  // namespace corvelstow::platform
