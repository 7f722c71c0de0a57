#include "channel/FramePacing.h"

namespace {

constexpr int kChangeAfter = 200;  // the counter has to pass it

int targetFor(int frameMs) { return 1000 / frameMs < 15 ? 15 : 30; }

}  // namespace

int tickSleepMs(int64_t elapsedMs, int frameIntervalMs)
{
    if (elapsedMs < 0)
        return -1;
    return elapsedMs < frameIntervalMs ? static_cast<int>(frameIntervalMs - elapsedMs) : 5;
}

FpsStep adaptFpsStep(int frameMs, int frameIntervalMs, int currentFps, int& fpsUpCount, int& fpsDownCount)
{
    FpsStep step;
    const bool overran = frameMs > frameIntervalMs;
    if (!overran && frameMs <= 0)
        return step;
    const int target = targetFor(frameMs);
    int& count = overran ? fpsDownCount : fpsUpCount;
    if (overran ? target >= currentFps : target <= currentFps) {
        count = 0;
        return step;
    }
    if (count <= kChangeAfter) {
        ++count;
        return step;
    }
    count = 0;
    step.change = true;
    step.target = target;
    // A drop is announced when frames take more than 66 ms, a climb when they fit in it.
    step.signal = overran ? 1000 / frameMs < 15 : 1000 / frameMs >= 15;
    return step;
}
