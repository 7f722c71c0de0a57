// The turn at the GL driver: one thread at a time, taken again freely by the
// thread that holds it, and known to the thread that holds it.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "base/DriverLock.h"
#include "base/GlLock.h"

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

TEST(DriverLock, SetAsideGivesBackEveryTakeAndTakesThemAllAgain)
{
    for (int depth : {0, 1, 3}) {
        for (int i = 0; i < depth; ++i)
            takeGlDriver();
        ASSERT_EQ(glDriverHolds(), depth);
        const int holds = setGlDriverAside();
        EXPECT_EQ(holds, depth);
        EXPECT_FALSE(holdsGlDriverLock());
        // Meanwhile another thread gets the turn at once.
        auto other = std::async(std::launch::async, [] {
            GlDriverTurn turn;
            return holdsGlDriverLock();
        });
        ASSERT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready) << "depth " << depth;
        EXPECT_TRUE(other.get());
        takeGlDriverBack(holds);
        EXPECT_EQ(glDriverHolds(), depth);
        for (int i = 0; i < depth; ++i)
            releaseGlDriver();
    }
    EXPECT_EQ(glDriverHolds(), 0);
}

// A scene holds the shared texture lock for reading and waits for the
// turn after a wait on the rasterizer; a channel holds the turn and wants the
// lock for writing to recreate a texture. The channel gives the turn back
// while it waits, so both get through, in either mode of the waiting lock.
TEST(DriverLock, AHolderOfTheTurnNeverWaitsForTheSharedTextureLock)
{
    for (auto mode : {SharedTexturesLocked::Writing, SharedTexturesLocked::Reading}) {
        std::atomic<bool> readerHasLock{false};
        std::atomic<bool> writerWaiting{false};
        auto scene = std::async(std::launch::async, [&] {
            SharedTexturesLocked reading(SharedTexturesLocked::Writing == mode ? SharedTexturesLocked::Reading
                                                                               : SharedTexturesLocked::Writing);
            readerHasLock = true;
            while (!writerWaiting.load())
                std::this_thread::yield();
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            GlDriverTurn turn;  // the set-aside turn taken back
            return true;
        });
        while (!readerHasLock.load())
            std::this_thread::yield();
        auto channel = std::async(std::launch::async, [&] {
            GlDriverTurn turn;
            writerWaiting = true;
            SharedTexturesLocked locked(mode);
            return holdsGlDriverLock();
        });
        const auto deadline = std::chrono::seconds(10);
        ASSERT_EQ(scene.wait_for(deadline), std::future_status::ready) << "the two threads wait for each other";
        ASSERT_EQ(channel.wait_for(deadline), std::future_status::ready);
        EXPECT_TRUE(channel.get()) << "the turn is held again once the lock is";
        EXPECT_TRUE(scene.get());
    }
}

}  // namespace
