// Day dates, date-picker records and dispatch, each beside its floor.
//
//   loomwork_additions_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>
#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <asio/post.hpp>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "loomwork/additions/TWDayDate.h"
#include "loomwork/additions/ThreadDispatch.h"
#include "platform/RunLoopInternal.h"

#ifdef LOOMWORK_HAVE_HINNANT_DATE
#include <date/date.h>
#endif

namespace loomwork {
namespace {

constexpr int64_t kMillion = 1'000'000;
constexpr uint32_t kSeed = 20261123;

// Steps that sum to zero, so a chain of additions stays within the years.
constexpr int32_t kSteps[16] = {1, -1, 30, -30, 365, -365, 7, -7, 1000, -1000, 2, -2, 100, -100, 60, -60};

std::unique_ptr<icu::GregorianCalendar> icuGMTCalendar() {
  UErrorCode status = U_ZERO_ERROR;
  return std::make_unique<icu::GregorianCalendar>(*icu::TimeZone::getGMT(), status);
}

// Random day dates in 1900 to 2100, and pairs of them.
std::vector<Ref<TWDayDate>> randomDays(size_t count) {
  std::mt19937_64 rng(kSeed);
  const double from = TWDayDate::dayDateWithYearMonthDay(1900, 1, 1)->gmtDateAtMidnight().secondsSince1970;
  const double to = TWDayDate::dayDateWithYearMonthDay(2100, 1, 1)->gmtDateAtMidnight().secondsSince1970;
  std::uniform_real_distribution<double> instant(from, to);
  std::vector<Ref<TWDayDate>> days;
  for (size_t i = 0; i < count; ++i) days.push_back(TWDayDate::dayDateWithGMTDate(Date{instant(rng)}));
  return days;
}

void BM_DayDateAddingDays(benchmark::State& state) {
  Ref<TWDayDate> day = TWDayDate::dayDateWithYearMonthDay(2000, 1, 1);
  size_t i = 0;
  for (auto _ : state) {
    day = day->dateByAddingDays(kSteps[i++ & 15]);
    benchmark::DoNotOptimize(day);
  }
}
BENCHMARK(BM_DayDateAddingDays)->Iterations(kMillion);

// The same work written against ICU: add the days, then read era, year,
// month and day and make midnight of them.
void BM_IcuAddingDaysToMidnight(benchmark::State& state) {
  auto calendar = icuGMTCalendar();
  UErrorCode status = U_ZERO_ERROR;
  calendar->clear();
  calendar->set(2000, UCAL_JANUARY, 1);
  UDate ms = calendar->getTime(status);
  size_t i = 0;
  for (auto _ : state) {
    calendar->setTime(ms, status);
    calendar->add(UCAL_DATE, kSteps[i++ & 15], status);
    calendar->setTime(calendar->getTime(status), status);
    const int32_t era = calendar->get(UCAL_ERA, status), year = calendar->get(UCAL_YEAR, status);
    const int32_t month = calendar->get(UCAL_MONTH, status), date = calendar->get(UCAL_DATE, status);
    calendar->clear();
    calendar->set(UCAL_ERA, era);
    calendar->set(year, month, date, 0, 0, 0);
    ms = calendar->getTime(status);
    benchmark::DoNotOptimize(ms);
  }
}
BENCHMARK(BM_IcuAddingDaysToMidnight)->Iterations(kMillion);

// Adding alone, without the normalisation to midnight, for scale.
void BM_IcuAddingDaysOnly(benchmark::State& state) {
  auto calendar = icuGMTCalendar();
  UErrorCode status = U_ZERO_ERROR;
  calendar->clear();
  calendar->set(2000, UCAL_JANUARY, 1);
  UDate ms = calendar->getTime(status);
  size_t i = 0;
  for (auto _ : state) {
    calendar->setTime(ms, status);
    calendar->add(UCAL_DATE, kSteps[i++ & 15], status);
    ms = calendar->getTime(status);
    benchmark::DoNotOptimize(ms);
  }
}
BENCHMARK(BM_IcuAddingDaysOnly)->Iterations(kMillion);

void BM_DayDateDaysFromTo(benchmark::State& state) {
  const std::vector<Ref<TWDayDate>> days = randomDays(4096);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(TWDayDate::daysFromTo(days[i & 4095], days[(i + 1) & 4095]));
    ++i;
  }
}
BENCHMARK(BM_DayDateDaysFromTo)->Iterations(kMillion);

void BM_IcuFieldDifferenceInDays(benchmark::State& state) {
  const std::vector<Ref<TWDayDate>> days = randomDays(4096);
  std::vector<UDate> ms;
  for (const auto& day : days) ms.push_back(day->gmtDateAtMidnight().secondsSince1970 * 1000);
  auto calendar = icuGMTCalendar();
  UErrorCode status = U_ZERO_ERROR;
  size_t i = 0;
  for (auto _ : state) {
    calendar->setTime(ms[i & 4095], status);
    benchmark::DoNotOptimize(calendar->fieldDifference(ms[(i + 1) & 4095], UCAL_DATE, status));
    ++i;
  }
}
BENCHMARK(BM_IcuFieldDifferenceInDays)->Iterations(kMillion);

// Date-picker records: valid dates in years -2000 to 4000, and day offsets
// of up to two years for normalising.
struct Records {
  std::vector<TWDatePickerDate> dates, shifted;
  Records() {
    std::mt19937_64 rng(kSeed);
    auto pick = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
    for (int i = 0; i < 4096; ++i) {
      TWDatePickerDate d{pick(-2000, 4000), pick(1, 12), 1};
      d.day = pick(1, TWDatePickerDateGetNumberOfDaysInMonth(d));
      dates.push_back(d);
      shifted.push_back({d.year, d.month, d.day + pick(-730, 730)});
    }
  }
};
const Records& records() {
  static const Records r;
  return r;
}

void BM_RecordDifference(benchmark::State& state) {
  const auto& dates = records().dates;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(TWDatePickerDateGetDifferenceToDate(dates[i & 4095], dates[(i + 1) & 4095]));
    ++i;
  }
}
BENCHMARK(BM_RecordDifference)->Iterations(kMillion);

