#pragma once
// How a channel keeps its tick and adapts its rate, as pure functions of the
// times the channel's clock gives (the channel injects its clock; tests
// drive these without one).

#include <cstdint>

// The sleep that ends a tick: what is left of the interval, or 5 ms when the
// tick overran; -1 (no sleep) when the clock went back.
int tickSleepMs(int64_t elapsedMs, int frameIntervalMs);

// One frame's step of the rate adaptation: a frame that overran counts
// towards a lower rate, one that fitted towards a higher, each only while its
// target (15 or 30) differs from the rate in force; the 202nd such frame in a
// row changes it. The two counters don't reset each other.
struct FpsStep {
    bool change = false;
    int target = 0;       // the new rate, when it changes
    bool signal = false;  // whether the change is announced
};
FpsStep adaptFpsStep(int frameMs, int frameIntervalMs, int currentFps, int& fpsUpCount, int& fpsDownCount);
