#include "loomwork/platform/RunLoop.h"

#include "platform/RunLoopInternal.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cmath>
#include <map>
#include <thread>
#include <unordered_map>

namespace loomwork {

using Clock = std::chrono::steady_clock;

// Delayed tasks and timers are kept in the loop's own ordered queue, with one
// Asio timer armed for the earliest of them. Cancelling is then an erase, and a
// cancelled task can never run, even when the Asio timer has already fired.
// The Asio timer is re-armed only when a task comes due earlier than it is
// armed for, so a stream of ever later requests (a coalesced burst) costs no
// Asio timer operations at all.
struct RunLoop::Impl {
  struct Entry {
    const void* target = nullptr;
    Task task;
    Ref<RunLoopTimer> timer;
  };
  using Key = std::pair<Clock::time_point, TaskID>;

  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> keepAlive{context.get_executor()};
  asio::steady_timer alarm{context};
  std::atomic<std::thread::id> owner{};
  std::atomic<bool> stopRequested{false};

  // Touched only on the owner's thread.
  std::map<Key, Entry> queue;
  std::unordered_map<TaskID, Clock::time_point> deadlines;
  TaskID nextID = 1;
  bool armed = false;
  Clock::time_point armedFor{};

  // Queued tasks and timers go with the loop, never run. A timer's callback
  // may hold what holds the timer, so it is dropped here to break the cycle.
  ~Impl() {
    for (auto& [key, entry] : queue) {
      if (!entry.timer) continue;
      entry.timer->valid_.store(false, std::memory_order_release);
      entry.timer->callback_.reset();
    }
  }

  bool isCurrent() const { return owner.load(std::memory_order_acquire) == std::this_thread::get_id(); }

  TaskID schedule(Clock::time_point when, Entry entry) {
    const TaskID id = nextID++;
    queue.emplace(Key{when, id}, std::move(entry));
    deadlines.emplace(id, when);
    if (!armed || when < armedFor) arm(when);
    return id;
  }

  bool cancel(TaskID id) {
    auto found = deadlines.find(id);
    if (found == deadlines.end()) return false;
    queue.erase(Key{found->second, id});
    deadlines.erase(found);
    return true;
  }

  void arm(Clock::time_point when) {
    armed = true;
    armedFor = when;
    alarm.expires_at(when);
    alarm.async_wait([this](const std::error_code& error) {
      if (error != asio::error::operation_aborted) fire();
    });
  }

  void fire() {
    armed = false;
    const Clock::time_point now = Clock::now();
    while (!queue.empty() && queue.begin()->first.first <= now) {
      auto node = queue.extract(queue.begin());
      deadlines.erase(node.key().second);
      Entry& entry = node.mapped();
      if (entry.timer) {
        fireTimer(std::move(entry.timer), node.key().first, now);
      } else {
        entry.task();
      }
    }
    if (!queue.empty() && (!armed || queue.begin()->first.first < armedFor)) arm(queue.begin()->first.first);
  }

  void fireTimer(Ref<RunLoopTimer> timer, Clock::time_point due, Clock::time_point now) {
    timer->pending_ = 0;
    if (!timer->isValid()) return;
    // Held across the call, so that invalidating from inside it is safe.
    const std::shared_ptr<const RunLoopTimer::Callback> callback = timer->callback_;
    if (callback) (*callback)(*timer);
    if (!timer->repeats_) {
      timer->valid_.store(false, std::memory_order_release);
      timer->callback_.reset();
      return;
    }
    if (!timer->isValid()) return;
    const auto interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timer->interval_));
    Clock::time_point next = due + interval;
    if (next <= now) next = now + interval;
    Entry entry;
    entry.timer = timer;
    timer->pending_ = schedule(next, std::move(entry));
  }
};

