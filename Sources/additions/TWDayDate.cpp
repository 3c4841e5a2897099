#include "loomwork/additions/TWDayDate.h"


#include <array>
#include <cmath>
#include <functional>
#include <mutex>

#include "loomwork/platform/LocalizedStrings.h"
#include "loomwork/platform/Log.h"
#include "platform/CivilDate.h"

namespace loomwork {

namespace {

constexpr double kSecondsPerYear = 31536000.0;
constexpr double kSecondsPerDay = 86400.0;
// About ±2.9 million years: within what the calendar counts, and day counts
// between two such dates fit its 32-bit differences.
constexpr double kWholeDayRange = 9.2e13;

bool isWholeDayInCalendarRange(double seconds) {
  return std::fabs(seconds) <= kWholeDayRange && std::fmod(seconds, kSecondsPerDay) == 0;
}

// The local zone of the process: taken from the default zone on first use and
// kept, so that a device that changes zones does not shift the days it made.
std::mutex& localZoneMutex() {
  static std::mutex mutex;
  return mutex;
}

double localOffsetAt(Date date) {
  std::lock_guard<std::mutex> lock(localZoneMutex());
  static const TimeZone zone = TimeZone::defaultTimeZone();
  return zone.secondsFromGMTForDate(date);
}

Ref<TWDayDate> selfRef(const TWDayDate& day) {
  if (Ref<const TWDayDate> owned = day.ref<TWDayDate>()) return std::const_pointer_cast<TWDayDate>(owned);
  return day.copy();
}

}  // namespace

TWDayDate::TWDayDate() : TWDayDate(_GMTDateForLocalDate(currentDate())) {}

TWDayDate::TWDayDate(Date gmtDate) : gmtDateAtMidnight_(_gmtDateAtMidnightForGMTDate(gmtDate).value_or(gmtDate)) {}

TimeZone TWDayDate::gmtTimeZone() { return TimeZone::gmt(); }

Calendar& TWDayDate::gmtCalendar() {
  thread_local Calendar calendar(TimeZone::gmt());
  return calendar;
}

Date TWDayDate::_GMTDateForLocalDate(Date localDate) {
  return Date{localDate.secondsSince1970 + localOffsetAt(localDate)};
}

std::optional<Date> TWDayDate::_gmtDateAtMidnightForGMTDate(Date gmtDate) {
  // Every GMT day is 86400 seconds long (the Julian-to-Gregorian change
  // renames days, it does not shorten them), so a whole multiple of a day is
  // already the midnight that the calendar would make of its fields.
  if (isWholeDayInCalendarRange(gmtDate.secondsSince1970)) return gmtDate;
  Calendar& calendar = gmtCalendar();
  DateComponents c =
      calendar.componentsOfDate(CalendarUnitEra | CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay, gmtDate);
  if (!c.day) return std::nullopt;
  c.hour = 0;
  c.minute = 0;
  c.second = 0;
  return calendar.dateFromComponents(c);
}

Ref<TWDayDate> TWDayDate::today() { return make<TWDayDate>(); }

Ref<TWDayDate> TWDayDate::distantPast() {
  return make<TWDayDate>(GMTDateAtMidnight{TWDayDateDistantPastTimeIntervalSince1970});
}

Ref<TWDayDate> TWDayDate::distantFuture() {
  return make<TWDayDate>(GMTDateAtMidnight{TWDayDateDistantFutureTimeIntervalSince1970});
}

Ref<TWDayDate> TWDayDate::dayDateWithYearMonthDay(int64_t year, int64_t month, int64_t day) {
  DateComponents c;
  c.year = year;
  c.month = month;
  c.day = day;
  return dayDateWithGMTDateAtMidnight(gmtCalendar().dateFromComponents(c));
}

Ref<TWDayDate> TWDayDate::dayDateWithComponents(const DateComponents& components) {
  return dayDateWithGMTDate(gmtCalendar().dateFromComponents(components));
}

Ref<TWDayDate> TWDayDate::dayDateWithDaysFromToday(int64_t days) { return today()->dateByAddingDays(days); }

Ref<TWDayDate> TWDayDate::dayDateWithLocalDate(std::optional<Date> localDate) {
  if (!localDate) return nullptr;
  return dayDateWithGMTDate(_GMTDateForLocalDate(*localDate));
}

Ref<TWDayDate> TWDayDate::dayDateWithGMTDate(std::optional<Date> gmtDate) {
  if (!gmtDate) return nullptr;
  std::optional<Date> midnight = _gmtDateAtMidnightForGMTDate(*gmtDate);
  if (!midnight) return nullptr;
  return make<TWDayDate>(GMTDateAtMidnight{midnight->secondsSince1970});
}

Ref<TWDayDate> TWDayDate::dayDateWithGMTDateAtMidnight(std::optional<Date> gmtDateAtMidnight) {
  if (!gmtDateAtMidnight) return nullptr;
  return make<TWDayDate>(GMTDateAtMidnight{gmtDateAtMidnight->secondsSince1970});
}

Ref<TWDayDate> TWDayDate::copy() const {
  return make<TWDayDate>(GMTDateAtMidnight{gmtDateAtMidnight_.secondsSince1970});
}

bool TWDayDate::isDistantPast() const {
  return std::fabs(gmtDateAtMidnight_.secondsSince1970 - TWDayDateDistantPastTimeIntervalSince1970) <= kSecondsPerYear;
}

bool TWDayDate::isDistantFuture() const {
  return std::fabs(gmtDateAtMidnight_.secondsSince1970 - TWDayDateDistantFutureTimeIntervalSince1970) <=
         kSecondsPerYear;
}

Ref<TWDayDate> TWDayDate::dateByAddingDays(int64_t days) const {
  DateComponents c;
  c.day = days;
  return dayDateWithGMTDate(gmtCalendar().dateByAddingComponentsToDate(c, gmtDateAtMidnight_, 0));
}

int64_t TWDayDate::daysFromTo(const TWDayDate& from, const TWDayDate& to) {
  // Between two GMT midnights the calendar counts exactly the elapsed days.
  const double a = from.gmtDateAtMidnight_.secondsSince1970, b = to.gmtDateAtMidnight_.secondsSince1970;
  if (isWholeDayInCalendarRange(a) && isWholeDayInCalendarRange(b))
    return static_cast<int64_t>((b - a) / kSecondsPerDay);
  return gmtCalendar()
      .componentsFromDateToDate(CalendarUnitDay, from.gmtDateAtMidnight_, to.gmtDateAtMidnight_, 0)
      .day.value_or(0);
}

int64_t TWDayDate::daysFromTo(const Ref<TWDayDate>& from, const Ref<TWDayDate>& to) {
  if (!from || !to) return 0;
  return daysFromTo(*from, *to);
}

int64_t TWDayDate::daysUntil(const Ref<TWDayDate>& other) const { return other ? daysFromTo(*this, *other) : 0; }
int64_t TWDayDate::daysFrom(const Ref<TWDayDate>& other) const { return other ? daysFromTo(*other, *this) : 0; }
int64_t TWDayDate::daysUntilToday() const { return daysFromTo(*this, *today()); }
int64_t TWDayDate::daysFromToday() const { return daysFromTo(*today(), *this); }

DateComponents TWDayDate::components(uint32_t units) const {
  return gmtCalendar().componentsOfDate(units, gmtDateAtMidnight_);
}

DateComponents TWDayDate::dateComponents() const {
  return components(CalendarUnitEra | CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay);
}

bool TWDayDate::isSameDay(const Ref<TWDayDate>& other) const {
  return other && gmtDateAtMidnight_ == other->gmtDateAtMidnight_;
}
bool TWDayDate::isLaterThanDay(const Ref<TWDayDate>& other) const {
  return other && isLaterThanDate(gmtDateAtMidnight_, other->gmtDateAtMidnight_);
}
bool TWDayDate::isLaterOrEqualToDay(const Ref<TWDayDate>& other) const {
  return other && isLaterOrEqualToDate(gmtDateAtMidnight_, other->gmtDateAtMidnight_);
}
bool TWDayDate::isEarlierThanDay(const Ref<TWDayDate>& other) const {
  return other && isEarlierThanDate(gmtDateAtMidnight_, other->gmtDateAtMidnight_);
}
bool TWDayDate::isEarlierOrEqualToDay(const Ref<TWDayDate>& other) const {
  return other && isEarlierOrEqualToDate(gmtDateAtMidnight_, other->gmtDateAtMidnight_);
}

Ref<TWDayDate> TWDayDate::earlierDay(const Ref<TWDayDate>& other) const {
  return isLaterThanDay(other) ? other : selfRef(*this);
}

Ref<TWDayDate> TWDayDate::laterDay(const Ref<TWDayDate>& other) const {
  return isEarlierThanDay(other) ? other : selfRef(*this);
}

bool TWDayDate::isEqual(const Object& other) const {
  const auto* day = dynamic_cast<const TWDayDate*>(&other);
  return day != nullptr && day->gmtDateAtMidnight_ == gmtDateAtMidnight_;
}

size_t TWDayDate::hash() const { return Value(gmtDateAtMidnight_).hash(); }

ComparisonResult TWDayDate::compare(const TWDayDate& other) const {
  if (isEarlierThanDate(gmtDateAtMidnight_, other.gmtDateAtMidnight_)) return OrderedAscending;
  if (isLaterThanDate(gmtDateAtMidnight_, other.gmtDateAtMidnight_)) return OrderedDescending;
  return OrderedSame;
}

std::optional<Date> TWDayDate::localDateAtMidnight() const {
  return Calendar(TimeZone::defaultTimeZone()).dateFromComponents(dateComponents());
}

std::string TWDayDate::description() const { return "TWDayDate " + Value(gmtDateAtMidnight_).description(); }

// Date-components factories.

DateComponents componentsWithWeekday(int64_t weekday) { return {.weekday = weekday}; }
DateComponents componentsWithDay(int64_t day) { return {.day = day}; }
DateComponents componentsWithWeek(int64_t week) { return {.week = week}; }
DateComponents componentsWithWeekOfMonth(int64_t weekOfMonth) { return {.weekOfMonth = weekOfMonth}; }
DateComponents componentsWithWeekOfYear(int64_t weekOfYear) { return {.weekOfYear = weekOfYear}; }
DateComponents componentsWithMonth(int64_t month) { return {.month = month}; }
DateComponents componentsWithYear(int64_t year) { return {.year = year}; }
DateComponents componentsWithYearMonthDay(int64_t year, int64_t month, int64_t day) {
  return {.year = year, .month = month, .day = day};
}
DateComponents componentsWithWeekdayOrdinal(int64_t weekday, int64_t ordinal) {
  return {.weekday = weekday, .weekdayOrdinal = ordinal};
}
DateComponents componentsWithMonthDay(int64_t month, int64_t day) { return {.month = month, .day = day}; }
DateComponents componentsWithMonthWeekdayOrdinal(int64_t month, int64_t weekday, int64_t ordinal) {
  return {.month = month, .weekday = weekday, .weekdayOrdinal = ordinal};
}
DateComponents componentsWithHour(int64_t hour) { return {.hour = hour}; }
DateComponents componentsWithMinute(int64_t minute) { return {.minute = minute}; }
DateComponents componentsWithHourMinute(int64_t hour, int64_t minute) { return {.hour = hour, .minute = minute}; }

// Calendar operations.

std::optional<Date> dateByNormalizingDateToLocalMidnight(const Calendar& calendar, Date date) {
  DateComponents c = calendar.componentsOfDate(CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay, date);
  if (!c.day) return std::nullopt;
  return calendar.dateFromComponents(c);
}

std::optional<Date> todayAtMidnight(const Calendar& calendar) {
  return dateByNormalizingDateToLocalMidnight(calendar, currentDate());
}

std::optional<Date> yesterdayAtMidnight(const Calendar& calendar) {
  std::optional<Date> today = todayAtMidnight(calendar);
  return today ? calendar.dateByAddingComponentsToDate(componentsWithDay(-1), *today) : std::nullopt;
}

std::optional<Date> tomorrowAtMidnight(const Calendar& calendar) {
  std::optional<Date> today = todayAtMidnight(calendar);
  return today ? calendar.dateByAddingComponentsToDate(componentsWithDay(1), *today) : std::nullopt;
}

bool isDateOnSameDayAsDate(const Calendar& calendar, Date a, Date b) {
  const uint32_t units = CalendarUnitEra | CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay;
  const DateComponents x = calendar.componentsOfDate(units, a);
  const DateComponents y = calendar.componentsOfDate(units, b);
  return x.day && y.day && x.era == y.era && x.year == y.year && x.month == y.month && x.day == y.day;
}

bool isDateToday(const Calendar& calendar, Date date) {
  std::optional<Date> day = todayAtMidnight(calendar);
  return day && isDateOnSameDayAsDate(calendar, date, *day);
}

bool isDateYesterday(const Calendar& calendar, Date date) {
  std::optional<Date> day = yesterdayAtMidnight(calendar);
  return day && isDateOnSameDayAsDate(calendar, date, *day);
}

bool isDateTomorrow(const Calendar& calendar, Date date) {
  std::optional<Date> day = tomorrowAtMidnight(calendar);
  return day && isDateOnSameDayAsDate(calendar, date, *day);
}

std::vector<std::string> weekdaySymbolsForUseWithOn() {
  static constexpr std::array<const char*, 7> kKeys = {"Sunday-On",   "Monday-On", "Tuesday-On", "Wednesday-On",
                                                       "Thursday-On", "Friday-On", "Saturday-On"};
  static constexpr std::array<const char*, 7> kDefaults = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                           "Thursday", "Friday", "Saturday"};
  std::vector<std::string> names = Calendar::weekdaySymbols();
  names.resize(7);
  for (size_t i = 0; i < 7; ++i) {
    std::string text = localizedString(kKeys[i], kDefaults[i]);
    if (!text.empty() && text != kKeys[i]) names[i] = std::move(text);
  }
  return names;
}

