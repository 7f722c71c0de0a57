// The turn at the GL driver: one thread at a time, taken again freely by the
// thread that holds it, and known to the thread that holds it.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "base/DriverLock.h"

namespace {

TEST(DriverLock, NestedTurnsOnOneThreadEndWithTheOutermost)
{
    EXPECT_FALSE(holdsGlDriverLock());
    {
        GlDriverTurn outer;
        EXPECT_TRUE(holdsGlDriverLock());
        {
            GlDriverTurn inner;  // a worker's makeCurrent inside a scene's turn
            EXPECT_TRUE(holdsGlDriverLock());
        }
        EXPECT_TRUE(holdsGlDriverLock());
    }
    EXPECT_FALSE(holdsGlDriverLock());
}

TEST(DriverLock, AnotherThreadWaitsUntilTheTurnIsGivenBack)
{
    std::atomic<int> step{0};
    std::atomic<bool> otherHeld{false};
    takeGlDriver();
    std::thread other([&] {
        EXPECT_FALSE(holdsGlDriverLock());
        step = 1;
        GlDriverTurn turn;
        otherHeld = holdsGlDriverLock();
        step = 2;
    });
    while (step.load() < 1)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(step.load(), 1) << "the other thread drew while this one held the turn";
    releaseGlDriver();
    other.join();
    EXPECT_EQ(step.load(), 2);
    EXPECT_TRUE(otherHeld.load());
    EXPECT_FALSE(holdsGlDriverLock());
}

}  // namespace
