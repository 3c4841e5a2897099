// Thread: a thread of the process as an object, with its run loop and its
// dictionary of named values.
#pragma once

#include <functional>
#include <memory>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/RunLoop.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// A thread the library can address: either one started through a Thread
// object, or any other thread of the process, which currentThread() describes.
//
// Each has a run loop (runLoop()): made with a Thread object and owned by its
// thread once that runs, or for other threads the loop RunLoop::current() makes.
// A started thread runs until its body returns; destroying the Thread object
// cancels it, stops its loop and waits for it to end (from a task on the thread
// itself, it does not wait). A Thread may be shared between threads; its body
// and threadDictionary() belong to the thread itself.
class Thread : public Object {
 public:
  using Body = std::function<void()>;

  // A thread not yet started, which runs `body` once started.
  explicit Thread(Body body = {});
  ~Thread() override;

  // The Thread of the calling thread, made on first use for threads that were
  // not started through a Thread.
  static Ref<Thread> currentThread();

  // Replaces the body; only before start().
  void setBody(Body body);
  // Starts the thread; later calls do nothing.
  void start();
  bool isStarted() const;
  // The calling thread is this thread.
  bool isCurrent() const;

  // Marks the thread as cancelled; its body decides what to do about it.
  void cancel();
  bool isCancelled() const;

  const Ref<RunLoop>& runLoop() const;
  // The thread's own named values. Use it only on the thread itself.
  Dictionary& threadDictionary();

  struct State;

 private:
  explicit Thread(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
  bool owner_ = true;  // false for the objects currentThread() makes
};

}  // namespace loomwork
#pragma GCC visibility pop
