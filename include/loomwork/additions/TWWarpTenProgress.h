// TWWarpTenProgress: a progress value for work of unknown length.
#pragma once

#include <functional>
#include <vector>

#include "loomwork/platform/Object.h"
#include "loomwork/platform/RunLoop.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

inline constexpr double kTWWarpTenProgressDefaultHalfLifeSeconds = 20.0;

// A progress value that follows 1 - 1 / (1 + t / halfLife) for the seconds t
// since it started: one half after the half-life, two thirds after two, never 1.
// It updates itself five times a second on a repeating 0.2 s timer of the run
// loop of the thread that started it, and calls the update block there after
// each update. That thread must run its loop (RunLoop::run(); a worker thread
// from ThreadDispatch.h always does) for updates to happen.
//
// The timer holds the object, so a started progress lives until stopProgress()
// (or until its thread's loop goes away); destroying it stops it first. Use it
// on the thread that started it.
class TWWarpTenProgress : public Object {
 public:
  using UpdateBlock = std::function<void(TWWarpTenProgress& progress)>;

  // Not started; the factories below start what they make.
  TWWarpTenProgress(double halfLife, UpdateBlock updateBlock);
  ~TWWarpTenProgress() override;

  // warpTenProgressWithHalfLife:updateBlock: with kTWWarpTenProgressDefaultHalfLifeSeconds.
  static Ref<TWWarpTenProgress> warpTenProgressWithUpdateBlock(UpdateBlock updateBlock);
  // A new progress with these values, already started on the calling thread.
  static Ref<TWWarpTenProgress> warpTenProgressWithHalfLifeUpdateBlock(double halfLife, UpdateBlock updateBlock);

  // Sets the start to now and schedules the repeating timer on the calling
  // thread's loop. Starting again restarts the curve with a new timer; the old
  // timer is no longer referenced but keeps firing until invalidated.
  void startProgress();
  // The timer's callback: progress from the seconds since the start, then the
  // update block.
  void updateProgress(RunLoopTimer* timer);
  // Invalidates the timer; it does not fire again.
  void stopProgress();

  double progress() const { return progress_; }
  void setProgress(double progress) { progress_ = progress; }
  double halfLife() const { return halfLife_; }
  void setHalfLife(double halfLife) { halfLife_ = halfLife; }
  Date progressStartDate() const { return progressStartDate_; }
  void setProgressStartDate(Date date) { progressStartDate_ = date; }
  const Ref<RunLoopTimer>& progressTimer() const { return progressTimer_; }
  const UpdateBlock& updateBlock() const { return updateBlock_; }
  void setUpdateBlock(UpdateBlock updateBlock) { updateBlock_ = std::move(updateBlock); }

  // The curve sampled: n = duration x frequency rounded up, and the pairs
  // (t, value) for t = i / frequency, i = 0 ... n - 1, time first. Empty when n
  // is below 1 (or not a number); throws Exception (invalid argument) when n
  // would exceed 2^28 samples.
  static std::vector<double> warpTenSamplePointsAndValuesWithDurationSamplingFrequencyHalfLife(double duration,
                                                                                               double frequency,
                                                                                               double halfLife);

 private:
  double progress_ = 0;
  double halfLife_;
  Date progressStartDate_;
  Ref<RunLoopTimer> progressTimer_;
  UpdateBlock updateBlock_;
};

}  // namespace loomwork
#pragma GCC visibility pop
