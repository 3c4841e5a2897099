#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "loomwork/additions/TWWarpTenProgress.h"
#include "loomwork/additions/ThreadDispatch.h"
#include "loomwork/platform/Calendar.h"
#include "loomwork/platform/Exception.h"

namespace loomwork {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Waits (generously) until `done` holds; false on time-out.
template <class Predicate>
bool waitUntil(Predicate done, std::chrono::milliseconds limit = 10s) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// What tasks report, from any thread.
struct Journal {
  void add(int entry) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(entry);
    times.push_back(Clock::now());
  }
  std::vector<int> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }
  std::mutex mutex;
  std::vector<int> entries;
  std::vector<Clock::time_point> times;
};

Ref<Thread> startedWorker() {
  Ref<Thread> worker = workerThreadWithRunLoop();
  worker->start();
  return worker;
}

size_t slotCount(Thread& worker) {
  size_t count = 0;
  dispatchSyncBlock(worker, [&] { count = dispatchAfterCoalescingDictionary(*Thread::currentThread()).size(); });
  return count;
}

TEST(ThreadDispatch, PostingRunsInOrderOnTheThread) {
  Ref<Thread> worker = startedWorker();
  Journal journal;
  std::thread::id seen;
  for (int i = 0; i < 500; ++i) dispatchAsyncBlock(*worker, [&, i] { journal.add(i); });
  dispatchSyncBlock(*worker, [&] { seen = std::this_thread::get_id(); });
  std::vector<int> expected(500);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(expected, journal.snapshot());  // the synchronous task ran after all of them
  EXPECT_NE(std::this_thread::get_id(), seen);

  // On the thread itself, synchronous and same-thread posting run inline.
  bool inlineRan = false, nestedRan = false;
  dispatchSyncBlock(*worker, [&] {
    Thread& self = *Thread::currentThread();
    EXPECT_TRUE(self.isCurrent());
    dispatchSyncIfOnSameThreadAsyncIfDifferentThread(self, [&] { inlineRan = true; });
    EXPECT_TRUE(inlineRan);
    dispatchSyncBlock(self, [&] { nestedRan = true; });
    EXPECT_TRUE(nestedRan);
  });
  // A task's exception reaches the waiting caller; the worker goes on.
  EXPECT_THROW(dispatchSyncBlock(*worker, [] { throw Exception(ExceptionKind::InvalidArgument, "x"); }), Exception);
  std::atomic<bool> after{false};
  dispatchSyncIfOnSameThreadAsyncIfDifferentThread(*worker, [&] { after = true; });
  EXPECT_TRUE(waitUntil([&] { return after.load(); }));
  EXPECT_THROW(dispatchAfterCoalescingDictionary(*worker), Exception);
}

TEST(ThreadDispatch, DelayedTasksRunByDeadline) {
  Ref<Thread> worker = startedWorker();
  Journal journal;
  dispatchAfterBlock(*worker, 0.3, [&] { journal.add(3); });
  dispatchAfterBlock(*worker, 0.1, [&] { journal.add(1); });
  dispatchAfterBlock(*worker, 0.2, [&] { journal.add(2); });
  dispatchAfterBlock(*worker, 0, [&] { journal.add(0); });
  ASSERT_TRUE(waitUntil([&] { return journal.snapshot().size() == 4; }));
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), journal.snapshot());
}

TEST(ThreadDispatch, CoalescedRequestsRunTheLastTaskOnceAfterTheLastRequest) {
  Ref<Thread> worker = startedWorker();
  Journal journal;
  static DispatchOnceToken token{0};
  Clock::time_point lastRequest;
  for (int i = 1; i <= 3; ++i) {
    if (i > 1) std::this_thread::sleep_for(100ms);
    lastRequest = Clock::now();
    dispatchAfterCoalescingTokenBlock(*worker, 0.5, token, [&journal, i] { journal.add(i); });
  }
  EXPECT_EQ(-1, token.load());
  ASSERT_TRUE(waitUntil([&] { return !journal.snapshot().empty(); }));
  EXPECT_GE(journal.times[0] - lastRequest, 450ms);
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ((std::vector<int>{3}), journal.snapshot());
  EXPECT_EQ(0u, slotCount(*worker));

  // Different tokens share the thread's one slot: only the second runs.
  static DispatchOnceToken first{0}, second{0};
  dispatchAfterCoalescingTokenBlock(*worker, 0.2, first, [&] { journal.add(10); });
  dispatchAfterCoalescingTokenBlock(*worker, 0.2, second, [&] { journal.add(20); });
  ASSERT_TRUE(waitUntil([&] { return journal.snapshot().size() == 2; }));
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ((std::vector<int>{3, 20}), journal.snapshot());
  EXPECT_EQ(0u, slotCount(*worker));

  // Other threads keep their own slot.
  Ref<Thread> other = startedWorker();
  dispatchAfterCoalescingTokenBlock(*worker, 0.1, first, [&] { journal.add(30); });
  dispatchAfterCoalescingTokenBlock(*other, 0.1, first, [&] { journal.add(40); });
  ASSERT_TRUE(waitUntil([&] { return journal.snapshot().size() == 4; }));
}

