#include "loomwork/additions/TWWarpTenProgress.h"

#include <cmath>

#include "loomwork/platform/Calendar.h"
#include "loomwork/platform/Exception.h"

namespace loomwork {

namespace {

constexpr double kUpdateInterval = 0.2;

double curve(double t, double halfLife) { return 1.0 - 1.0 / (t / halfLife + 1.0); }

}  // namespace

TWWarpTenProgress::TWWarpTenProgress(double halfLife, UpdateBlock updateBlock)
    : halfLife_(halfLife), progressStartDate_(currentDate()), updateBlock_(std::move(updateBlock)) {}

TWWarpTenProgress::~TWWarpTenProgress() { stopProgress(); }

Ref<TWWarpTenProgress> TWWarpTenProgress::warpTenProgressWithUpdateBlock(UpdateBlock updateBlock) {
  return warpTenProgressWithHalfLifeUpdateBlock(kTWWarpTenProgressDefaultHalfLifeSeconds, std::move(updateBlock));
}

Ref<TWWarpTenProgress> TWWarpTenProgress::warpTenProgressWithHalfLifeUpdateBlock(double halfLife,
                                                                                 UpdateBlock updateBlock) {
  auto progress = make<TWWarpTenProgress>(halfLife, std::move(updateBlock));
  progress->startProgress();
  return progress;
}

void TWWarpTenProgress::startProgress() {
  progressStartDate_ = currentDate();
  // The timer's callback holds this object strongly, as the timer does.
  Ref<TWWarpTenProgress> self = ref<TWWarpTenProgress>();
  progressTimer_ = RunLoopTimer::scheduledTimer(kUpdateInterval, true, [self, raw = this](RunLoopTimer& timer) {
    (self ? self.get() : raw)->updateProgress(&timer);
  });
}

void TWWarpTenProgress::updateProgress(RunLoopTimer* /*timer*/) {
  const double t = currentDate().secondsSince1970 - progressStartDate_.secondsSince1970;
  progress_ = curve(t, halfLife_);
  if (updateBlock_) updateBlock_(*this);
}

void TWWarpTenProgress::stopProgress() {
  if (progressTimer_) progressTimer_->invalidate();
}

std::vector<double> TWWarpTenProgress::warpTenSamplePointsAndValuesWithDurationSamplingFrequencyHalfLife(
    double duration, double frequency, double halfLife) {
  const double n = std::ceil(duration * frequency);
  std::vector<double> samples;
  if (!(n >= 1)) return samples;
  if (n > double(1 << 28)) {
    throw Exception(ExceptionKind::InvalidArgument,
                    "TWWarpTenProgress::warpTenSamplePointsAndValuesWithDurationSamplingFrequencyHalfLife: too many "
                    "samples");
  }
  const auto count = static_cast<size_t>(n);
  samples.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) {
    const double t = static_cast<double>(i) / frequency;
    samples.push_back(t);
    samples.push_back(curve(t, halfLife));
  }
  return samples;
}

}  // namespace loomwork
