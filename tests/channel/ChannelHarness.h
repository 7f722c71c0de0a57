#pragma once
// A channel pipeline without a running thread, with a clock and a sleep that
// the test controls, so that the loop can be driven one tick at a time.

#include <cstdint>
#include <vector>

#include "channel/ImageFilters.h"

class ChannelHarness : public ImageFilters {
public:
    explicit ChannelHarness(bool isSceneChannel = false, int sceneId = 0, int channelId = 0)
        : ImageFilters(sceneId, channelId, isSceneChannel, NoThreadStart{})
    {
    }

    // Starts the loop's clocks as process() does on entry.
    void startClock()
    {
        lastTickNs = clock;
        lastFpsChangeNs = clock;
    }

    using ImageFilters::adaptFps;
    using ImageFilters::pace;
    using ImageFilters::tick;
    void ticks(int n) { for (int i = 0; i < n; ++i) tick(); }

    int64_t clock = 1000000000LL;  // nanoseconds
    std::vector<int> sleeps;       // milliseconds asked for, in order
    int frameCostMs = 0;           // what a run of the filters takes on the clock
    int runs = 0;
    QImage lastRunSource;
    bool facesMove = false;  // each run finds faces other than the last run's

    int64_t tickStamp() const { return lastTickNs; }
    int64_t lastRateChange() const { return lastFpsChangeNs; }
    BeautyFilterBase* filterObject(ImageFilterType t) const
    {
        auto it = filters.find(t);
        return it == filters.end() ? nullptr : it->second;
    }
    size_t filterCount() const { return filters.size(); }
    bool holdsNoFilterMarker() const { return filters.size() == 1 && filters.count(NOFILTER) == 1; }

protected:
    int64_t nowNs() override { return clock; }
    void sleepMs(int ms) override
    {
        sleeps.push_back(ms);
        clock += int64_t(ms) * 1000000;
    }
    void runFilters(QImage& src, QImage& dst, bool, bool, bool) override
    {
        ++runs;
        lastRunSource = src;
        if (facesMove)
            facesRepeated = false;
        dst = src;
        clock += int64_t(frameCostMs) * 1000000;
    }
};
