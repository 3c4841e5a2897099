#include "loomwork/platform/Calendar.h"

#include <unicode/dtfmtsym.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <mutex>

namespace loomwork {

struct TimeZone::Rules {
  std::unique_ptr<icu::TimeZone> zone;
};

struct Calendar::Engine {
  std::unique_ptr<icu::Calendar> calendar;
};

namespace {

// ICU counts milliseconds within about ±5.8 million years and pins or fails
// beyond; dates outside this window (and NaN) are refused before ICU sees them.
constexpr double kMaxMilliseconds = 183882168921600000.0;

bool toMilliseconds(Date date, UDate& ms) {
  ms = date.secondsSince1970 * 1000.0;
  return std::isfinite(ms) && std::fabs(ms) <= kMaxMilliseconds;
}

bool fitsInt32(int64_t v) {
  return v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max();
}

std::shared_ptr<const TimeZone::Rules> makeRules(icu::TimeZone* zone) {
  auto rules = std::make_shared<TimeZone::Rules>();
  rules->zone.reset(zone);
  return rules;
}

std::mutex& defaultZoneMutex() {
  static std::mutex mutex;
  return mutex;
}
std::optional<TimeZone>& hostDefaultZone() {
  static std::optional<TimeZone> zone;
  return zone;
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

// A components field, its unit and ICU's field, from the largest unit down:
// the order in which components are added to a date and counted between two.
// ICU counts months from 0, the components from 1.
struct ComponentField {
  uint32_t unit;
  UCalendarDateFields field;
  std::optional<int64_t> DateComponents::*member;
  // Whether componentsFromDateToDate counts it.
  bool counted;
};

constexpr ComponentField kComponentFields[] = {
    {CalendarUnitEra, UCAL_ERA, &DateComponents::era, false},
    {CalendarUnitYear, UCAL_YEAR, &DateComponents::year, true},
    {CalendarUnitMonth, UCAL_MONTH, &DateComponents::month, true},
    {CalendarUnitWeekOfYear, UCAL_WEEK_OF_YEAR, &DateComponents::weekOfYear, true},
    {CalendarUnitWeekOfMonth, UCAL_WEEK_OF_MONTH, &DateComponents::weekOfMonth, false},
    {CalendarUnitDay, UCAL_DATE, &DateComponents::day, true},
    {CalendarUnitWeekday, UCAL_DAY_OF_WEEK, &DateComponents::weekday, false},
    {CalendarUnitWeekdayOrdinal, UCAL_DAY_OF_WEEK_IN_MONTH, &DateComponents::weekdayOrdinal, false},
    {CalendarUnitHour, UCAL_HOUR_OF_DAY, &DateComponents::hour, true},
    {CalendarUnitMinute, UCAL_MINUTE, &DateComponents::minute, true},
    {CalendarUnitSecond, UCAL_SECOND, &DateComponents::second, true},
};

// The value a components record gives the field; the week of the year falls
// back to the plain week when absent.
const std::optional<int64_t>& componentValue(const DateComponents& c, const ComponentField& f) {
  if (f.member == &DateComponents::weekOfYear && !c.weekOfYear) return c.week;
  return c.*f.member;
}

// Sets the fields of a components record on a cleared calendar; false when a
// value does not fit ICU's 32-bit fields. The weekday fields are set before
// the day of the month: ICU resolves a conflict by the field set last.
bool setFields(icu::Calendar& calendar, const DateComponents& c) {
  struct Field {
    const std::optional<int64_t>& value;
    UCalendarDateFields field;
    int64_t offset;
  };
  const Field fields[] = {
      {c.era, UCAL_ERA, 0},
      {c.year, UCAL_YEAR, 0},
      {c.month, UCAL_MONTH, -1},
      {c.weekOfYear ? c.weekOfYear : c.week, UCAL_WEEK_OF_YEAR, 0},
      {c.weekOfMonth, UCAL_WEEK_OF_MONTH, 0},
      {c.weekday, UCAL_DAY_OF_WEEK, 0},
      {c.weekdayOrdinal, UCAL_DAY_OF_WEEK_IN_MONTH, 0},
      {c.day, UCAL_DATE, 0},
      {c.hour, UCAL_HOUR_OF_DAY, 0},
      {c.minute, UCAL_MINUTE, 0},
      {c.second, UCAL_SECOND, 0},
  };
  for (const Field& f : fields) {
    if (!f.value) continue;
    const int64_t v = *f.value + f.offset;
    if (!fitsInt32(v)) return false;
    calendar.set(f.field, static_cast<int32_t>(v));
  }
  return true;
}

}  // namespace

Date currentDate() {
  using namespace std::chrono;
  return Date{duration<double>(system_clock::now().time_since_epoch()).count()};
}

TimeZone TimeZone::gmt() {
  static const std::shared_ptr<const Rules> rules = makeRules(icu::TimeZone::getGMT()->clone());
  return TimeZone(rules);
}

std::optional<TimeZone> TimeZone::withIdentifier(std::string_view identifier) {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(
      icu::UnicodeString::fromUTF8(icu::StringPiece(identifier.data(), static_cast<int32_t>(identifier.size())))));
  if (!zone || *zone == icu::TimeZone::getUnknown()) return std::nullopt;
  return TimeZone(makeRules(zone.release()));
}

TimeZone TimeZone::defaultTimeZone() {
  {
    std::lock_guard<std::mutex> lock(defaultZoneMutex());
    if (hostDefaultZone()) return *hostDefaultZone();
  }
  icu::TimeZone* detected = icu::TimeZone::detectHostTimeZone();
  if (detected == nullptr || *detected == icu::TimeZone::getUnknown()) {
    delete detected;
    return gmt();
  }
  return TimeZone(makeRules(detected));
}

void TimeZone::setDefaultTimeZone(std::optional<TimeZone> zone) {
  std::lock_guard<std::mutex> lock(defaultZoneMutex());
  hostDefaultZone() = std::move(zone);
}

std::string TimeZone::identifier() const {
  icu::UnicodeString id;
  rules_->zone->getID(id);
  return utf8(id);
}

double TimeZone::secondsFromGMTForDate(Date date) const {
  UDate ms;
  if (!toMilliseconds(date, ms)) return 0;
  int32_t raw = 0, dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  rules_->zone->getOffset(ms, false, raw, dst, status);
  return U_SUCCESS(status) ? (raw + dst) / 1000.0 : 0;
}

bool TimeZone::operator==(const TimeZone& other) const {
  return rules_ == other.rules_ || *rules_->zone == *other.rules_->zone;
}

Calendar::Calendar(const TimeZone& zone) : zone_(zone), engine_(std::make_unique<Engine>()) {
  UErrorCode status = U_ZERO_ERROR;
  engine_->calendar = std::make_unique<icu::GregorianCalendar>(*zone.rules_->zone, icu::Locale::getRoot(), status);
  engine_->calendar->setFirstDayOfWeek(UCAL_SUNDAY);
  engine_->calendar->setMinimalDaysInFirstWeek(1);
}

Calendar::Calendar(const Calendar& other) : zone_(other.zone_), engine_(std::make_unique<Engine>()) {
  engine_->calendar.reset(other.engine_->calendar->clone());
}

Calendar& Calendar::operator=(const Calendar& other) {
  if (this != &other) {
    zone_ = other.zone_;
    engine_->calendar.reset(other.engine_->calendar->clone());
  }
  return *this;
}

Calendar::Calendar(Calendar&&) noexcept = default;
Calendar& Calendar::operator=(Calendar&&) noexcept = default;
Calendar::~Calendar() = default;

std::optional<Date> Calendar::dateFromComponents(const DateComponents& components) const {
  icu::Calendar& calendar = *engine_->calendar;
  calendar.clear();
  if (!setFields(calendar, components)) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const UDate ms = calendar.getTime(status);
  if (U_FAILURE(status) || !std::isfinite(ms) || std::fabs(ms) > kMaxMilliseconds) return std::nullopt;
  return Date{ms / 1000.0};
}

DateComponents Calendar::componentsOfDate(uint32_t units, Date date) const {
  DateComponents c;
  UDate ms;
  if (!toMilliseconds(date, ms)) return c;
  icu::Calendar& calendar = *engine_->calendar;
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(ms, status);
  for (const ComponentField& f : kComponentFields) {
    if ((units & f.unit) == 0) continue;
    const int32_t v = calendar.get(f.field, status);
    if (U_SUCCESS(status)) c.*f.member = v + (f.field == UCAL_MONTH ? 1 : 0);
  }
  if (U_FAILURE(status)) return DateComponents{};
  return c;
}

std::optional<Date> Calendar::dateByAddingComponentsToDate(const DateComponents& components, Date date,
                                                           uint32_t /*options*/) const {
  UDate ms;
  if (!toMilliseconds(date, ms)) return std::nullopt;
  icu::Calendar& calendar = *engine_->calendar;
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(ms, status);
  for (const ComponentField& f : kComponentFields) {
    const std::optional<int64_t>& value = componentValue(components, f);
    if (!value || *value == 0) continue;
    if (!fitsInt32(*value)) return std::nullopt;
    calendar.add(f.field, static_cast<int32_t>(*value), status);
  }
  const UDate result = calendar.getTime(status);
  if (U_FAILURE(status) || !std::isfinite(result) || std::fabs(result) > kMaxMilliseconds) return std::nullopt;
  return Date{result / 1000.0};
}

DateComponents Calendar::componentsFromDateToDate(uint32_t units, Date from, Date to, uint32_t /*options*/) const {
  DateComponents c;
  UDate fromMs, toMs;
  if (!toMilliseconds(from, fromMs) || !toMilliseconds(to, toMs)) return c;
  icu::Calendar& calendar = *engine_->calendar;
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(fromMs, status);
  // fieldDifference() advances the calendar by the whole units it counts, so
  // asking from the largest unit down leaves the remainder for the next one.
  if (units & CalendarUnitEra) c.era = 0;
  for (const ComponentField& f : kComponentFields) {
    if (!f.counted || (units & f.unit) == 0) continue;
    const int32_t v = calendar.fieldDifference(toMs, f.field, status);
    if (U_SUCCESS(status)) c.*f.member = v;
  }
  if (U_FAILURE(status)) return DateComponents{};
  return c;
}

std::vector<std::string> Calendar::weekdaySymbols(std::string_view localeIdentifier) {
  const icu::Locale locale =
      localeIdentifier.empty() ? icu::Locale::getDefault() : icu::Locale(std::string(localeIdentifier).c_str());
  UErrorCode status = U_ZERO_ERROR;
  icu::DateFormatSymbols symbols(locale, status);
  std::vector<std::string> names;
  if (U_FAILURE(status)) return names;
  int32_t count = 0;
  const icu::UnicodeString* weekdays = symbols.getWeekdays(count);
  // ICU's array is indexed by UCAL_SUNDAY (1) to UCAL_SATURDAY (7).
  for (int32_t i = UCAL_SUNDAY; i <= UCAL_SATURDAY && i < count; ++i) names.push_back(utf8(weekdays[i]));
  return names;
}

}  // namespace loomwork