namespace {

thread_local Ref<RunLoop> tCurrentLoop;

Clock::time_point deadlineAfter(double seconds) {
  // NaN and negative delays mean now; anything beyond a century, a century.
  if (!(seconds > 0)) seconds = 0;
  if (seconds > 3.2e9) seconds = 3.2e9;
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

RunLoop::RunLoop() : impl_(std::make_shared<Impl>()) {}

RunLoop::~RunLoop() = default;

Ref<RunLoop> RunLoop::current() {
  if (!tCurrentLoop) {
    auto loop = make<RunLoop>();
    loop->impl_->owner.store(std::this_thread::get_id(), std::memory_order_release);
    tCurrentLoop = std::move(loop);
  }
  return tCurrentLoop;
}

bool RunLoop::makeCurrent(const Ref<RunLoop>& loop) {
  if (!loop) return false;
  if (tCurrentLoop) return tCurrentLoop == loop;
  std::thread::id none{};
  const std::thread::id self = std::this_thread::get_id();
  if (!loop->impl_->owner.compare_exchange_strong(none, self) && none != self) return false;
  tCurrentLoop = loop;
  return true;
}

bool RunLoop::isCurrent() const { return impl_->isCurrent(); }

void RunLoop::post(Task task) { asio::post(impl_->context, std::move(task)); }

RunLoop::TaskID RunLoop::performAfterDelay(double seconds, Task task, const void* target) {
  Impl::Entry entry;
  entry.target = target;
  entry.task = std::move(task);
  return impl_->schedule(deadlineAfter(seconds), std::move(entry));
}

bool RunLoop::cancelTask(TaskID id) { return impl_->cancel(id); }

size_t RunLoop::cancelTasksWithTarget(const void* target) {
  if (target == nullptr) return 0;
  size_t count = 0;
  Impl& impl = *impl_;
  for (auto it = impl.queue.begin(); it != impl.queue.end();) {
    if (it->second.target == target) {
      impl.deadlines.erase(it->first.second);
      it = impl.queue.erase(it);
      ++count;
    } else {
      ++it;
    }
  }
  return count;
}

size_t RunLoop::pendingDelayedTaskCount() const { return impl_->queue.size(); }

void RunLoop::run() {
  Ref<RunLoop> self = ref<RunLoop>();
  if (!isCurrent() && !(self && makeCurrent(self))) return;
  Impl& impl = *impl_;
  if (impl.stopRequested.exchange(false)) return;
  impl.context.run();
  impl.stopRequested.store(false);
  impl.context.restart();
}

void RunLoop::runFor(double seconds) {
  Ref<RunLoop> self = ref<RunLoop>();
  if (!isCurrent() && !(self && makeCurrent(self))) return;
  Impl& impl = *impl_;
  if (impl.stopRequested.exchange(false)) return;
  if (!(seconds > 0)) seconds = 0;
  impl.context.run_for(
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(seconds, 3.2e9))));
  impl.stopRequested.store(false);
  impl.context.restart();
}

asio::io_context& RunLoopAccess::context(RunLoop& loop) { return loop.impl_->context; }

void RunLoop::stop() {
  impl_->stopRequested.store(true);
  impl_->context.stop();
}

RunLoopTimer::RunLoopTimer(std::weak_ptr<RunLoop::Impl> loop, double interval, bool repeats, Callback callback)
    : loop_(std::move(loop)),
      interval_(interval),
      repeats_(repeats),
      callback_(std::make_shared<const Callback>(std::move(callback))) {}

Ref<RunLoopTimer> RunLoopTimer::scheduledTimer(double interval, bool repeats, Callback callback) {
  if (!(interval >= 1e-4)) interval = 1e-4;
  Ref<RunLoop> loop = RunLoop::current();
  auto timer = make<RunLoopTimer>(loop->impl_, interval, repeats, std::move(callback));
  RunLoop::Impl::Entry entry;
  entry.timer = timer;
  timer->pending_ = loop->impl_->schedule(deadlineAfter(interval), std::move(entry));
  return timer;
}

void RunLoopTimer::invalidate() {
  valid_.store(false, std::memory_order_release);
  std::shared_ptr<RunLoop::Impl> loop = loop_.lock();
  if (!loop) return;
  if (loop->isCurrent()) {
    if (pending_ != 0) loop->cancel(pending_);
    pending_ = 0;
    callback_.reset();
    return;
  }
  // The queue and the callback belong to the loop's thread: drop them there.
  Ref<RunLoopTimer> self = ref<RunLoopTimer>();
  if (!self) return;
  asio::post(loop->context, [self, weakLoop = std::weak_ptr<RunLoop::Impl>(loop)] {
    if (std::shared_ptr<RunLoop::Impl> owner = weakLoop.lock()) {
      if (self->pending_ != 0) owner->cancel(self->pending_);
    }
    self->pending_ = 0;
    self->callback_.reset();
  });
}

}  // namespace loomwork