TEST(ThreadDispatch, CoalescingOnTheThreadItselfBooksAtOnce) {
  Ref<Thread> worker = startedWorker();
  Journal journal;
  static DispatchOnceToken token{0};
  dispatchSyncBlock(*worker, [&] {
    Thread& self = *Thread::currentThread();
    for (int i = 0; i < 1000; ++i)
      dispatchAfterCoalescingTokenBlock(self, 0.05, token, [&journal, i] { journal.add(i); });
    EXPECT_EQ(1u, dispatchAfterCoalescingDictionary(self).count(-1));
    EXPECT_EQ(1u, self.runLoop()->pendingDelayedTaskCount());
  });
  ASSERT_TRUE(waitUntil([&] { return !journal.snapshot().empty(); }));
  // A task that asks again keeps the slot for its new request, which runs.
  dispatchAsyncBlock(*worker, [&] {
    Thread& self = *Thread::currentThread();
    dispatchAfterCoalescingTokenBlock(self, 0.01, token, [&] {
      journal.add(-1);
      dispatchAfterCoalescingTokenBlock(*Thread::currentThread(), 0.01, token, [&] { journal.add(-2); });
    });
  });
  ASSERT_TRUE(waitUntil([&] { return journal.snapshot().size() == 3; }));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ((std::vector<int>{999, -1, -2}), journal.snapshot());
  EXPECT_EQ(0u, slotCount(*worker));
}

TEST(WarpTenProgress, CurveSamplingAndTimer) {
  const std::vector<double> samples =
      TWWarpTenProgress::warpTenSamplePointsAndValuesWithDurationSamplingFrequencyHalfLife(1, 10, 20);
  ASSERT_EQ(20u, samples.size());
  EXPECT_TRUE(samples[0] == 0.0 && samples[1] == 0.0);
  EXPECT_DOUBLE_EQ(0.1, samples[2]);
  EXPECT_DOUBLE_EQ(1 - 1 / 1.005, samples[3]);
  EXPECT_DOUBLE_EQ(0.9, samples[18]);
  const auto sampled = TWWarpTenProgress::warpTenSamplePointsAndValuesWithDurationSamplingFrequencyHalfLife;
  EXPECT_EQ(2u, sampled(0.05, 10, 20).size());
  EXPECT_TRUE(sampled(0, 10, 20).empty() && sampled(std::nan(""), 1, 1).empty());
  EXPECT_THROW(sampled(1e300, 1, 1), Exception);

  // The value at given elapsed times, by moving the start back.
  TWWarpTenProgress still(kTWWarpTenProgressDefaultHalfLifeSeconds, nullptr);
  for (double elapsed : {20.0, 40.0, 1e9}) {
    still.setProgressStartDate(Date{currentDate().secondsSince1970 - elapsed});
    still.updateProgress(nullptr);
    EXPECT_NEAR(1 - 1 / (elapsed / 20 + 1), still.progress(), 1e-4);
    EXPECT_LT(still.progress(), 1.0);
  }

  // Started on a worker: the timer fires there about five times a second and
  // stops for good; the timer held the object, which goes once it is stopped.
  Ref<Thread> worker = startedWorker();
  std::mutex mutex;
  std::vector<double> values;
  std::thread::id updateThread;
  std::weak_ptr<TWWarpTenProgress> watched;
  dispatchSyncBlock(*worker, [&] {
    watched = TWWarpTenProgress::warpTenProgressWithHalfLifeUpdateBlock(1.0, [&](TWWarpTenProgress& progress) {
      std::lock_guard<std::mutex> lock(mutex);
      values.push_back(progress.progress());
      updateThread = std::this_thread::get_id();
    });
  });
  EXPECT_FALSE(watched.expired());
  ASSERT_TRUE(waitUntil([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return values.size() >= 3;
  }));
  dispatchSyncBlock(*worker, [&] {
    if (Ref<TWWarpTenProgress> progress = watched.lock()) progress->stopProgress();
  });
  std::unique_lock<std::mutex> lock(mutex);
  const size_t count = values.size();
  EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
  EXPECT_GT(values.front(), 0.0);
  EXPECT_LT(values.back(), 1.0);
  EXPECT_NEAR(1 - 1 / (0.2 + 1), values.front(), 0.15);  // first update after about 0.2 s
  EXPECT_TRUE(watched.expired());
  lock.unlock();
  std::this_thread::sleep_for(500ms);
  lock.lock();
  EXPECT_EQ(count, values.size());
  EXPECT_NE(std::this_thread::get_id(), updateThread);
}

}  // namespace
}  // namespace loomwork
