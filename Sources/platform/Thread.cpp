#include "loomwork/platform/Thread.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace loomwork {

// What a Thread object and its running thread share: the thread outlives the
// object when the object is dropped on the thread itself.
struct Thread::State {
  Ref<RunLoop> loop;
  std::atomic<bool> cancelled{false};
  std::mutex mutex;  // guards body and worker
  Body body;
  std::thread worker;
  std::atomic<bool> started{false};
  std::atomic<std::thread::id> id{};
  Dictionary dictionary;
};

namespace {

thread_local std::shared_ptr<Thread::State> tState;
thread_local std::weak_ptr<Thread> tThread;

}  // namespace

Thread::Thread(Body body) : state_(std::make_shared<State>()) {
  state_->loop = make<RunLoop>();
  state_->body = std::move(body);
}

Thread::Thread(std::shared_ptr<State> state) : state_(std::move(state)), owner_(false) {}

Thread::~Thread() {
  if (!owner_) return;
  State& state = *state_;
  state.cancelled.store(true);
  state.loop->stop();
  std::thread worker;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    worker = std::move(state.worker);
  }
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();
  } else {
    worker.join();
  }
}

Ref<Thread> Thread::currentThread() {
  if (Ref<Thread> thread = tThread.lock()) return thread;
  if (!tState) {
    auto state = std::make_shared<State>();
    state->loop = RunLoop::current();
    state->started.store(true);
    state->id.store(std::this_thread::get_id());
    tState = std::move(state);
  }
  // Not made with make<Thread>: the private constructor is used.
  Ref<Thread> thread(new Thread(tState));
  tThread = thread;
  return thread;
}

void Thread::setBody(Body body) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (!state_->started.load()) state_->body = std::move(body);
}

void Thread::start() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->started.exchange(true)) return;
  std::weak_ptr<Thread> self = ref<Thread>();
  state_->worker = std::thread([state = state_, self, body = std::move(state_->body)] {
    state->id.store(std::this_thread::get_id());
    tState = state;
    tThread = self;
    RunLoop::makeCurrent(state->loop);
    if (body) body();
  });
}

bool Thread::isStarted() const { return state_->started.load(); }

bool Thread::isCurrent() const { return state_->id.load() == std::this_thread::get_id(); }

void Thread::cancel() { state_->cancelled.store(true); }

bool Thread::isCancelled() const { return state_->cancelled.load(); }

const Ref<RunLoop>& Thread::runLoop() const { return state_->loop; }

Dictionary& Thread::threadDictionary() { return state_->dictionary; }

}  // namespace loomwork
