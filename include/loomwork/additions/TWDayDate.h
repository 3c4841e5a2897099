// TWDayDate: a calendar day without time of day or time zone; the date-picker
// day records and their arithmetic; date tests, date-components factories and
// calendar operations.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "loomwork/platform/Calendar.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// 1 January of year 1 (as the Julian-before-1582 calendar counts it), at
// midnight GMT, in seconds since 1970.
inline constexpr double TWDayDateDistantPastTimeIntervalSince1970 = -62135769600.0;
// 1 January 4001 at midnight GMT, in seconds since 1970.
inline constexpr double TWDayDateDistantFutureTimeIntervalSince1970 = 64092211200.0;

// A calendar day, stored as the instant of midnight GMT at its start, so two
// day dates are equal exactly when those instants are, wherever the device is.
// Immutable once made: it may be shared between threads freely.
//
// Calendar work goes through a Gregorian GMT calendar kept per thread
// (gmtCalendar()). The local time zone that "today" and local dates are read
// in is taken once per process, on first use, from TimeZone::defaultTimeZone(),
// and never refreshed: a host that manages its own zone (or a test) sets it
// with TimeZone::setDefaultTimeZone() before the first day date is made.
class TWDayDate : public Object {
 public:
  // Selects the constructor that takes its date as already at midnight.
  struct GMTDateAtMidnight {
    double secondsSince1970;
  };

  // init: today, the local calendar day of the current instant.
  TWDayDate();
  // initWithGMTDate: the GMT calendar day that contains `gmtDate`.
  explicit TWDayDate(Date gmtDate);
  // initWithGMTDateAtMidnight: the date as given, trusted to be a midnight.
  explicit TWDayDate(GMTDateAtMidnight gmtDateAtMidnight) : gmtDateAtMidnight_{gmtDateAtMidnight.secondsSince1970} {}

  // The time zone with offset 0 from GMT.
  static TimeZone gmtTimeZone();
  // The calling thread's Gregorian calendar in GMT, made on first use in that
  // thread ("TWDayDateGMTCalendar"). Use it only on that thread.
  static Calendar& gmtCalendar();
  // `localDate` moved by the local zone's offset from GMT at that date, so that
  // its GMT wall-clock reading is the local one of the argument.
  static Date _GMTDateForLocalDate(Date localDate);
  // Midnight GMT of the GMT calendar day (era, year, month, day) of the date;
  // absent when the calendar cannot count the date.
  static std::optional<Date> _gmtDateAtMidnightForGMTDate(Date gmtDate);

  static Ref<TWDayDate> today();
  static Ref<TWDayDate> distantPast();
  static Ref<TWDayDate> distantFuture();
  // The day of the components year, month and day in the GMT calendar (values
  // out of range carry over: month 13 is January of the next year). Empty when
  // the calendar can make no date of them.
  static Ref<TWDayDate> dayDateWithYearMonthDay(int64_t year, int64_t month, int64_t day);
  // The day of the GMT calendar's date for the components; empty when the
  // calendar makes none.
  static Ref<TWDayDate> dayDateWithComponents(const DateComponents& components);
  static Ref<TWDayDate> dayDateWithDaysFromToday(int64_t days);
  // Each is empty for an absent date.
  static Ref<TWDayDate> dayDateWithLocalDate(std::optional<Date> localDate);
  static Ref<TWDayDate> dayDateWithGMTDate(std::optional<Date> gmtDate);
  static Ref<TWDayDate> dayDateWithGMTDateAtMidnight(std::optional<Date> gmtDateAtMidnight);

  // copyWithZone: a new day date holding the same midnight.
  Ref<TWDayDate> copy() const;

  Date gmtDateAtMidnight() const { return gmtDateAtMidnight_; }

  // Within a year (365 days) of the distant past / distant future constants:
  // dates that went through day arithmetic or a zone shift near the ends count.
  bool isDistantPast() const;
  bool isDistantFuture() const;

  // The day `days` days later (earlier when negative). Empty when the result
  // lies outside what the calendar can count.
  Ref<TWDayDate> dateByAddingDays(int64_t days) const;
  Ref<TWDayDate> nextDay() const { return dateByAddingDays(1); }
  Ref<TWDayDate> previousDay() const { return dateByAddingDays(-1); }

