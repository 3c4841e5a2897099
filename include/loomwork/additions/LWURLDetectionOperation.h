// LWURLDetectionOperation: finds the link targets in a text in the
// background and reports them to a delegate on the host's main thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "loomwork/platform/DataDetector.h"
#include "loomwork/platform/IndexSet.h"
#include "loomwork/platform/Object.h"

#pragma GCC visibility push(default)
namespace loomwork {

class LWURLDetectionOperation;

// What the host implements to receive an operation's result.
class LWURLDetectionOperationDelegate {
 public:
  virtual ~LWURLDetectionOperationDelegate() = default;
  // Called on the main thread (see LWURLDetectionOperation::setMainThreadDispatcher)
  // with two lists of equal length, in the order the matches were accepted:
  // the URLs and the ranges (UTF-16 code units of the operation's string)
  // they came from.
  virtual void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation& operation,
                                                                     const std::vector<std::string>& urls,
                                                                     const std::vector<IndexRange>& ranges) = 0;
};

// A cancellable operation that finds web and e-mail links, postal addresses
// (as map-search links), phone numbers (as "tel://" links) and mail-message
// links ("message:...") in a text.
//
// The host queues it (on an LWURLDetectionOperationQueue, or calls main() on a
// thread of its own); main() does the work and then posts the report to the
// main thread, where it calls the delegate unless the operation has been
// cancelled by then. The delegate is held weakly: one that is gone by then is
// not called. cancel() and the delegate may be used from any thread; the
// string and the types are fixed at construction. Make the operation with
// make<>(): the posted report holds it through its shared pointer, so the
// host may drop its own reference once it has been queued.
class LWURLDetectionOperation : public Object {
 public:
  // initWithString:types: — `types` is a bit set of TextCheckingType: 32 links,
  // 16 addresses, 2048 phone numbers. The string is copied; any bytes are
  // accepted (ill-formed UTF-8 is read with U+FFFD in place of bad sequences).
  LWURLDetectionOperation(std::string_view string, uint64_t types);

  const std::string& string() const { return string_; }
  uint64_t types() const { return types_; }

  std::shared_ptr<LWURLDetectionOperationDelegate> delegate() const;
  void setDelegate(std::weak_ptr<LWURLDetectionOperationDelegate> delegate);

  // The region for national phone numbers ("US", "DE"); empty (the default)
  // means the region of the host's locale.
  std::string region() const;
  void setRegion(std::string region);

  void cancel() { cancelled_.store(true, std::memory_order_release); }
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // True once main() has returned.
  bool isFinished() const { return finished_.load(std::memory_order_acquire); }

  // Runs the detection and posts the report. Checks for cancellation before
  // each match, before the message-link pass and, on the main thread, before
  // calling the delegate; the phone-number scan also stops early once the
  // operation is cancelled. Does nothing more when no detector can be made for
  // the types (no supported bit set).
  void main();

  // Calls `block` with each mail-message link of string() in text order: the
  // URL "message:<reference>" and the range from "message:" to the end of the
  // reference. A reference ends at whitespace or at one of "<>\"()[]{},;", or
  // just after "%3E" when that comes first; references that make no valid
  // URL are skipped. Stops early when the operation is cancelled.
  void enumerateMessageURLMatches(const std::function<void(const std::string& url, IndexRange range)>& block) const;

  // The link of a detector match: its URL for links, the map-search link for
  // addresses, the "tel://" link for phone numbers; absent when none can be made.
  static std::optional<std::string> linkForMatch(const DataDetectorMatch& match);

  // How the report reaches the main thread. The host installs a function
  // that runs the task it is given on its UI thread (its event loop's post).
  // Without one (or after installing an empty function) the report runs on
  // the thread that ran main(), right after it. Process-wide; thread-safe.
  static void setMainThreadDispatcher(std::function<void(std::function<void()>)> dispatcher);

  // The maps service's search address that an address is appended to, as the
  // value of its q parameter; "https://maps.google.com/?q=" by default.
  static void setMapsSearchAddress(std::string address);
  static std::string mapsSearchAddress();

 private:
  const std::string string_;
  const uint64_t types_;
  mutable std::mutex mutex_;
  std::weak_ptr<LWURLDetectionOperationDelegate> delegate_;
  std::string region_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> finished_{false};
};

// A serial queue with one worker thread of its own that runs queued
// operations' main() in order. The destructor lets the queued operations run
// and joins the worker.
class LWURLDetectionOperationQueue {
 public:
  LWURLDetectionOperationQueue();
  ~LWURLDetectionOperationQueue();
  LWURLDetectionOperationQueue(const LWURLDetectionOperationQueue&) = delete;
  LWURLDetectionOperationQueue& operator=(const LWURLDetectionOperationQueue&) = delete;

  void addOperation(Ref<LWURLDetectionOperation> operation);
  // Blocks until every operation added so far has finished main().
  void waitUntilAllOperationsAreFinished();

 private:
  void work();
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Ref<LWURLDetectionOperation>> pending_;
  bool running_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

// Turns any container into a sequence read one element at a time: next()
// gives a pointer to the next element, or null at the end. The container must
// outlive the iterator and stay unchanged while it is read.
template <class Container>
class FastEnumerationIterator {
 public:
  explicit FastEnumerationIterator(const Container& container)
      : current_(std::begin(container)), end_(std::end(container)) {}
  auto next() -> decltype(&*std::begin(std::declval<const Container&>())) {
    if (current_ == end_) return nullptr;
    return &*current_++;
  }

 private:
  decltype(std::begin(std::declval<const Container&>())) current_;
  decltype(std::end(std::declval<const Container&>())) end_;
};

}  // namespace loomwork
#pragma GCC visibility pop
