// Time zones, date components and the Gregorian calendar.
//
// Calendar work is done by ICU's Gregorian calendar, which counts days by the
// Julian calendar before 15 October 1582 (4 October 1582 is followed by
// 15 October). Dates are Value's Date: seconds since 1970-01-01 00:00:00 GMT.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// The current instant.
Date currentDate();

// A time zone: a fixed offset or a region with its daylight-saving rules.
// Immutable; copies share the rules and may be used from any thread.
class TimeZone {
 public:
  // The zone with offset 0 from GMT ("GMT").
  static TimeZone gmt();
  // The zone of an identifier such as "America/Sao_Paulo" or "GMT+0130";
  // absent for an identifier the time-zone database does not know.
  static std::optional<TimeZone> withIdentifier(std::string_view identifier);
  // The zone the host set with setDefaultTimeZone(), or else the system's
  // zone as detected when this is called.
  static TimeZone defaultTimeZone();
  // Sets the zone that defaultTimeZone() answers from now on; absent goes back
  // to the system's zone. Caches made from the default earlier keep theirs.
  static void setDefaultTimeZone(std::optional<TimeZone> zone);

  std::string identifier() const;
  // Seconds to add to a GMT reading to get the zone's wall clock at `date`,
  // daylight saving included.
  double secondsFromGMTForDate(Date date) const;

  bool operator==(const TimeZone& other) const;

  struct Rules;

 private:
  explicit TimeZone(std::shared_ptr<const Rules> rules) : rules_(std::move(rules)) {}
  std::shared_ptr<const Rules> rules_;
  friend class Calendar;
};

// Calendar fields, each either set or absent.
enum CalendarUnit : uint32_t {
  CalendarUnitEra = 1u << 1,
  CalendarUnitYear = 1u << 2,
  CalendarUnitMonth = 1u << 3,
  CalendarUnitDay = 1u << 4,
  CalendarUnitHour = 1u << 5,
  CalendarUnitMinute = 1u << 6,
  CalendarUnitSecond = 1u << 7,
  CalendarUnitWeekday = 1u << 9,
  CalendarUnitWeekdayOrdinal = 1u << 10,
  CalendarUnitWeekOfMonth = 1u << 12,
  CalendarUnitWeekOfYear = 1u << 13,
};

// Date components: the fields a calendar reads or makes a date from. Months
// count from 1, weekdays from 1 (Sunday); era 0 is before Christ, 1 after.
// `week` is the old name of the week of the year; a calendar treats it as
// weekOfYear when that one is absent.
struct DateComponents {
  std::optional<int64_t> era = {}, year = {}, month = {}, day = {}, hour = {}, minute = {}, second = {};
  std::optional<int64_t> weekday = {}, weekdayOrdinal = {}, week = {}, weekOfMonth = {}, weekOfYear = {};

  bool operator==(const DateComponents&) const = default;
};

// A Gregorian calendar (Julian before 15 October 1582) in one time zone, with
// the first day of the week on Sunday. It keeps scratch state, so one Calendar
// is used by one thread at a time; copies are independent.
class Calendar {
 public:
  explicit Calendar(const TimeZone& zone);
  Calendar(const Calendar& other);
  Calendar& operator=(const Calendar& other);
  Calendar(Calendar&&) noexcept;
  Calendar& operator=(Calendar&&) noexcept;
  ~Calendar();

  const TimeZone& timeZone() const { return zone_; }

  // The date of the components: fields that are absent take their earliest
  // value (January, day 1, midnight; year 1970, era after Christ), and values
  // outside their range carry over (month 13 is January of the next year).
  // Absent when the result lies outside what the calendar can count.
  std::optional<Date> dateFromComponents(const DateComponents& components) const;
  // The fields named in `units` of `date` in this calendar's zone; absent
  // fields for units not asked for, and for a date the calendar cannot count.
  DateComponents componentsOfDate(uint32_t units, Date date) const;
  // `date` moved by each field that is set (larger units first), on the wall
  // clock of this zone. Absent when the result cannot be counted. `options`
  // is accepted for the documented signature and has no effect.
  std::optional<Date> dateByAddingComponentsToDate(const DateComponents& components, Date date,
                                                   uint32_t options = 0) const;
  // The difference from `from` to `to` in the units asked for, the largest
  // first; negative when `to` is earlier. Only era, year, month, day, hour,
  // minute, second and week of year are counted.
  DateComponents componentsFromDateToDate(uint32_t units, Date from, Date to, uint32_t options = 0) const;

  // The weekday names of the locale (ICU identifier; empty for ICU's default),
  // Sunday first.
  static std::vector<std::string> weekdaySymbols(std::string_view localeIdentifier = {});

  struct Engine;

 private:
  TimeZone zone_;
  std::unique_ptr<Engine> engine_;
};

}  // namespace loomwork
#pragma GCC visibility pop
