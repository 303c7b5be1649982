#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/thread.h"
#include "tolven/quicklock.h"

using TOLVEN::detail::CriticalSection;

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
    CriticalSection cs(4000);
    ASSERT_TRUE(cs.TryEnter());
    ASSERT_TRUE(cs.TryEnter());  // re-entry by the owner
    EXPECT_TRUE(cs.IsOwnedByCaller());
    bool otherGotIt = true;
    bool otherOwns = true;
    std::thread([&] {
        otherGotIt = cs.TryEnter();
        otherOwns = cs.IsOwnedByCaller();
    }).join();
    EXPECT_FALSE(otherGotIt);
    EXPECT_FALSE(otherOwns);
    cs.Leave();
    std::thread([&] { otherGotIt = cs.TryEnter(); }).join();
    EXPECT_FALSE(otherGotIt) << "one Leave of two entries must keep the section owned";
    cs.Leave();
    EXPECT_FALSE(cs.IsOwnedByCaller());
    std::thread([&] {
        otherGotIt = cs.TryEnter();
        if (otherGotIt) cs.Leave();
    }).join();
    EXPECT_TRUE(otherGotIt);
}

TEST(CriticalSection, ContendedCounterLosesNoIncrement) {
    for (uint32_t spin : {0u, 4000u}) {
        CriticalSection cs(spin);
        int64_t counter = 0;
        constexpr int kThreads = 4, kPerThread = 20000;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < kPerThread; ++i) {
                    cs.Enter();
                    cs.Enter();  // nested entry on the contended path too
                    ++counter;
                    cs.Leave();
                    cs.Leave();
                }
            });
        for (auto& t : threads)
            t.join();
        EXPECT_EQ(counter, int64_t{kThreads} * kPerThread) << "spin " << spin;
    }
}

TEST(QuickLock, GuardReleasesEarlyAndOnce) {
    TOLVEN::QuickLock lock;
    {
        TOLVEN::QuickLockGuard guard(lock);
        guard.Release();
        bool free = false;
        std::thread([&] {
            free = lock.TryLock();
            if (free) lock.Unlock();
        }).join();
        EXPECT_TRUE(free);
    }  // the destructor must not leave the lock a second time
    EXPECT_TRUE(lock.TryLock());
    lock.Unlock();
}

TEST(Platform, ThreadIdsAreDistinctAndStable) {
    const uint32_t mine = TOLVEN::platform::CurrentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(mine, TOLVEN::platform::CurrentThreadId());
    uint32_t other = 0;
    std::thread([&] { other = TOLVEN::platform::CurrentThreadId(); }).join();
    EXPECT_NE(other, mine);
}

TEST(Platform, MonotonicCounterAdvancesAcrossSleep) {
    const uint64_t a = TOLVEN::platform::MonotonicCounter();
    TOLVEN::platform::SleepMs(20);
    const uint64_t b = TOLVEN::platform::MonotonicCounter();
    const double ms = double(b - a) * 1000.0 / double(TOLVEN::platform::MonotonicFrequency());
    EXPECT_GE(ms, 19.0);
}
