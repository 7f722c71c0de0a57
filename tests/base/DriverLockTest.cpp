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

// Spins until `done` holds, up to 10 s.
template <class Done>
void spinUntil(Done done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
}

// While one thread holds the turn the others wait for it. A channel that
// joins a busy process: busy channels wait for the turn, and the new one,
// urgent, asks last; it gets the turn first, whether the holder gives the
// turn back or only sets it aside for a wait on the rasterizer.
TEST(DriverLock, AnUrgentThreadGoesBeforeThoseThatWaitedLonger)
{
    for (bool setAside : {false, true}) {
        std::mutex orderMutex;
        std::string order;
        auto turnOf = [&](char who, bool urgent) {
            EXPECT_FALSE(holdsGlDriverLock()) << "the turn of another thread";
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
            spinUntil([&] { return glDriverWaiters() >= int(others.size()); });
            EXPECT_EQ(glDriverWaiters(), int(others.size()));
        }
        if (setAside) {
            const int holds = setGlDriverAside();
            // The urgent thread draws while this one waits on the rasterizer.
            spinUntil([] { return glDriverWaiters() <= 2; });
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
    // A scope on a thread that was urgent already leaves it urgent.
    setGlDriverUrgent(true);
    { UrgentGlDriverTurns urgent; }
    EXPECT_TRUE(isGlDriverUrgent());
    setGlDriverUrgent(false);
}

// Takes nest on one thread (a worker's makeCurrent inside a scene's turn):
// the turn is held until the outermost is given back. Set aside, every take
// is given back, and all are taken again.
TEST(DriverLock, NestedTakesEndWithTheOutermostAndAreSetAsideTogether)
{
    EXPECT_FALSE(holdsGlDriverLock());
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
        for (int i = 0; i < depth; ++i) {
            EXPECT_TRUE(holdsGlDriverLock()) << "given back before the outermost take, depth " << depth;
            releaseGlDriver();
        }
        EXPECT_FALSE(holdsGlDriverLock());
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
            spinUntil([&] { return writerWaiting.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            GlDriverTurn turn;  // the set-aside turn taken back
            return true;
        });
        spinUntil([&] { return readerHasLock.load(); });
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
