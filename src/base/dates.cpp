#include "base/dates.h"

#include <cstdio>
#include <ctime>

namespace corvelstow {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
long long daysFromCivil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

CivilTime civilFromSeconds(long long seconds) {
  long long days = seconds / 86400;
  long long rest = seconds % 86400;
  if (rest < 0) rest += 86400, --days;
  days += 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  CivilTime civil;
  civil.year = static_cast<int>(static_cast<long long>(yoe) + era * 400 + (m <= 2));
  civil.month = static_cast<int>(m);
  civil.day = static_cast<int>(d);
  civil.hour = static_cast<int>(rest / 3600);
  civil.minute = static_cast<int>(rest / 60 % 60);
  civil.second = static_cast<int>(rest % 60);
  return civil;
}

bool isLeapYear(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int daysInMonth(int y, int m) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// Reads exactly `width` decimal digits at `pos`.
bool digits(std::string_view text, size_t pos, size_t width, int& out) {
  if (pos + width > text.size()) return false;
  out = 0;
  for (size_t i = pos; i < pos + width; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

}  // namespace

StowDate currentDate() {
  return std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
}

std::optional<StowDate> parseInternetDate(std::string_view text) {
  CivilTime t;
  if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text[13] != ':' || text[16] != ':')
    return std::nullopt;
  if (!digits(text, 0, 4, t.year) || !digits(text, 5, 2, t.month) ||
      !digits(text, 8, 2, t.day) || !digits(text, 11, 2, t.hour) ||
      !digits(text, 14, 2, t.minute) || !digits(text, 17, 2, t.second))
    return std::nullopt;
  if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > daysInMonth(t.year, t.month) ||
      t.hour > 23 || t.minute > 59 || t.second > 59)
    return std::nullopt;

  long long offset = 0;
  std::string_view zone = text.substr(19);
  if (zone != "Z") {
    int hours = 0, minutes = 0;
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':' ||
        !digits(zone, 1, 2, hours) || !digits(zone, 4, 2, minutes) || hours > 23 || minutes > 59)
      return std::nullopt;
    offset = (hours * 3600LL + minutes * 60LL) * (zone[0] == '-' ? -1 : 1);
  }
  long long seconds = daysFromCivil(t.year, static_cast<unsigned>(t.month),
                                    static_cast<unsigned>(t.day)) * 86400LL +
                      t.hour * 3600LL + t.minute * 60LL + t.second - offset;
  return StowDate(std::chrono::seconds(seconds));
}

std::string formatInternetDate(StowDate date) {
  CivilTime t = utcCivilTime(date);
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", t.year, t.month, t.day,
                t.hour, t.minute, t.second);
  return text;
}

CivilTime utcCivilTime(StowDate date) { return civilFromSeconds(date.time_since_epoch().count()); }

CivilTime localCivilTime(StowDate date) {
  std::time_t seconds = static_cast<std::time_t>(date.time_since_epoch().count());
  std::tm fields{};
  if (::localtime_r(&seconds, &fields) == nullptr) return utcCivilTime(date);
  return {fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,
          fields.tm_hour,        fields.tm_min,     fields.tm_sec};
}

}  // namespace corvelstow
