#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/blockalloclist.h"
#include "tolven/fastblockallocator.h"

using namespace TOLVEN;
using alloctest::StatsOf;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new alloctest::MemoryFileEnvironment);

namespace {
// The statistics of every registered allocator named `name`.
std::vector<_BLOCK_ALLOC_STATS> StatsNamed(const std::string& name) {
    uint64_t count = BlockAllocatorStatMngr::NumStats();
    std::vector<_BLOCK_ALLOC_STATS> all(count), out;
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(all.data(), &count));
    for (uint64_t i = 0; i < count; ++i)
        if (all[i].Name == name) out.push_back(all[i]);
    return out;
}
}  // namespace

TEST(FastBlockAllocator, WideAddressSwitchesToFallbackOnce) {
    alloctest::LogCapture log;
    FastBlockAllocator a("fast fallback");
    ASSERT_EQ(a.Init(32, 10, kBlockAllocNoLimit), blockalloc_success);
    void* mine = a.GetBlock();
    // Made-up addresses with bits above bit 47: never read, only refused below.
    EXPECT_EQ(a.ReleaseBlock(reinterpret_cast<void*>(uintptr_t{1} << 48 | 0x1000)),
              blockalloc_invalid_block);
    EXPECT_TRUE(a.IsFallback());
    EXPECT_EQ(a.ReleaseBlock(reinterpret_cast<void*>(~uintptr_t{0} << 47)),
              blockalloc_invalid_block);
    EXPECT_EQ(log.Count(LOGGER_WARN,
                        "Possible truncation may occur in fast allocator - falling back to "
                        "normal block allocator behaviour."),
              1);
    // From now on releases go below, where a second release is caught.
    const uint64_t before = StatsOf(a).FreeBlocks;
    EXPECT_EQ(a.ReleaseBlock(mine), blockalloc_success);
    EXPECT_EQ(StatsOf(a).FreeBlocks, before + 1);
    EXPECT_EQ(a.ReleaseBlock(mine), blockalloc_block_not_allocated);
}

TEST(FastBlockAllocator, ConcurrentPopAndPushKeepBlocksExclusive) {
    // Few blocks and several threads bring the same block back to the head often: a stale
    // pop that succeeded would hand one block to two threads at once.
    FastBlockAllocator a("fast stress");
    ASSERT_EQ(a.Init(24, 8, kBlockAllocNoLimit), blockalloc_success);
    std::atomic<int> faults{0};
    auto work = [&](uint64_t tag) {
        for (int round = 0; round < 20000; ++round) {
            uint64_t* got[3];
            for (auto*& w : got) {
                w = static_cast<uint64_t*>(a.GetBlock());
                w[0] = w[1] = w[2] = tag;
            }
            for (uint64_t* w : got) {
                faults += w[0] != tag || w[1] != tag || w[2] != tag;
                faults += a.ReleaseBlock(w) != blockalloc_success;
            }
        }
    };
    std::thread t1(work, 1), t2(work, 2), t3(work, 3), t4(work, 4);
    t1.join(), t2.join(), t3.join(), t4.join();
    EXPECT_EQ(faults.load(), 0);
}

TEST(FastBlockAllocatorList, EqualRecordsShareOneAllocator) {
    FastBlockAllocatorList& list = FastBlockAllocatorList::GetDefault();
    _BLOCKALLOCATOR_INIT init;
    init.blockSize = 40;
    init.blocksPerAllocation = 16;
    FastBlockAllocator *first = nullptr, *second = nullptr, *third = nullptr;
    ASSERT_EQ(list.Init(init, &first, "shared first"), blockalloc_success);
    ASSERT_EQ(list.Init(init, &second, "shared second"), blockalloc_success);
    EXPECT_EQ(first, second);
    _BLOCKALLOCATOR_INIT other = init;
    other.compactSeconds = 11;
    ASSERT_EQ(list.Init(other, &third, "shared third"), blockalloc_success);
    EXPECT_NE(third, first) << "one field differs";

    EXPECT_EQ(list.Init(init, nullptr, "x"), blockalloc_invalid_parameter);
    EXPECT_EQ(list.Term(reinterpret_cast<FastBlockAllocator*>(&init)),
              blockalloc_invalid_parameter);

    ASSERT_EQ(list.Term(first), blockalloc_success);
    ASSERT_EQ(list.Term(second), blockalloc_success);
    EXPECT_EQ(list.Term(second), blockalloc_invalid_parameter) << "the last user ended it";
    ASSERT_EQ(list.Term(third), blockalloc_success);
}

