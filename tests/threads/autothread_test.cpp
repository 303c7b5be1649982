#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "tolven/autothread.h"
#include "threads/registry_util.h"

using namespace TOLVEN;
using TOLVEN::test::IsRegistered;

namespace {

class AutoThread : public ::testing::Test {
  protected:
    void SetUp() override { configure_mainthread(); }
};
}  // namespace

TEST_F(AutoThread, ParkedThreadIsListedAndStoppedByShutdownEvent) {
    auto_thread t;
    std::atomic<bool> parked{false};
    std::atomic<uint32_t> seenId{0};
    ASSERT_TRUE(t.launch("parker-with-a-long-name", [&] {
        thread_data* d = GetCurrentThreadData();
        seenId = d->nativeId;
        EventDetectorType* det = GetCachedDetectorType();
        (void)det->Add(GetShutdownEvent());
        parked = true;
        (void)det->Wait(kInfinite);
        det->Clear();
        ReturnToCache(det);
    }));
    EXPECT_NE(t.native_id(), 0u);
    EXPECT_NE(t.native_handle(), nullptr);
    while (!parked)
        std::this_thread::yield();
    EXPECT_EQ(seenId.load(), t.native_id());
    EXPECT_TRUE(IsRegistered("parker-with-a-long-name")) << "the registry keeps the full name";
    EXPECT_TRUE(t.join_shutdown());
    EXPECT_FALSE(t.joinable());
    EXPECT_FALSE(IsRegistered("parker-with-a-long-name"));
    EXPECT_FALSE(t.get_shutdown_event().IsSignalled()) << "cleared so the object can launch again";
    EXPECT_FALSE(t.join());
    EXPECT_FALSE(t.join_shutdown());
}

TEST_F(AutoThread, ThreadThatReturnsAtOnceLeavesTheRegistryAndCanRelaunch) {
    auto_thread t;
    for (int round = 0; round < 3; ++round) {
        std::atomic<bool> listed{false};
        ASSERT_TRUE(t.launch("quick", [&] { listed = IsRegistered("quick"); }));
        EXPECT_TRUE(t.join());
        EXPECT_TRUE(listed);
    }
    EXPECT_FALSE(IsRegistered("quick"));
}

TEST_F(AutoThread, JoinFromItselfFailsAndDefaultNameApplies) {
    auto_thread t;
    std::atomic<int> selfJoin{-1};
    std::atomic<bool> go{false}, launched{false};
    std::string name;
    ASSERT_TRUE(t.launch(nullptr, [&] {
        name = GetCurrentThreadData()->name;
        while (!launched)
            std::this_thread::yield();  // the owner has finished launch
        selfJoin = t.join() ? 1 : 0;
        while (!go)
            std::this_thread::yield();
    }));
    launched = true;
    while (selfJoin < 0)
        std::this_thread::yield();
    EXPECT_EQ(selfJoin.load(), 0);
    EXPECT_TRUE(t.joinable());
    go = true;
    EXPECT_TRUE(t.join());
    EXPECT_EQ(name, "autothread");
}

TEST_F(AutoThread, PriorityAndArguments) {
    auto_thread t;
    std::atomic<bool> go{false};
    int sum = 0;
    ASSERT_TRUE(t.launch(
        "args",
        [&](int a, int b) {
            sum = a + b;
            while (!go)
                std::this_thread::yield();
        },
        2, 3));
    EXPECT_FALSE(t.set_priority(101));
    EXPECT_TRUE(t.set_priority(40)) << "lowering a priority needs no privilege";
    go = true;
    EXPECT_TRUE(t.join());
    EXPECT_EQ(sum, 5);
    EXPECT_FALSE(t.set_priority(50)) << "no thread to change";
    EXPECT_THROW(t.detach(), std::system_error);
    EXPECT_EQ(PriorityPercentToPlatform(100), 15);
    EXPECT_EQ(PriorityPercentToPlatform(90), 2);
    EXPECT_EQ(PriorityPercentToPlatform(75), 1);
    EXPECT_EQ(PriorityPercentToPlatform(74), 0);
    EXPECT_EQ(PriorityPercentToPlatform(1), -1);
    EXPECT_EQ(PriorityPercentToPlatform(0), -2);
}

TEST_F(AutoThread, ForeignThreadGetsMainShutdownEventAndFreshDetectors) {
    Event* mainEvent = GetShutdownEvent();
    ASSERT_NE(mainEvent, nullptr);
    Event* seen = nullptr;
    EventDetectorType* det = nullptr;
    std::thread([&] {
        seen = GetShutdownEvent();
        det = GetCachedDetectorType();
        EXPECT_EQ(det->Options().lazyCheckInterval, 500u);
        ReturnToCache(det);  // no record: released
    }).join();
    EXPECT_EQ(seen, mainEvent);

    // A foreign thread that configures itself is listed while it runs and leaves at its end.
    bool listedWhileRunning = false;
    std::thread([&] {
        ConfigureCurrentThread("foreign", nullptr, nullptr);
        listedWhileRunning = IsRegistered("foreign");
        EXPECT_EQ(GetShutdownEvent(), mainEvent) << "no event of its own";
    }).join();
    EXPECT_TRUE(listedWhileRunning);
    EXPECT_FALSE(IsRegistered("foreign"));
}

TEST_F(AutoThread, DetectorCacheHoldsFiveAndReusesThem) {
    auto_thread t;
    std::atomic<bool> ok{false};
    ASSERT_TRUE(t.launch("cache", [&] {
        thread_data* d = GetCurrentThreadData();
        EventDetectorType* taken[6];
        for (auto& p : taken)
            p = GetCachedDetectorType();
        bool allCachedGone = true;
        for (auto* c : d->detectorCache)
            allCachedGone &= (c == nullptr);
        for (auto* p : taken)
            ReturnToCache(p);  // the sixth is released
        bool allBack = true;
        for (int i = 0; i < 5; ++i)
            allBack &= (d->detectorCache[i] == taken[i]);
        ok = allCachedGone && allBack;
    }));
    EXPECT_TRUE(t.join());
    EXPECT_TRUE(ok);
}

TEST_F(AutoThread, DetachedThreadKeepsItsShutdownEvent) {
    std::atomic<bool> done{false};
    std::atomic<bool> go{false};
    {
        auto_thread t;
        ASSERT_TRUE(t.launch("detached", [&] {
            while (!go)
                std::this_thread::yield();
            (void)GetShutdownEvent()->Set();  // the object is gone by now
            done = true;
        }));
        t.detach();
        EXPECT_FALSE(t.joinable());
    }
    go = true;
    while (!done || IsRegistered("detached"))
        std::this_thread::yield();
}
