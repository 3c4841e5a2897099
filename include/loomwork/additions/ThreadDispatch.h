// Handing tasks to threads: worker threads that run their loop for their whole
// life, posting at once (with or without waiting), delayed tasks, and the
// coalescing delayed dispatch in which a new request replaces the pending one.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "loomwork/platform/RunLoop.h"
#include "loomwork/platform/Thread.h"
#include "loomwork/platform/Types.h"

#pragma GCC visibility push(default)
namespace loomwork {

using DispatchBlock = std::function<void()>;

// A one-time-initialisation flag word that the caller owns: 0 before first
// use, -1 once its initialisation has run.
using DispatchOnceToken = std::atomic<int64_t>;
// Runs `body` the first time the token is seen, once in the process however
// many threads race, and leaves the token at -1.
void dispatchOnce(DispatchOnceToken& token, const std::function<void()>& body);

// A thread made by tw_initAsWorkerThreadWithRunLoop, not yet started: the
// caller starts it. It runs its loop until its Thread object is destroyed.
Ref<Thread> workerThreadWithRunLoop();
// Gives the thread tw_workerThreadWithRunLoopMain as its body (before start).
void tw_initAsWorkerThreadWithRunLoop(Thread& thread);
// The worker body: runs the calling thread's loop, again whenever it returns,
// until the thread is cancelled.
void tw_workerThreadWithRunLoopMain();

// Runs the task.
void tw_executeBlock(const DispatchBlock& task);

// Posts the task to the thread's loop and returns at once.
void dispatchAsyncBlock(Thread& thread, DispatchBlock task);
// Runs the task on the thread and returns after it has run: inline when the
// caller is that thread, else posted and waited for (the thread must be running
// its loop). An exception the task throws is rethrown here.
void dispatchSyncBlock(Thread& thread, DispatchBlock task);
// dispatchSyncBlock when the caller is the thread, else dispatchAsyncBlock.
void dispatchSyncIfOnSameThreadAsyncIfDifferentThread(Thread& thread, DispatchBlock task);
// Runs the task on the thread `delay` seconds from now. The request is
// scheduled at once when the caller is the thread, else posted there first.
void dispatchAfterBlock(Thread& thread, double delay, DispatchBlock task);

// A pending coalesced request: the wrapper that runs the caller's task once
// and then empties its slot. Its identity is what cancellation goes by.
struct DispatchCoalescedWrapper;
// The pending wrappers of a thread's coalescing slots, by slot key.
using DispatchCoalescingDictionary = std::unordered_map<int64_t, std::shared_ptr<const DispatchCoalescedWrapper>>;

// Runs the task on the thread `delay` seconds after the last of a burst of
// requests: a request replaces the one still pending on that thread, which
// then never runs. The token is run through dispatchOnce and its value
// afterwards, always -1, is the slot key, so every coalescing request on a
// thread shares one slot whatever token it passes: requests for different
// work on one thread replace each other too. The slot is emptied when its task
// runs. Bookkeeping happens at once when the caller is the thread, else on the
// thread, in posting order.
void dispatchAfterCoalescingTokenBlock(Thread& thread, double delay, DispatchOnceToken& token, DispatchBlock task);

// The thread's slot dictionary ("dispatchAfterCoalescingDictionary" in its
// thread dictionary), made on first use. Only on that thread; from another
// thread it throws Exception (invalid argument).
DispatchCoalescingDictionary& dispatchAfterCoalescingDictionary(Thread& thread);

}  // namespace loomwork
#pragma GCC visibility pop