// Date-picker records. The documented walks step one year or one month at a
// time; the year steps are summed in closed form here (any 400 consecutive
// Gregorian years have 146097 days), so no input loops for long. Sums that do
// not fit 64 bits wrap instead of overflowing.

namespace {

int64_t add(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b)); }
int64_t sub(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b)); }
int64_t mul(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b)); }

int64_t floorDiv(int64_t a, int64_t b) {
  const int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

bool isLeapYear(int64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }
int64_t daysInYear(int64_t y) { return isLeapYear(y) ? 366 : 365; }

int64_t daysInMonth(int64_t m, int64_t y) {
  switch (m) {
    case 1:
    case 3:
    case 5:
    case 7:
    case 8:
    case 10:
    case 12:
      return 31;
    case 4:
    case 6:
    case 9:
    case 11:
      return 30;
    case 2:
      return isLeapYear(y) ? 29 : 28;
    default:
      return -1;
  }
}

// Leap years among 1..y (negative for y < 0, so differences count any span).
int64_t leapYearsThrough(int64_t y) { return floorDiv(y, 4) - floorDiv(y, 100) + floorDiv(y, 400); }

// Days in the `count` years first, first + 1, ...
int64_t daysInYears(int64_t first, int64_t count) {
  return add(mul(365, count), sub(leapYearsThrough(sub(add(first, count), 1)), leapYearsThrough(sub(first, 1))));
}

constexpr int64_t kDaysIn400Years = 146097;
// Years (and day offsets) whose day counts from 1970 fit comfortably in 64 bits.
constexpr int64_t kPlainYearLimit = int64_t{1} << 40;

bool isPlainMonth(const TWDatePickerDate& d) {
  return d.month >= 1 && d.month <= 12 && d.year > -kPlainYearLimit && d.year < kPlainYearLimit;
}

// Days from 1970-01-01 to the first of the record's month.
int64_t firstOfMonth(const TWDatePickerDate& d) { return daysFromCivil(d.year, static_cast<unsigned>(d.month), 1); }

}  // namespace