  // Whole days from `from` to `to` in the GMT calendar, positive when `to` is
  // later; 0 when either is absent.
  static int64_t daysFromTo(const Ref<TWDayDate>& from, const Ref<TWDayDate>& to);
  static int64_t daysFromTo(const TWDayDate& from, const TWDayDate& to);
  int64_t daysUntil(const Ref<TWDayDate>& other) const;
  int64_t daysFrom(const Ref<TWDayDate>& other) const;
  int64_t daysUntilToday() const;
  int64_t daysFromToday() const;

  // The GMT calendar's fields of the midnight for `units` (CalendarUnit bits).
  DateComponents components(uint32_t units) const;
  // Era, year, month and day.
  DateComponents dateComponents() const;

  // Each is false when `other` is absent.
  bool isSameDay(const Ref<TWDayDate>& other) const;
  bool isLaterThanDay(const Ref<TWDayDate>& other) const;
  bool isLaterOrEqualToDay(const Ref<TWDayDate>& other) const;
  bool isEarlierThanDay(const Ref<TWDayDate>& other) const;
  bool isEarlierOrEqualToDay(const Ref<TWDayDate>& other) const;
  // `other` when it is the earlier (later) day, else the receiver: the receiver
  // when both are equal or `other` is absent.
  Ref<TWDayDate> earlierDay(const Ref<TWDayDate>& other) const;
  Ref<TWDayDate> laterDay(const Ref<TWDayDate>& other) const;

  // True only for a TWDayDate (or subclass) with the same midnight.
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  ComparisonResult compare(const TWDayDate& other) const;

  // The local midnight of the same calendar day: a Gregorian calendar in
  // TimeZone::defaultTimeZone() (read now) makes a date from dateComponents().
  // Where the local day starts later than midnight (a daylight-saving change at
  // midnight), the first moment of the local day. Absent when the calendar
  // cannot count it.
  std::optional<Date> localDateAtMidnight() const;

  // "TWDayDate " and the date's text form, such as
  // "TWDayDate 2020-02-29 00:00:00 +0000".
  std::string description() const override;

 private:
  Date gmtDateAtMidnight_;
};

// Date tests on two dates.
inline bool isEarlierThanDate(Date a, Date b) { return a.secondsSince1970 < b.secondsSince1970; }
inline bool isLaterThanDate(Date a, Date b) { return a.secondsSince1970 > b.secondsSince1970; }
inline bool isEarlierOrEqualToDate(Date a, Date b) { return !isLaterThanDate(a, b); }
inline bool isLaterOrEqualToDate(Date a, Date b) { return !isEarlierThanDate(a, b); }

// Date-components factories: new components with only the named fields set.
DateComponents componentsWithWeekday(int64_t weekday);
DateComponents componentsWithDay(int64_t day);
DateComponents componentsWithWeek(int64_t week);
DateComponents componentsWithWeekOfMonth(int64_t weekOfMonth);
DateComponents componentsWithWeekOfYear(int64_t weekOfYear);
DateComponents componentsWithMonth(int64_t month);
DateComponents componentsWithYear(int64_t year);
DateComponents componentsWithYearMonthDay(int64_t year, int64_t month, int64_t day);
DateComponents componentsWithWeekdayOrdinal(int64_t weekday, int64_t ordinal);
DateComponents componentsWithMonthDay(int64_t month, int64_t day);
DateComponents componentsWithMonthWeekdayOrdinal(int64_t month, int64_t weekday, int64_t ordinal);
DateComponents componentsWithHour(int64_t hour);
DateComponents componentsWithMinute(int64_t minute);
DateComponents componentsWithHourMinute(int64_t hour, int64_t minute);

