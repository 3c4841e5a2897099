#include "loomwork/additions/ThreadDispatch.h"

#include <future>
#include <mutex>

#include "loomwork/platform/Exception.h"

namespace loomwork {

struct DispatchCoalescedWrapper {
  DispatchBlock task;
  int64_t slotKey;
  double delay;

  void run() const;
};

namespace {

// The slot dictionary as it is kept in a thread dictionary.
struct CoalescingSlots : Object {
  DispatchCoalescingDictionary slots;
};

const Value& coalescingDictionaryKey() {
  static const Value key("dispatchAfterCoalescingDictionary");
  return key;
}

DispatchCoalescingDictionary& currentThreadSlots() {
  return dispatchAfterCoalescingDictionary(*Thread::currentThread());
}

}  // namespace

void DispatchCoalescedWrapper::run() const {
  // A wrapper that was replaced after its alarm went off must not run.
  DispatchCoalescingDictionary& current = currentThreadSlots();
  auto slot = current.find(slotKey);
  if (slot == current.end() || slot->second.get() != this) return;
  tw_executeBlock(task);
  // The task may itself have asked again; that newer request keeps the slot.
  DispatchCoalescingDictionary& after = currentThreadSlots();
  if (auto still = after.find(slotKey); still != after.end() && still->second.get() == this) after.erase(still);
}

void dispatchOnce(DispatchOnceToken& token, const std::function<void()>& body) {
  if (token.load(std::memory_order_acquire) == -1) return;
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  if (token.load(std::memory_order_relaxed) == -1) return;
  if (body) body();
  token.store(-1, std::memory_order_release);
}

Ref<Thread> workerThreadWithRunLoop() {
  Ref<Thread> thread = make<Thread>();
  tw_initAsWorkerThreadWithRunLoop(*thread);
  return thread;
}

void tw_initAsWorkerThreadWithRunLoop(Thread& thread) { thread.setBody(tw_workerThreadWithRunLoopMain); }

void tw_workerThreadWithRunLoopMain() {
  // The loop never returns for lack of work (it keeps itself alive as a port
  // would); it returns when stopped, and the Thread stops it when it goes away.
  Ref<RunLoop> loop = RunLoop::current();
  while (!Thread::currentThread()->isCancelled()) loop->run();
}

void tw_executeBlock(const DispatchBlock& task) {
  if (task) task();
}

void dispatchAsyncBlock(Thread& thread, DispatchBlock task) {
  // Posted as it is (tw_executeBlock would only call it): wrapping it again
  // would cost an allocation per task.
  if (task) thread.runLoop()->post(std::move(task));
}

void dispatchSyncBlock(Thread& thread, DispatchBlock task) {
  if (thread.isCurrent()) {
    tw_executeBlock(task);
    return;
  }
  // A task that is dropped unrun (its thread ended) breaks the promise, so the
  // caller gets an exception instead of waiting for ever.
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  thread.runLoop()->post([done, &task] {
    try {
      tw_executeBlock(task);
      done->set_value();
    } catch (...) {
      done->set_exception(std::current_exception());
    }
  });
  finished.get();
}

void dispatchSyncIfOnSameThreadAsyncIfDifferentThread(Thread& thread, DispatchBlock task) {
  if (thread.isCurrent()) {
    dispatchSyncBlock(thread, std::move(task));
  } else {
    dispatchAsyncBlock(thread, std::move(task));
  }
}

void dispatchAfterBlock(Thread& thread, double delay, DispatchBlock task) {
  // Runs on the target thread, whose current loop is the thread's loop.
  dispatchSyncIfOnSameThreadAsyncIfDifferentThread(thread, [delay, task = std::move(task)]() mutable {
    RunLoop::current()->performAfterDelay(delay, [task = std::move(task)] { tw_executeBlock(task); });
  });
}

void dispatchAfterCoalescingTokenBlock(Thread& thread, double delay, DispatchOnceToken& token, DispatchBlock task) {
  dispatchOnce(token, {});
  // Always -1 after dispatchOnce: one slot per thread for every token.
  const int64_t slotKey = token.load(std::memory_order_acquire);
  // The wrapper is made here and carries the whole request, so posting it
  // costs no allocation beyond the wrapper's own.
  auto wrapper = std::make_shared<DispatchCoalescedWrapper>(DispatchCoalescedWrapper{std::move(task), slotKey, delay});
  dispatchSyncIfOnSameThreadAsyncIfDifferentThread(thread, [wrapper] {
    DispatchCoalescingDictionary& slots = currentThreadSlots();
    RunLoop& loop = *RunLoop::current();
    std::shared_ptr<const DispatchCoalescedWrapper>& slot = slots[wrapper->slotKey];
    if (slot) loop.cancelTasksWithTarget(slot.get());
    slot = wrapper;
    // The delayed request holds the wrapper; the slot only names it.
    loop.performAfterDelay(
        wrapper->delay, [wrapper] { tw_executeBlock([&] { wrapper->run(); }); }, wrapper.get());
  });
}

DispatchCoalescingDictionary& dispatchAfterCoalescingDictionary(Thread& thread) {
  if (!thread.isCurrent()) {
    throw Exception(ExceptionKind::InvalidArgument,
                    "dispatchAfterCoalescingDictionary: a thread's slot dictionary is used only on that thread");
  }
  Dictionary& dictionary = thread.threadDictionary();
  const Value& key = coalescingDictionaryKey();
  if (auto found = dictionary.find(key); found != dictionary.end()) {
    if (auto* slots = dynamic_cast<CoalescingSlots*>(found->second.tryObject())) return slots->slots;
  }
  auto slots = make<CoalescingSlots>();
  DispatchCoalescingDictionary& result = slots->slots;
  dictionary[key] = Value(std::move(slots));
  return result;
}

}  // namespace loomwork
