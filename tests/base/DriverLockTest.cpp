// The turn at the GL driver: one thread at a time, taken again freely by the
// thread that holds it, known to the thread that holds it, and given to an
// urgent thread before the others.
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

void waitForWaiters(int count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (glDriverWaiters() < count && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    ASSERT_EQ(glDriverWaiters(), count);
}

// A channel that joins a busy process: busy channels wait for the turn, and
// the new one, urgent, asks last; it gets the turn first, whether the holder
// gives the turn back or only sets it aside for a wait on the rasterizer.
TEST(DriverLock, AnUrgentThreadGoesBeforeThoseThatWaitedLonger)
{
    for (bool setAside : {false, true}) {
        std::mutex orderMutex;
        std::string order;
        auto turnOf = [&](char who, bool urgent) {
            setGlDriverUrgent(urgent);
            GlDriverTurn turn;
            std::lock_guard<std::mutex> lock(orderMutex);
            order.push_back(who);
        };
        takeGlDriver();
        std::vector<std::thread> others;
        const std::vector<std::pair<char, bool>> comers = {{'a', false}, {'b', false}, {'U', true}};
        for (const auto& [who, urgent] : comers) {
            others.emplace_back(turnOf, who, urgent);
            waitForWaiters(int(others.size()));
        }
        if (setAside) {
            const int holds = setGlDriverAside();
            // The urgent thread draws while this one waits on the rasterizer.
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (glDriverWaiters() > 2 && std::chrono::steady_clock::now() < deadline)
                std::this_thread::yield();
            takeGlDriverBack(holds);
        }
        releaseGlDriver();
        for (std::thread& other : others)
            other.join();
        ASSERT_EQ(order.size(), 3u);
        EXPECT_EQ(order[0], 'U') << (setAside ? "set aside: " : "given back: ") << order;
        EXPECT_EQ(glDriverWaiters(), 0);
    }
}

TEST(DriverLock, UrgencyIsTheThreadsOwnAndAScopeGivesItBack)
{
    EXPECT_FALSE(isGlDriverUrgent());
    {
        UrgentGlDriverTurns urgent;
        EXPECT_TRUE(isGlDriverUrgent());
        auto other = std::async(std::launch::async, [] { return isGlDriverUrgent(); });
        EXPECT_FALSE(other.get()) << "another thread's turns became urgent";
        {
            UrgentGlDriverTurns nested;  // a context made while a first picture is on its way
            EXPECT_TRUE(isGlDriverUrgent());
        }
        EXPECT_TRUE(isGlDriverUrgent());
    }
    EXPECT_FALSE(isGlDriverUrgent());
    setGlDriverUrgent(true);
    {
        UrgentGlDriverTurns urgent;
    }
    EXPECT_TRUE(isGlDriverUrgent());
    setGlDriverUrgent(false);
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
