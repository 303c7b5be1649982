#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tolven/exslots.h"

using namespace TOLVEN;

TEST(ExTls, EmptyHandleAndFreshThreadReadNull) {
    SlotDetails empty;
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_EQ(ExTlsGet(&empty), nullptr);
    SlotDetails slot;
    ASSERT_TRUE(ExTlsAlloc(&slot, nullptr, nullptr));
    void* seen = reinterpret_cast<void*>(1);
    std::thread([&] { seen = ExTlsGet(&slot); }).join();
    EXPECT_EQ(seen, nullptr);
    EXPECT_TRUE(ExTlsFree(&slot));
}

TEST(ExTls, ValuesArePerThread) {
    SlotDetails slot;
    ASSERT_TRUE(ExTlsAlloc(&slot, nullptr, nullptr));
    int mine = 1, theirs = 2;
    ASSERT_TRUE(ExTlsSet(&slot, &mine));
    void* seenThere = nullptr;
    std::thread([&] {
        ExTlsSet(&slot, &theirs);
        seenThere = ExTlsGet(&slot);
    }).join();
    EXPECT_EQ(seenThere, &theirs);
    EXPECT_EQ(ExTlsGet(&slot), &mine);
    EXPECT_TRUE(ExTlsFree(&slot));
}

TEST(ExTls, ReusedPlaceHidesEarlierOwnersValue) {
    SlotDetails first;
    ASSERT_TRUE(ExTlsAlloc(&first, nullptr, nullptr));
    int old = 7;
    ASSERT_TRUE(ExTlsSet(&first, &old));
    ASSERT_TRUE(ExTlsFree(&first));
    SlotDetails second;
    ASSERT_TRUE(ExTlsAlloc(&second, nullptr, nullptr));
    ASSERT_EQ(second.index, first.index) << "the freed place is reused first";
    EXPECT_NE(second.generation, first.generation);
    EXPECT_EQ(ExTlsGet(&second), nullptr);
    int fresh = 8;
    ASSERT_TRUE(ExTlsSet(&second, &fresh));
    EXPECT_EQ(ExTlsGet(&second), &fresh);
    EXPECT_EQ(ExTlsGet(&first), nullptr) << "the stale handle sees nothing after the overwrite";
    EXPECT_TRUE(ExTlsFree(&second));
    SlotDetails outside;
    outside.index = 1u << 30;
    EXPECT_FALSE(ExTlsFree(&outside));
}

namespace {
struct ExitProbe {
    SlotDetails slot;
    std::atomic<int> calls{0};
    std::atomic<intptr_t> lastValueSeen{0};
};
void OnExit(void* ctx) {
    auto* probe = static_cast<ExitProbe*>(ctx);
    probe->calls++;
    probe->lastValueSeen = reinterpret_cast<intptr_t>(ExTlsGet(&probe->slot));
}
}  // namespace

TEST(ExTls, ExitCallbackRunsOncePerEndingThreadAndReadsItsValue) {
    ExitProbe probe;
    ASSERT_TRUE(ExTlsAlloc(&probe.slot, &probe, &OnExit));
    EXPECT_EQ(probe.slot.context, &probe);
    std::thread([&] { ExTlsSet(&probe.slot, reinterpret_cast<void*>(intptr_t{42})); }).join();
    EXPECT_EQ(probe.calls.load(), 1);
    EXPECT_EQ(probe.lastValueSeen.load(), 42);
    // A thread that never set any slot gets no notification at all.
    std::thread([] {}).join();
    EXPECT_EQ(probe.calls.load(), 1);
    // A thread that set a different slot still runs this slot's callback, reading null.
    SlotDetails other;
    ASSERT_TRUE(ExTlsAlloc(&other, nullptr, nullptr));
    std::thread([&] { ExTlsSet(&other, &probe); }).join();
    EXPECT_EQ(probe.calls.load(), 2);
    EXPECT_EQ(probe.lastValueSeen.load(), 0);
    EXPECT_TRUE(ExTlsFree(&probe.slot));
    EXPECT_TRUE(ExTlsFree(&other));
}