TEST(BlockAllocList, OneUnlockedAllocatorPerExactSize) {
    static const char kName[] = "list by size";
    BlockAllocList* list = BlockAllocList::CreateObject(50, kName, false);
    ASSERT_NE(list, nullptr);
    void* small = list->GetBlock(48);
    void* large = list->GetBlock(64);
    EXPECT_EQ(StatsNamed(kName).size(), 2u) << "two allocators, both under the list's name";
    // Release needs the exact size; validity an allocator at least that large.
    EXPECT_FALSE(list->ReleaseBlock(small, 40));
    EXPECT_TRUE(list->IsValid(large, 50));
    EXPECT_FALSE(list->IsValid(small, 60));
    EXPECT_TRUE(list->ReleaseBlock(small, 48));
    EXPECT_FALSE(list->ReleaseBlock(small, 48)) << "a second release is refused";
    EXPECT_FALSE(list->IsValid(small, 48));
    EXPECT_EQ(list->GetBlock(uint64_t{1} << 33), nullptr) << "no size is cut to 32 bits";
    EXPECT_EQ(list->Release(), 0);
    EXPECT_TRUE(StatsNamed(kName).empty()) << "the list's end ends its allocators";
}

TEST(SharedBlockAllocList, OneLockedObjectPerKey) {
    SharedBlockAllocList* a = SharedBlockAllocList::GetAllocList(7001);
    EXPECT_EQ(SharedBlockAllocList::GetAllocList(7001), a);
    SharedBlockAllocList* b = SharedBlockAllocList::GetAllocList(7002);
    EXPECT_NE(a, b);
    void* block = a->GetBlock(100, "ignored");
    EXPECT_TRUE(a->IsValid(block, 1 << 20)) << "the size does not narrow the search";
    EXPECT_FALSE(b->IsValid(block, 100));
    EXPECT_FALSE(a->ReleaseBlock(block, 99));
    EXPECT_TRUE(a->ReleaseBlock(block, 100));
    EXPECT_FALSE(a->IsValid(block, 100));

    // Threads on one key, two sizes: every block stays its taker's.
    std::atomic<int> faults{0};
    auto work = [&](unsigned char tag) {
        SharedBlockAllocList* list = SharedBlockAllocList::GetAllocList(7003);
        for (int round = 0; round < 4000; ++round) {
            const uint64_t size = round % 2 == 0 ? 32 : 200;
            auto* p = static_cast<unsigned char*>(list->GetBlock(size, nullptr));
            std::memset(p, tag, size);
            std::this_thread::yield();
            faults += std::count(p, p + size, tag) != static_cast<std::ptrdiff_t>(size);
            faults += !list->ReleaseBlock(p, size);
        }
    };
    std::thread t1(work, 1), t2(work, 2), t3(work, 3);
    t1.join(), t2.join(), t3.join();
    EXPECT_EQ(faults.load(), 0);
}

TEST(FastAllocator, SharesOneListAcrossRebindingAndFailsCleanly) {
    using Alloc = fast_allocator<std::pair<const int, int>, 64, true>;
    Alloc alloc;
    std::map<int, int, std::less<int>, Alloc> map(alloc);
    for (int i = 0; i < 5000; ++i)
        map[i * 7 % 5000] = i;
    for (int i = 0; i < 5000; i += 2)
        map.erase(i);
    EXPECT_EQ(map.size(), 2500u);
    // The list takes the demangled name of the type it was made for; nodes share it.
    const auto named = StatsNamed("std::pair<int const, int>");
    ASSERT_EQ(named.size(), 1u);
    EXPECT_GT(named[0].BlockSize, sizeof(std::pair<const int, int>)) << "a node, not a pair";

    // Failures and strangers.
    fast_allocator<uint64_t, 16, true> words;
    try {
        (void)words.allocate(uint64_t{1} << 31);  // 16 GiB in one block: beyond 32 bits
        ADD_FAILURE() << "no exception";
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ(e.what(), "bad allocation");
    }
    // A size the list never saw goes to the heap (the sanitizers would see a wrong free).
    words.deallocate(static_cast<uint64_t*>(std::malloc(24)), 3);
    // A pool block released twice stays the pool's: the heap never sees it.
    uint64_t* block = words.allocate(1);
    words.deallocate(block, 1);
    words.deallocate(block, 1);
    EXPECT_EQ(words.allocate(1), block);
}