TWDatePickerDate TWDatePickerDateFromTWDayDate(const TWDayDate& dayDate) {
  const DateComponents c = dayDate.dateComponents();
  return {c.year.value_or(0), c.month.value_or(0), c.day.value_or(0)};
}

Ref<TWDayDate> TWDatePickerDateToTWDayDate(TWDatePickerDate date) {
  return TWDayDate::dayDateWithYearMonthDay(date.year, date.month, date.day);
}

int64_t TWDatePickerDateGetDifferenceToDate(TWDatePickerDate a, TWDatePickerDate b) {
  // With both months in range the walk sums exactly the days between the
  // first days of the two months, whichever comes first.
  if (isPlainMonth(a) && isPlainMonth(b)) return sub(add(firstOfMonth(b), b.day), add(firstOfMonth(a), a.day));
  const bool ordered = TWDatePickerDateCompareToDate(a, b) != OrderedDescending;
  const int64_t sign = ordered ? 1 : -1;
  const TWDatePickerDate& from = ordered ? a : b;
  const TWDatePickerDate& to = ordered ? b : a;
  int64_t months = add(sub(to.month, from.month), mul(12, sub(to.year, from.year)));
  int64_t days = sub(to.day, from.day);
  int64_t year = from.year;
  int64_t month = from.month;
  if (months >= 13) {
    const int64_t steps = (months - 1) / 12;
    // From March on, a step crosses the next year's February; before March,
    // the current year's.
    days = add(days, daysInYears(month >= 3 ? add(year, 1) : year, steps));
    year = add(year, steps);
    months -= 12 * steps;
  }
  for (int64_t i = 0; i < months; ++i) {
    days = add(days, daysInMonth(month, year));
    month += 1;
    if (month == 13) {
      month = 1;
      year = add(year, 1);
    }
  }
  return mul(days, sign);
}

