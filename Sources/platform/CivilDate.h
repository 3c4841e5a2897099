// Conversions between day counts and proleptic Gregorian dates, shared by the
// text form of dates and the XML property-list dates.
#pragma once

#include <cstdint>

namespace loomwork {

// Days since 1970-01-01 of a proleptic Gregorian (year, month, day).
inline int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// The proleptic Gregorian (year, month, day) of a count of days since 1970-01-01.
inline void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y += (m <= 2);
}

// A moment in whole seconds since 1970-01-01 00:00:00 GMT, as calendar fields.
struct CivilTime {
  int64_t year;
  unsigned month, day;
  int hour, minute, second;
};

inline CivilTime civilTimeFromSeconds(int64_t seconds) {
  const int64_t days = seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
  const int64_t secondOfDay = seconds - days * 86400;
  CivilTime t{};
  civilFromDays(days, t.year, t.month, t.day);
  t.hour = static_cast<int>(secondOfDay / 3600);
  t.minute = static_cast<int>(secondOfDay / 60 % 60);
  t.second = static_cast<int>(secondOfDay % 60);
  return t;
}

}  // namespace loomwork
