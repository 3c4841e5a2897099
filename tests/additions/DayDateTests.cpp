#include <gtest/gtest.h>
#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <random>

#include "loomwork/additions/TWDayDate.h"
#include "loomwork/platform/LocalizedStrings.h"
#include "platform/CivilDate.h"

namespace loomwork {
namespace {

// Day dates read local time in the zone fixed on first use: fix it to a zone
// whose daylight-saving changes fall at midnight before any test runs.
const bool kZoneFixed = [] {
  TimeZone::setDefaultTimeZone(TimeZone::withIdentifier("America/Sao_Paulo"));
  return true;
}();

constexpr double kDay = 86400;

Ref<TWDayDate> ymd(int64_t y, int64_t m, int64_t d) { return TWDayDate::dayDateWithYearMonthDay(y, m, d); }

// ICU's own GMT Gregorian calendar, as the reference.
struct IcuGMT {
  IcuGMT() : calendar(*icu::TimeZone::getGMT(), status) {}
  double addDays(double seconds, int32_t days) {
    calendar.setTime(seconds * 1000, status);
    calendar.add(UCAL_DATE, days, status);
    return calendar.getTime(status) / 1000;
  }
  int64_t daysBetween(double from, double to) {
    calendar.setTime(from * 1000, status);
    return calendar.fieldDifference(to * 1000, UCAL_DATE, status);
  }
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar calendar;
};

TEST(DayDate, DocumentedCasesAndObjectBehaviour) {
  ASSERT_TRUE(kZoneFixed);
  Ref<TWDayDate> leapDay = ymd(2020, 2, 29);
  Ref<TWDayDate> march1 = leapDay->nextDay();
  // Moving and counting days is checked against ICU below.
  EXPECT_TRUE(leapDay->daysUntil(march1) == 1 && leapDay->daysFrom(march1) == -1);
  EXPECT_EQ(0, TWDayDate::daysFromTo(leapDay, nullptr));
  EXPECT_TRUE(leapDay->isSameDay(march1->previousDay()));
  EXPECT_EQ("TWDayDate 2020-02-29 00:00:00 +0000", leapDay->description());

  Ref<TWDayDate> past = TWDayDate::distantPast();
  EXPECT_TRUE(past->isEqual(*ymd(1, 1, 1)));
  EXPECT_TRUE(TWDayDate::distantFuture()->isEqual(*ymd(4001, 1, 1)));
  EXPECT_TRUE(past->isDistantPast() && past->dateByAddingDays(364)->isDistantPast());
  EXPECT_FALSE(past->dateByAddingDays(366)->isDistantPast() || past->isDistantFuture());
  EXPECT_TRUE(TWDayDate::distantFuture()->dateByAddingDays(-365)->isDistantFuture());

  // Ordering and choosing; equal days and absent arguments give the receiver.
  Ref<TWDayDate> twin = ymd(2020, 2, 29);
  EXPECT_TRUE(leapDay->earlierDay(twin) == leapDay && leapDay->laterDay(twin) == leapDay);
  EXPECT_TRUE(leapDay->earlierDay(march1) == leapDay && leapDay->laterDay(march1) == march1);
  EXPECT_EQ(leapDay, leapDay->laterDay(nullptr));
  EXPECT_TRUE(leapDay->isEarlierThanDay(march1) && leapDay->isEarlierOrEqualToDay(twin));
  EXPECT_TRUE(march1->isLaterThanDay(leapDay) && march1->isLaterOrEqualToDay(march1));
  EXPECT_FALSE(leapDay->isSameDay(nullptr) || leapDay->isLaterOrEqualToDay(nullptr));
  EXPECT_EQ(OrderedAscending, leapDay->compare(*march1));
  EXPECT_EQ(OrderedSame, leapDay->compare(*twin));

  // Equality by midnight and class; copies are new objects with the same day.
  EXPECT_TRUE(leapDay->copy() != leapDay && leapDay->copy()->isEqual(*leapDay));
  EXPECT_TRUE(leapDay->isEqual(*twin) && leapDay->hash() == twin->hash());
  EXPECT_FALSE(leapDay->isEqual(*make<Object>()));
  // The unchecked constructor keeps its argument; the others normalise.
  EXPECT_EQ(100.0, TWDayDate::dayDateWithGMTDateAtMidnight(Date{100})->gmtDateAtMidnight().secondsSince1970);
  EXPECT_EQ(0.0, TWDayDate::dayDateWithGMTDate(Date{86399.5})->gmtDateAtMidnight().secondsSince1970);
  EXPECT_EQ(nullptr, TWDayDate::dayDateWithGMTDate(std::nullopt));
  EXPECT_EQ(nullptr, TWDayDate::dayDateWithGMTDate(Date{std::nan("")}));
  // Components carry over, as the calendar does.
  EXPECT_TRUE(ymd(2019, 14, 1)->isEqual(*ymd(2020, 2, 1)));
  // The second Sunday of May 2020.
  EXPECT_TRUE(TWDayDate::dayDateWithComponents({.year = 2020, .month = 5, .weekday = 1, .weekdayOrdinal = 2})
                  ->isEqual(*ymd(2020, 5, 10)));
  DateComponents expected{.era = 1, .year = 2020, .month = 2, .day = 29};
  EXPECT_EQ(expected, leapDay->dateComponents());
  EXPECT_EQ(7, *leapDay->components(CalendarUnitWeekday).weekday);  // a Saturday
}

// Half the days fall in 1500-1700, around the change from the Julian calendar.
TEST(DayDate, RandomDaysFromYear1To4000AgreeWithIcu) {
  const uint32_t seed = 20261123;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  IcuGMT icu;
  std::uniform_real_distribution<double> instant(TWDayDateDistantPastTimeIntervalSince1970,
                                                 TWDayDateDistantFutureTimeIntervalSince1970);
  const double from1500 = ymd(1500, 1, 1)->gmtDateAtMidnight().secondsSince1970;
  std::uniform_real_distribution<double> early(from1500, ymd(1700, 1, 1)->gmtDateAtMidnight().secondsSince1970);
  std::uniform_int_distribution<int32_t> offset(-500000, 500000);
  for (int round = 0; round < 6000; ++round) {
    const double t = round % 2 ? early(rng) : instant(rng);
    Ref<TWDayDate> day = TWDayDate::dayDateWithGMTDate(Date{t});
    const double midnight = day->gmtDateAtMidnight().secondsSince1970;
    ASSERT_TRUE(midnight <= t && t < midnight + kDay && std::fmod(midnight, kDay) == 0) << t;
    ASSERT_EQ(icu.addDays(midnight, 1), day->nextDay()->gmtDateAtMidnight().secondsSince1970) << day->description();
    ASSERT_EQ(icu.addDays(midnight, -1), day->previousDay()->gmtDateAtMidnight().secondsSince1970);
    const DateComponents c = day->dateComponents();  // the day made from its own components is itself
    ASSERT_TRUE(ymd(*c.year, *c.month, *c.day)->isEqual(*day)) << day->description();
    const int32_t n = round % 2 ? static_cast<int32_t>(icu.daysBetween(midnight, from1500)) : offset(rng);
    Ref<TWDayDate> moved = day->dateByAddingDays(n);
    ASSERT_EQ(icu.addDays(midnight, n), moved->gmtDateAtMidnight().secondsSince1970) << day->description() << " " << n;
    ASSERT_EQ(n, TWDayDate::daysFromTo(day, moved));
    ASSERT_EQ(-n, TWDayDate::daysFromTo(moved, day));
  }
  // The Julian calendar ends on 4 October 1582; the next day is 15 October.
  EXPECT_TRUE(ymd(1582, 10, 4)->nextDay()->isEqual(*ymd(1582, 10, 15)));
  EXPECT_TRUE(ymd(1500, 2, 28)->nextDay()->isEqual(*ymd(1500, 2, 29)));  // a Julian leap year
  EXPECT_TRUE(ymd(1700, 2, 28)->nextDay()->isEqual(*ymd(1700, 3, 1)));
}

TEST(DayDate, LocalMidnightDaylightSavingNeverMovesADay) {
  // In 2018 São Paulo left daylight saving at midnight on 18 February (the
  // clock went back to 23:00) and entered it at midnight on 4 November (the
  // clock jumped to 01:00): the local day is read from the local wall clock.
  Calendar local(*TimeZone::withIdentifier("America/Sao_Paulo"));
  const double start = ymd(2018, 1, 1)->gmtDateAtMidnight().secondsSince1970;
  for (double t = start; t < start + 366 * kDay; t += 1800) {
    const DateComponents c = local.componentsOfDate(CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay, Date{t});
    ASSERT_TRUE(TWDayDate::dayDateWithLocalDate(Date{t})->isEqual(*ymd(*c.year, *c.month, *c.day))) << t;
  }
  for (Ref<TWDayDate> day = ymd(2018, 1, 1); day->isEarlierThanDay(ymd(2019, 1, 1)); day = day->nextDay()) {
    const std::optional<Date> localMidnight = day->localDateAtMidnight();
    ASSERT_TRUE(localMidnight);
    ASSERT_TRUE(TWDayDate::dayDateWithLocalDate(localMidnight)->isEqual(*day)) << day->description();
  }
  // The local day that starts at 01:00 starts at 03:00 GMT.
  EXPECT_EQ(ymd(2018, 11, 4)->gmtDateAtMidnight().secondsSince1970 + 3 * 3600,
            ymd(2018, 11, 4)->localDateAtMidnight()->secondsSince1970);
  EXPECT_TRUE(TWDayDate::today()->isEqual(*TWDayDate::dayDateWithLocalDate(currentDate())));
  EXPECT_EQ(1, TWDayDate::dayDateWithDaysFromToday(1)->daysFromToday());
  EXPECT_EQ(-3, TWDayDate::dayDateWithDaysFromToday(3)->daysUntilToday());
}

TEST(DayDate, CalendarOperationsAndWeekdayNames) {
  Calendar gmt(TimeZone::gmt());
  const Date now = currentDate();
  const Date today = *todayAtMidnight(gmt);
  EXPECT_EQ(std::floor(now.secondsSince1970 / kDay) * kDay, today.secondsSince1970);
  EXPECT_TRUE(isDateToday(gmt, now));
  EXPECT_TRUE(isDateYesterday(gmt, Date{today.secondsSince1970 - 1}));
  EXPECT_TRUE(isDateTomorrow(gmt, Date{today.secondsSince1970 + kDay + 5}));
  EXPECT_FALSE(isDateTomorrow(gmt, now));
  // The era is not carried over: a day before Christ comes back after.
  const Date bc = ymd(-4, 6, 1)->gmtDateAtMidnight();
  EXPECT_EQ(0, *gmt.componentsOfDate(CalendarUnitEra, bc).era);
  const Date normalized = *dateByNormalizingDateToLocalMidnight(gmt, Date{bc.secondsSince1970 + 7200});
  EXPECT_EQ((DateComponents{.era = 1, .year = 5, .month = 6, .day = 1}),
            gmt.componentsOfDate(CalendarUnitEra | CalendarUnitYear | CalendarUnitMonth | CalendarUnitDay, normalized));
  EXPECT_FALSE(isDateOnSameDayAsDate(gmt, bc, normalized));

  // A name found replaces ICU's; the key itself keeps ICU's; a key the
  // application lacks yields the default, which replaces ICU's name too.
  setLocalizedStringProvider([](std::string_view key, std::string_view) -> std::optional<std::string> {
    if (key == "Sunday-On") return "am Sonntag";
    if (key == "Monday-On") return std::string(key);
    return std::nullopt;
  });
  const std::vector<std::string> names = weekdaySymbolsForUseWithOn();
  setLocalizedStringProvider(nullptr);
  ASSERT_EQ(7u, names.size());
  EXPECT_EQ("am Sonntag", names[0]);
  EXPECT_EQ(Calendar::weekdaySymbols()[1], names[1]);
  EXPECT_EQ("Saturday", names[6]);
  EXPECT_EQ("Montag", Calendar::weekdaySymbols("de")[1]);
}

// The record walks exactly as described, one year and one month at a time;
// which year's length a year step takes depends on the month.
int64_t walkDifference(TWDatePickerDate a, TWDatePickerDate b) {
  const bool ordered = TWDatePickerDateCompareToDate(a, b) != OrderedDescending;
  TWDatePickerDate from = ordered ? a : b, to = ordered ? b : a;
  int64_t months = (to.month - from.month) + 12 * (to.year - from.year);
  int64_t days = to.day - from.day;
  for (; months > 12; months -= 12) {
    const bool early = from.month < 3;
    if (!early) ++from.year;
    days += TWDatePickerDateGetNumberOfDaysInYear(from);
    if (early) ++from.year;
  }
  for (int64_t i = 0; i < months; ++i) {
    days += TWDatePickerDateGetNumberOfDaysInMonth(from);
    if (++from.month == 13) from.month = 1, from.year += 1;
  }
  return ordered ? days : -days;
}

TWDatePickerDate walkValidate(TWDatePickerDate date) {
  TWDatePickerDate r = date;
  const bool early = date.month < 3;  // the caller's month, not the normalised one
  while (r.month > 12) r.month -= 12, r.year += 1;
  while (r.month < 1) r.month += 12, r.year -= 1;
  while (r.day > 365) {
    if (!early) ++r.year;
    r.day -= TWDatePickerDateGetNumberOfDaysInYear(r);
    if (early) ++r.year;
  }
  while (r.day < 1) {
    if (early) --r.year;
    r.day += TWDatePickerDateGetNumberOfDaysInYear(r);
    if (!early) --r.year;
  }
  while (r.day > TWDatePickerDateGetNumberOfDaysInMonth(r)) {
    r.day -= TWDatePickerDateGetNumberOfDaysInMonth(r);
    if (++r.month == 13) r.month = 1, r.year += 1;
  }
  while (r.day < 1) {
    if (--r.month == 0) r.month = 12, r.year -= 1;
    r.day += TWDatePickerDateGetNumberOfDaysInMonth(r);
  }
  return r;
}

::testing::AssertionResult same(TWDatePickerDate a, TWDatePickerDate b) {
  if (TWDatePickerDateIsEqualToDate(a, b)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << a.year << "-" << a.month << "-" << a.day << " vs " << b.year << "-" << b.month
                                       << "-" << b.day;
}

TEST(DatePickerDate, DocumentedCasesAndDayCountModel) {
  // Normalising and differences are checked against the walks and the civil day count below.
  EXPECT_TRUE(same({2020, 2, 29}, TWDatePickerDateValidate({2020, 3, 0})));
  EXPECT_EQ(-1, TWDatePickerDateGetNumberOfDaysInMonth({2020, 13, 1}));
  // The Gregorian rule also before 1582, unlike the calendar.
  EXPECT_FALSE(TWDatePickerDateIsLeapYear({1500, 1, 1}));
  EXPECT_EQ(366, TWDatePickerDateGetNumberOfDaysInYear({-4, 1, 1}));
  EXPECT_EQ(OrderedDescending, TWComparisonResultForIntegers(3, -3));
  EXPECT_TRUE(same({2020, 2, 29}, TWDatePickerDateFromTWDayDate(*TWDatePickerDateToTWDayDate({2020, 2, 29}))));

  const uint32_t seed = 7041;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  auto pick = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
  for (int round = 0; round < 20000; ++round) {
    // Valid records: the difference is the plain day count, normalising a
    // day offset lands where the day count says, and comparison agrees.
    const TWDatePickerDate a{pick(-3000, 5000), pick(1, 12), 1}, b{pick(-3000, 5000), pick(1, 12), 1};
    const TWDatePickerDate da{a.year, a.month, pick(1, TWDatePickerDateGetNumberOfDaysInMonth(a))};
    const TWDatePickerDate db{b.year, b.month, pick(1, TWDatePickerDateGetNumberOfDaysInMonth(b))};
    const auto civil = [](TWDatePickerDate d) {
      return daysFromCivil(d.year, static_cast<unsigned>(d.month), static_cast<unsigned>(d.day));
    };
    ASSERT_EQ(civil(db) - civil(da), TWDatePickerDateGetDifferenceToDate(da, db));
    ASSERT_EQ(TWComparisonResultForIntegers(civil(da), civil(db)), TWDatePickerDateCompareToDate(da, db));
    const int64_t offset = pick(-2000, 2000);
    TWDatePickerDate expected{};
    unsigned m = 0, d = 0;
    civilFromDays(civil(da) + offset, expected.year, m, d);
    expected.month = m;
    expected.day = d;
    ASSERT_TRUE(same(expected, TWDatePickerDateValidate({da.year, da.month, da.day + offset})));

    // Any record: the closed forms give what the walks give.
    const TWDatePickerDate x{pick(-2000, 2000), pick(-30, 40), pick(-500000, 500000)};
    const TWDatePickerDate y{pick(-2000, 2000), pick(-30, 40), pick(-500000, 500000)};
    ASSERT_EQ(walkDifference(x, y), TWDatePickerDateGetDifferenceToDate(x, y));
    ASSERT_TRUE(same(walkValidate(x), TWDatePickerDateValidate(x)));
  }
  // Extreme fields neither hang nor trap.
  const TWDatePickerDate huge{INT64_MAX, INT64_MIN, INT64_MAX};
  TWDatePickerDateValidate(huge);
  TWDatePickerDateValidate({INT64_MIN, INT64_MAX, INT64_MIN});
  TWDatePickerDateGetDifferenceToDate(huge, {INT64_MIN, 7, INT64_MIN});
}

TEST(DatePickerDate, CallersMonthDecidesTheYearLengthWhenNormalising) {
  // Month 13 is January of the next year, but the year step reads the
  // caller's 13, so it takes the length of the year after: one day off the
  // day count (2020-01-01 plus 365 days is 2020-12-31).
  EXPECT_TRUE(same({2021, 1, 1}, TWDatePickerDateValidate({2019, 13, 366})));
  EXPECT_TRUE(same({2020, 12, 31}, TWDatePickerDateValidate({2020, 1, 366})));
}

}  // namespace
}  // namespace loomwork
