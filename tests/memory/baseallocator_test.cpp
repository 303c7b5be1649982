#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "memory/BaseAllocatorHooks.h"
#include "platform/memory.h"
#include "tolven/baseallocator.h"
#include "tolven/logapi.h"

using namespace TOLVEN;

namespace {

uint64_t PageSize() {
    uint64_t actual = 0;
    void* p = AllocateEx(nullptr, 1, &actual, false, 3);
    EXPECT_TRUE(FreeAllocation(p));
    return actual;
}

char* AsBytes(void* p) {
    return static_cast<char*>(p);
}

bool AllZero(const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i)
        if (b[i] != 0) return false;
    return true;
}

std::string UniqueName(const char* tag) {
    std::random_device rd;
    return std::string("tolven_test_") + tag + "_" + std::to_string(rd()) + "_" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

}  // namespace

TEST(BaseAllocator, CommitInsideAReservationKeepsItsAddress) {
    const uint64_t page = PageSize();
    uint64_t actual = 0;
    char* base = AsBytes(AllocateEx(nullptr, 4 * 65536, &actual, false, 1));
    ASSERT_NE(base, nullptr);

    char* inner = AsBytes(AllocateEx(base + page, 2 * page, &actual, false, 2));
    ASSERT_EQ(inner, base + page);
    std::memset(inner, 7, 2 * page);

    // Decommit drops contents; a new commit reads zeros again.
    EXPECT_TRUE(FreeAllocationEx(inner, page, 2));
    ASSERT_EQ(AllocateEx(inner, page, nullptr, false, 2), inner);
    EXPECT_TRUE(AllZero(inner, page));
    EXPECT_EQ(inner[page], 7) << "the second page was not decommitted";

    // Outside or across the end of the reservation: refused.
    EXPECT_EQ(AllocateEx(base + 4 * 65536 - page, 2 * page, &actual, false, 2), nullptr);
    EXPECT_EQ(actual, 0u);
    EXPECT_FALSE(FreeAllocationEx(base + 4 * 65536, page, 2));

    // A release must name the base; a wrong one leaves the reservation alone.
    EXPECT_FALSE(FreeAllocationEx(base + page, 0, 1));
    EXPECT_FALSE(FreeAllocationEx(base + page, 0, 3)) << "size 0 decommits only at a base";
    EXPECT_EQ(inner[page], 7);
    EXPECT_FALSE(FreeAllocationEx(nullptr, 0, 3));
    EXPECT_TRUE(FreeAllocationEx(base, 0, 3));
    EXPECT_FALSE(FreeAllocation(base)) << "released already";
    EXPECT_EQ(AllocateEx(nullptr, 100, &actual, false, 0), nullptr) << "no flag";
    EXPECT_EQ(actual, 0u);
}

TEST(BaseAllocator, SharedMemoryIsOpenedByNameAndGoesWithItsLastHandle) {
    const std::string name = UniqueName("sm");
    const uint64_t page = PageSize();
    uint64_t h1 = 0, h2 = 0, actual = 0;
    bool existed = true;

    char* a = AsBytes(AllocateSM(name.c_str(), 10000, &h1, &actual, &existed));
    ASSERT_NE(a, nullptr);
    EXPECT_FALSE(existed);
    std::strcpy(a, "shared text");

    char* b = AsBytes(AllocateSM(name.c_str(), 1, &h2, &actual, &existed));
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(existed);
    EXPECT_EQ(actual, (10000 + page - 1) / page * page) << "the size of the first creation";
    EXPECT_STREQ(b, "shared text");
    b[100] = 'x';
    EXPECT_EQ(a[100], 'x');

    FreeAllocationSM(a, h1);
    EXPECT_STREQ(b, "shared text") << "one handle left keeps the region";
    FreeAllocationSM(b, h2);

    // Gone with the last handle: a new region, empty.
    char* d = AsBytes(AllocateSM(name.c_str(), 4096, &h1, &actual, &existed));
    ASSERT_NE(d, nullptr);
    EXPECT_FALSE(existed);
    EXPECT_EQ(d[0], 0);
    FreeAllocationSM(d, h1);
    FreeAllocationSM(nullptr, 0);

    EXPECT_EQ(AllocateSM(nullptr, 4096, &h1, &actual, &existed), nullptr);
}

// Threads opening and closing one name at once always agree on one region while any of
// them holds it.
TEST(BaseAllocator, SharedMemoryRacingOpenersAndClosers) {
    const std::string name = UniqueName("race");
    std::atomic<int> errors{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                uint64_t h = 0, actual = 0;
                bool existed = false;
                auto* v = static_cast<std::atomic<int>*>(
                    AllocateSM(name.c_str(), 4096, &h, &actual, &existed));
                if (v == nullptr) {
                    ++errors;
                    continue;
                }
                v[t].fetch_add(1);
                if (v[t].load() < 1) ++errors;
                FreeAllocationSM(v, h);
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(errors.load(), 0);
    uint64_t h = 0;
    bool existed = true;
    void* v = AllocateSM(name.c_str(), 4096, &h, nullptr, &existed);
    ASSERT_NE(v, nullptr);
    EXPECT_FALSE(existed) << "the name went with the last handle";
    FreeAllocationSM(v, h);
}

// The first refused page lock of the process is reported once, through the log door.
TEST(BaseAllocator, RefusedPageLockIsLoggedOnce) {
    alloctest::LogCapture log;
    detail::PageLockFn previous =
        detail::SetPageLockerForTest([](void*, uint64_t) { return false; });
    void* p = AllocateEx(nullptr, 4096, nullptr, true, 3);
    void* q = AllocateEx(nullptr, 4096, nullptr, true, 3);
    (void)detail::SetPageLockerForTest(previous);
    EXPECT_NE(p, nullptr) << "a refused lock does not fail the allocation";
    EXPECT_EQ(log.Count(LOGGER_WARN, "VirtualLock failed Error=<" +
                                         std::to_string(platform::LastMemoryError()) +
                                         ">.  You must set a working set size to lock pages "
                                         "in memory."),
              1);
    EXPECT_TRUE(FreeAllocation(p));
    EXPECT_TRUE(FreeAllocation(q));
}
