// RunLoop: the event loop of one thread; RunLoopTimer: a timer on such a loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

class RunLoopTimer;

// An event loop that runs posted tasks, delayed tasks and timers on the one
// thread that runs it.
//
// How a thread gets a loop: RunLoop::current() makes one for the calling
// thread on first use (a Thread's loop is made with the Thread and belongs to
// it once it runs). Tasks and timers only fire while that thread is inside
// run() or runFor(); a worker thread (ThreadDispatch.h) runs its loop for its
// whole life, and any other thread, such as the host's main thread, runs its
// own when it is ready to serve it. A loop keeps running when it has no work:
// run() returns only after stop().
//
// post() and stop() may be called from any thread. Delayed tasks and timers
// are scheduled and cancelled on the loop's own thread only. Tasks must not
// throw; an exception leaves run() (and so ends a worker thread's process).
class RunLoop : public Object {
 public:
  using Task = std::function<void()>;
  using TaskID = uint64_t;

  // A loop that belongs to no thread yet: the first thread that runs it, or
  // makes it current, owns it.
  RunLoop();
  ~RunLoop() override;

  // The calling thread's loop, made on first use.
  static Ref<RunLoop> current();
  // Makes `loop` the calling thread's loop (before the thread asked for one);
  // false when the thread already has another loop or the loop another thread.
  static bool makeCurrent(const Ref<RunLoop>& loop);

  // The calling thread is the loop's thread.
  bool isCurrent() const;

  // Queues the task to run on the loop's thread, after the tasks already
  // queued. Any thread.
  void post(Task task);

  // Runs `task` once `seconds` from now (at once, in turn, for 0 or less).
  // `target` is an identity for cancelTasksWithTarget (nullptr: none). Own
  // thread only.
  TaskID performAfterDelay(double seconds, Task task, const void* target = nullptr);
  // Removes a delayed task that has not started; false when there is none.
  bool cancelTask(TaskID id);
  // Removes every delayed task scheduled with `target` that has not started;
  // returns how many.
  size_t cancelTasksWithTarget(const void* target);
  // Delayed tasks and valid timers waiting on the loop.
  size_t pendingDelayedTaskCount() const;

  // Runs until stop(). Binds the loop to the calling thread on first run;
  // returns at once on a loop that belongs to another thread.
  void run();
  // Runs until `seconds` have passed or stop() was called.
  void runFor(double seconds);
  // Makes run() and runFor() return soon. Any thread. A stop that comes while
  // the loop is not running makes the next run return at once.
  void stop();

  struct Impl;

 private:
  friend class RunLoopTimer;
  friend struct RunLoopAccess;
  std::shared_ptr<Impl> impl_;
};

// A timer on a run loop, made by scheduledTimer(). The loop holds a valid timer
// (and so its callback and what the callback holds) until it is invalidated or,
// for a one-shot timer, has fired. A repeating timer that falls behind skips
// the fire dates it missed.
class RunLoopTimer : public Object {
 public:
  using Callback = std::function<void(RunLoopTimer& timer)>;

  // A timer on the calling thread's loop that first fires `interval` seconds
  // from now, then every `interval` seconds when `repeats` (intervals below
  // 0.1 ms count as 0.1 ms).
  static Ref<RunLoopTimer> scheduledTimer(double interval, bool repeats, Callback callback);

  // Stops the timer for good and lets the loop drop it. Any thread; from
  // another thread it takes effect before the next fire.
  void invalidate();
  bool isValid() const { return valid_.load(std::memory_order_acquire); }
  double timeInterval() const { return interval_; }

  // Use scheduledTimer().
  RunLoopTimer(std::weak_ptr<RunLoop::Impl> loop, double interval, bool repeats, Callback callback);

 private:
  friend struct RunLoop::Impl;
  std::weak_ptr<RunLoop::Impl> loop_;
  double interval_;
  bool repeats_;
  std::atomic<bool> valid_{true};
  std::shared_ptr<const Callback> callback_;  // reset on the loop's thread
  RunLoop::TaskID pending_ = 0;
};

}  // namespace loomwork
#pragma GCC visibility pop