// Calendar operations, in the calendar's own time zone. Dates are absent where
// the calendar cannot count them.
//
// The calendar's date from the year, month and day of `date` (the era is not
// carried over, so a date before Christ comes back in the year after).
std::optional<Date> dateByNormalizingDateToLocalMidnight(const Calendar& calendar, Date date);
std::optional<Date> todayAtMidnight(const Calendar& calendar);
std::optional<Date> yesterdayAtMidnight(const Calendar& calendar);
std::optional<Date> tomorrowAtMidnight(const Calendar& calendar);
// Era, year, month and day of both dates are equal.
bool isDateOnSameDayAsDate(const Calendar& calendar, Date a, Date b);
bool isDateToday(const Calendar& calendar, Date date);
bool isDateYesterday(const Calendar& calendar, Date date);
bool isDateTomorrow(const Calendar& calendar, Date date);

// Seven weekday names for use after "on", Sunday first: ICU's names for the
// default locale, each replaced by the application's localised string for
// "Sunday-On" ... "Saturday-On" (default "Sunday" ... "Saturday") unless the
// lookup yields nothing or the key itself.
std::vector<std::string> weekdaySymbolsForUseWithOn();

// A day as a date picker shows it: year, month (1 to 12 when valid) and day
// (1 to the month's length when valid). The functions below do Gregorian
// arithmetic on it without a calendar, with the Gregorian leap rule for every
// year (also before 1582, unlike TWDayDate's calendar). Any field values are
// accepted: nothing loops without bound, and sums too large for 64 bits wrap.
struct TWDatePickerDate {
  int64_t year;
  int64_t month;
  int64_t day;
};

// The year, month and day of the day date's dateComponents().
TWDatePickerDate TWDatePickerDateFromTWDayDate(const TWDayDate& dayDate);
// TWDayDate::dayDateWithYearMonthDay of the record.
Ref<TWDayDate> TWDatePickerDateToTWDayDate(TWDatePickerDate date);
inline bool TWDatePickerDateIsLeapYear(TWDatePickerDate date) {
  return date.year % 4 == 0 && (date.year % 100 != 0 || date.year % 400 == 0);
}
// 28 to 31, or -1 for a month outside 1 to 12.
inline int64_t TWDatePickerDateGetNumberOfDaysInMonth(TWDatePickerDate date) {
  constexpr int8_t kLengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (date.month < 1 || date.month > 12) return -1;
  return kLengths[date.month - 1] + (date.month == 2 && TWDatePickerDateIsLeapYear(date) ? 1 : 0);
}
// 365 or 366.
inline int64_t TWDatePickerDateGetNumberOfDaysInYear(TWDatePickerDate date) {
  return TWDatePickerDateIsLeapYear(date) ? 366 : 365;
}
// -1 if a < b, 0 if equal, 1 if a > b.
inline ComparisonResult TWComparisonResultForIntegers(int64_t a, int64_t b) {
  return a < b ? OrderedAscending : (a > b ? OrderedDescending : OrderedSame);
}
// Compares year, then month, then day: -1, 0 or 1.
inline ComparisonResult TWDatePickerDateCompareToDate(TWDatePickerDate a, TWDatePickerDate b) {
  if (a.year != b.year) return TWComparisonResultForIntegers(a.year, b.year);
  if (a.month != b.month) return TWComparisonResultForIntegers(a.month, b.month);
  return TWComparisonResultForIntegers(a.day, b.day);
}
inline bool TWDatePickerDateIsEqualToDate(TWDatePickerDate a, TWDatePickerDate b) {
  return a.year == b.year && a.month == b.month && a.day == b.day;
}
// Signed days from `a` to `b`. Months outside 1 to 12 count -1 day each where
// the walk through the months meets them.
int64_t TWDatePickerDateGetDifferenceToDate(TWDatePickerDate a, TWDatePickerDate b);
// The record with month and day carried into range. Days beyond a year are
// moved by whole years first, and which year's length is used depends on the
// month as passed in (below 3: the current year's), not the carried one.
TWDatePickerDate TWDatePickerDateValidate(TWDatePickerDate date);
// Writes "year-month-day" (as "%ld-%ld-%ld") through the log sink (logMessage),
// which goes to the system log unless the host replaced it.
void TWDatePickerDateLog(TWDatePickerDate date);

}  // namespace loomwork
#pragma GCC visibility pop