void BM_RecordValidate(benchmark::State& state) {
  const auto& shifted = records().shifted;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(TWDatePickerDateValidate(shifted[i++ & 4095]));
}
BENCHMARK(BM_RecordValidate)->Iterations(kMillion);

void BM_RecordMonthLengthAndLeapYear(benchmark::State& state) {
  const auto& dates = records().dates;
  size_t i = 0;
  for (auto _ : state) {
    const TWDatePickerDate& d = dates[i++ & 4095];
    benchmark::DoNotOptimize(TWDatePickerDateGetNumberOfDaysInMonth(d) + TWDatePickerDateIsLeapYear(d));
  }
}
BENCHMARK(BM_RecordMonthLengthAndLeapYear)->Iterations(kMillion);

#ifdef LOOMWORK_HAVE_HINNANT_DATE
date::year_month_day hinnant(const TWDatePickerDate& d) {
  return date::year{static_cast<int>(d.year)} / date::month{static_cast<unsigned>(d.month)} /
         date::day{static_cast<unsigned>(d.day)};
}

void BM_HinnantDifference(benchmark::State& state) {
  const auto& dates = records().dates;
  size_t i = 0;
  for (auto _ : state) {
    const auto a = date::sys_days(hinnant(dates[i & 4095]));
    const auto b = date::sys_days(hinnant(dates[(i + 1) & 4095]));
    benchmark::DoNotOptimize((b - a).count());
    ++i;
  }
}
BENCHMARK(BM_HinnantDifference)->Iterations(kMillion);

void BM_HinnantNormalise(benchmark::State& state) {
  const auto& shifted = records().shifted;
  size_t i = 0;
  for (auto _ : state) {
    const TWDatePickerDate& d = shifted[i++ & 4095];
    const auto first = date::year{static_cast<int>(d.year)} / date::month{static_cast<unsigned>(d.month)} / 1;
    benchmark::DoNotOptimize(date::year_month_day(date::sys_days(first) + date::days(d.day - 1)));
  }
}
BENCHMARK(BM_HinnantNormalise)->Iterations(kMillion);

