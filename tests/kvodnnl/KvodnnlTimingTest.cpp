// The slowdown of the calling thread's work, and the budgets it shortens.
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "Timing.h"
#include "Tuning.h"

using namespace KVOAI::kvodnnl;

namespace {

// Pieces that took as long on the clock as on the processor, until the
// slowdown is back at about 1.
void settleIdle()
{
    for (int i = 0; i < 200; ++i)
        measuredSlowdown(2.0, 2.0);
}

}  // namespace

// Waits raise the slowdown at once and it falls back slowly once they stop;
// pieces too short to measure change nothing; it stays between 1 and
// kLargestSlowdown; the budgets shrink with it and are whole when idle.
TEST(KvodnnlTiming, SlowdownRisesAtOnceFallsSlowlyAndShortensBudgets)
{
    settleIdle();
    EXPECT_NEAR(slowdown(), 1.0, 0.01);
    EXPECT_NEAR(loaded(26.0), 26.0, 0.1);

    // Three pieces that waited as long again as they computed.
    for (int i = 0; i < 3; ++i)
        measuredSlowdown(6.0, 3.0);
    const double busy = slowdown();
    EXPECT_GT(busy, 1.8);
    EXPECT_LE(busy, 2.0);
    EXPECT_LT(loaded(26.0), 26.0 - 0.8 * kLoadMargin);

    // A piece too short to say anything, however long it waited.
    measuredSlowdown(50.0, 0.5 * kShortestTimedWork);
    EXPECT_DOUBLE_EQ(slowdown(), busy);

    // One quiet piece lowers it a little, not all the way.
    measuredSlowdown(3.0, 3.0);
    EXPECT_LT(slowdown(), busy);
    EXPECT_GT(slowdown(), 1.5);

    // Pieces that ran faster on the clock than on the processor (the
    // processor time of other cores counted) count as no slowdown; far
    // slower ones as kLargestSlowdown.
    for (int i = 0; i < 50; ++i)
        measuredSlowdown(100.0, 1.0);
    EXPECT_NEAR(slowdown(), kLargestSlowdown, 0.01);
    for (int i = 0; i < 200; ++i)
        measuredSlowdown(1.0, 4.0);
    EXPECT_NEAR(slowdown(), 1.0, 0.01);

    // Work timed on this thread that only slept computed too little to
    // measure.
    const double before = slowdown();
    {
        const TimedWork sleeping;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_DOUBLE_EQ(slowdown(), before);
    settleIdle();
}