TWDatePickerDate TWDatePickerDateValidate(TWDatePickerDate date) {
  // With the caller's month in range every year step uses the length of the
  // year whose February it crosses, so the walk lands on the plain day count.
  if (isPlainMonth(date) && date.day > -kPlainYearLimit && date.day < kPlainYearLimit) {
    TWDatePickerDate result{};
    unsigned month = 0, day = 0;
    civilFromDays(firstOfMonth(date) + date.day - 1, result.year, month, day);
    result.month = month;
    result.day = day;
    return result;
  }
  const int64_t callersMonth = date.month;
  int64_t year = date.year;
  int64_t day = date.day;
  // Months into 1...12, carrying whole years.
  const int64_t monthIndex = sub(date.month, 1);
  year = add(year, floorDiv(monthIndex, 12));
  int64_t month = monthIndex % 12;
  if (month < 0) month += 12;
  month += 1;

  // Whole years forward while more than 365 days remain; 400-year blocks at a
  // time while the walk would certainly still be stepping.
  if (day > 2 * 366) {
    const int64_t blocks = (day - 2 * 366) / kDaysIn400Years;
    day -= blocks * kDaysIn400Years;
    year = add(year, mul(blocks, 400));
  }
  while (day > 365) {
    if (callersMonth < 3) {
      day -= daysInYear(year);
      year = add(year, 1);
    } else {
      year = add(year, 1);
      day -= daysInYear(year);
    }
  }
  if (day < -2 * 366) {
    const int64_t blocks = (sub(-2 * 366, day)) / kDaysIn400Years;
    day += blocks * kDaysIn400Years;
    year = sub(year, mul(blocks, 400));
  }
  while (day < 1) {
    if (callersMonth < 3) {
      year = sub(year, 1);
      day += daysInYear(year);
    } else {
      day += daysInYear(year);
      year = sub(year, 1);
    }
  }
  while (day > daysInMonth(month, year)) {
    day -= daysInMonth(month, year);
    month += 1;
    if (month == 13) {
      month = 1;
      year = add(year, 1);
    }
  }
  while (day < 1) {
    month -= 1;
    if (month == 0) {
      month = 12;
      year = sub(year, 1);
    }
    day += daysInMonth(month, year);
  }
  return {year, month, day};
}

void TWDatePickerDateLog(TWDatePickerDate date) {
  logMessage(std::to_string(date.year) + "-" + std::to_string(date.month) + "-" + std::to_string(date.day));
}

}  // namespace loomwork