void BM_HinnantMonthLengthAndLeapYear(benchmark::State& state) {
  const auto& dates = records().dates;
  size_t i = 0;
  for (auto _ : state) {
    const TWDatePickerDate& d = dates[i++ & 4095];
    const date::year y{static_cast<int>(d.year)};
    benchmark::DoNotOptimize(
        static_cast<unsigned>((y / date::month{static_cast<unsigned>(d.month)} / date::last).day()) + y.is_leap());
  }
}
BENCHMARK(BM_HinnantMonthLengthAndLeapYear)->Iterations(kMillion);
#endif

// A burst of a million coalesced requests from this thread to one worker:
// the time until the worker has booked them all, per request; the task must
// run once.
void BM_CoalescedBurst(benchmark::State& state) {
  Ref<Thread> worker = workerThreadWithRunLoop();
  worker->start();
  static DispatchOnceToken token{0};
  std::atomic<int64_t> runs{0};
  for (auto _ : state) {
    runs = 0;
    for (int64_t i = 0; i < kMillion; ++i) {
      dispatchAfterCoalescingTokenBlock(*worker, 0.05, token, [&runs] { runs.fetch_add(1); });
    }
    dispatchSyncBlock(*worker, [] {});
    state.PauseTiming();
    while (runs.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    state.counters["task_runs"] = static_cast<double>(runs.load());
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_CoalescedBurst)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// The booking alone: requests made on the thread itself are booked inline.
void BM_CoalescedBookingOnOwnThread(benchmark::State& state) {
  Ref<Thread> self = Thread::currentThread();
  static DispatchOnceToken token{0};
  int64_t runs = 0;
  for (auto _ : state) dispatchAfterCoalescingTokenBlock(*self, 0.05, token, [&runs] { ++runs; });
  self->runLoop()->runFor(0.2);
  state.counters["task_runs"] = static_cast<double>(runs);
}
BENCHMARK(BM_CoalescedBookingOnOwnThread)->Iterations(kMillion);

template <bool Bare>
void postMillion(benchmark::State& state) {
  Ref<Thread> worker = workerThreadWithRunLoop();
  worker->start();
  asio::io_context& context = runLoopContext(*worker->runLoop());
  int64_t counter = 0;  // touched on the worker only
  for (auto _ : state) {
    for (int64_t i = 0; i < kMillion; ++i) {
      if constexpr (Bare) {
        asio::post(context, [&counter] { ++counter; });
      } else {
        dispatchAsyncBlock(*worker, [&counter] { ++counter; });
      }
    }
    dispatchSyncBlock(*worker, [] {});
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
  benchmark::DoNotOptimize(counter);
}

void BM_DispatchAsyncBlock(benchmark::State& state) { postMillion<false>(state); }
void BM_BareAsioPost(benchmark::State& state) { postMillion<true>(state); }
BENCHMARK(BM_DispatchAsyncBlock)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareAsioPost)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// How long after the last request of a short burst a coalesced task with a
// 10 ms delay runs: median and 99th percentile over 300 bursts.
void BM_CoalescedDelayFromLastRequest(benchmark::State& state) {
  Ref<Thread> worker = workerThreadWithRunLoop();
  worker->start();
  static DispatchOnceToken token{0};
  using Clock = std::chrono::steady_clock;
  std::vector<double> delays;
  for (auto _ : state) {
    for (int burst = 0; burst < 300; ++burst) {
      std::atomic<int64_t> ranAt{0};
      Clock::time_point last;
      for (int i = 0; i < 10; ++i) {
        last = Clock::now();
        dispatchAfterCoalescingTokenBlock(*worker, 0.01, token,
                                          [&ranAt] { ranAt = Clock::now().time_since_epoch().count(); });
      }
      while (ranAt.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
      const Clock::time_point ran{Clock::duration(ranAt.load())};
      delays.push_back(std::chrono::duration<double, std::milli>(ran - last).count());
    }
  }
  std::sort(delays.begin(), delays.end());
  state.counters["requested_ms"] = 10;
  state.counters["median_ms"] = delays[delays.size() / 2];
  state.counters["p99_ms"] = delays[delays.size() * 99 / 100];
}
BENCHMARK(BM_CoalescedDelayFromLastRequest)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace loomwork

BENCHMARK_MAIN();
