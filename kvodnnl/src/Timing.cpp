#include "Timing.h"

#include <algorithm>
#include <atomic>

#include "Tuning.h"

namespace KVOAI::kvodnnl {

namespace {

std::atomic<double> slowdownNow{1.0};

}  // namespace

double slowdown()
{
    return slowdownNow.load(std::memory_order_relaxed);
}

double loaded(double milliseconds)
{
    return milliseconds - kLoadMargin * (slowdown() - 1);
}

void measuredSlowdown(double clockMilliseconds, double processorMilliseconds)
{
    if (processorMilliseconds < kShortestTimedWork)
        return;
    const double ratio = std::clamp(clockMilliseconds / processorMilliseconds, 1.0, kLargestSlowdown);
    const double old = slowdownNow.load(std::memory_order_relaxed);
    slowdownNow.store(old + (ratio > old ? 0.5 : 0.1) * (ratio - old), std::memory_order_relaxed);
}

TimedWork::~TimedWork()
{
    measuredSlowdown(millisecondsSince(clockStart_), threadMilliseconds() - processorStart_);
}

}  // namespace KVOAI::kvodnnl
