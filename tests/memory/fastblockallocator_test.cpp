#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/baseallocator.h"
#include "tolven/blockalloclist.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/fastblockallocator.h"

using namespace TOLVEN;
using alloctest::StatsOf;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new alloctest::MemoryFileEnvironment);

namespace {

// Every registered allocator's statistics whose name is `name`.
std::vector<_BLOCK_ALLOC_STATS> StatsNamed(const std::string& name) {
    uint64_t count = BlockAllocatorStatMngr::NumStats();
    std::vector<_BLOCK_ALLOC_STATS> all(count);
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(all.data(), &count));
    all.resize(count);
    std::vector<_BLOCK_ALLOC_STATS> out;
    for (auto& s : all)
        if (s.Name == name) out.push_back(s);
    return out;
}

}  // namespace

// ---- FastBlockAllocator --------------------------------------------------------------------

TEST(FastBlockAllocator, WarmStackServesFirst) {
    FastBlockAllocator a("fast warm");
    ASSERT_EQ(a.Init(1, 100, kBlockAllocNoLimit), blockalloc_success);
    EXPECT_EQ(a.GetBlockSize(), 16u) << "raised to the link's 8 bytes, then the stride rule";
    // The stack's blocks count as handed out below it.
    const uint64_t below = StatsOf(a).FreeBlocks;
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i)
        blocks.push_back(a.GetBlock());
    EXPECT_EQ(StatsOf(a).FreeBlocks, below) << "100 pops touch no free list";
    blocks.push_back(a.GetBlock());
    EXPECT_EQ(StatsOf(a).FreeBlocks, below - 1) << "the 101st comes from below";
    EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), blocks.size());

    // Released blocks join the stack and never go below: the pool keeps its high-water mark.
    for (void* b : blocks) {
        std::memset(b, 0x3C, 16);
        ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
    }
    EXPECT_EQ(StatsOf(a).FreeBlocks, below - 1);
    EXPECT_EQ(a.GetBlock(), blocks.back()) << "last in, first out";

    // Term hands the stack back before it ends the allocator.
    EXPECT_EQ(a.Term(), blockalloc_success);
    EXPECT_EQ(StatsOf(a).BlockSize, 0u);
    EXPECT_EQ(a.GetBlock(), nullptr);
    EXPECT_EQ(a.Init(0, 10, kBlockAllocNoLimit), blockalloc_success) << "0 is raised to 8";
    EXPECT_EQ(a.GetBlockSize(), 16u);
    EXPECT_EQ(a.Init(8, 10, 5), blockalloc_out_of_memory);
    EXPECT_EQ(a.GetBlock(), nullptr);
}

TEST(FastBlockAllocator, BlocksCrossThreadsToTheSameStack) {
    FastBlockAllocator a("fast cross");
    ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit), blockalloc_success);
    const uint64_t below = StatsOf(a).FreeBlocks;
    std::vector<void*> taken;
    for (int i = 0; i < 100; ++i)
        taken.push_back(a.GetBlock());
    std::thread([&] {
        for (void* b : taken)
            EXPECT_EQ(a.ReleaseBlock(b), blockalloc_success);
    }).join();
    std::set<void*> again;
    for (int i = 0; i < 100; ++i)
        again.insert(a.GetBlock());
    EXPECT_EQ(again, std::set<void*>(taken.begin(), taken.end()));
    EXPECT_EQ(StatsOf(a).FreeBlocks, below);
}

TEST(FastBlockAllocator, WideAddressSwitchesToFallbackOnce) {
    alloctest::LogCapture log;
    FastBlockAllocator a("fast fallback");
    ASSERT_EQ(a.Init(32, 10, kBlockAllocNoLimit), blockalloc_success);
    void* mine = a.GetBlock();
    EXPECT_FALSE(a.IsFallback());
    // A made-up address with a bit above bit 47: never read, only refused below.
    auto* wide = reinterpret_cast<void*>(uintptr_t{1} << 48 | 0x1000);
    EXPECT_EQ(a.ReleaseBlock(wide), blockalloc_invalid_block);
    EXPECT_TRUE(a.IsFallback());
    EXPECT_EQ(a.ReleaseBlock(reinterpret_cast<void*>(~uintptr_t{0} << 47)),
              blockalloc_invalid_block);
    const auto warnings = log.Texts(LOGGER_WARN);
    EXPECT_EQ(std::count(warnings.begin(), warnings.end(),
                         "Possible truncation may occur in fast allocator - falling back to "
                         "normal block allocator behaviour."),
              1);

    // From now on releases go below, where a second release is caught.
    const uint64_t before = StatsOf(a).FreeBlocks;
    EXPECT_EQ(a.ReleaseBlock(mine), blockalloc_success);
    EXPECT_EQ(StatsOf(a).FreeBlocks, before + 1);
    EXPECT_EQ(a.ReleaseBlock(mine), blockalloc_block_not_allocated);
    EXPECT_EQ(a.ReleaseBlock(nullptr), blockalloc_invalid_block);
    // The flag outlives Term and Init.
    ASSERT_EQ(a.Init(32, 10, kBlockAllocNoLimit), blockalloc_success);
    EXPECT_TRUE(a.IsFallback());
    EXPECT_NE(a.GetBlock(), nullptr) << "what the warm-up left on the stack still pops";
}

TEST(FastBlockAllocator, ConcurrentPopAndPushKeepBlocksExclusive) {
    // Few blocks and many threads make the same block come back to the head often: a stale
    // pop that succeeded would hand one block to two threads.
    FastBlockAllocator a("fast stress");
    ASSERT_EQ(a.Init(24, 8, kBlockAllocNoLimit), blockalloc_success);
    std::atomic<int> faults{0};
    auto work = [&](uint64_t tag) {
        for (int round = 0; round < 20000; ++round) {
            void* got[3];
            for (void*& b : got) {
                b = a.GetBlock();
                auto* w = static_cast<uint64_t*>(b);
                w[0] = w[1] = w[2] = tag;
            }
            for (void* b : got) {
                auto* w = static_cast<uint64_t*>(b);
                if (w[0] != tag || w[1] != tag || w[2] != tag) ++faults;
                if (a.ReleaseBlock(b) != blockalloc_success) ++faults;
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint64_t t = 1; t <= 4; ++t)
        threads.emplace_back(work, t);
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(faults.load(), 0);
}

// ---- FastBlockAllocatorList ----------------------------------------------------------------

TEST(FastBlockAllocatorList, EqualRecordsShareOneAllocator) {
    FastBlockAllocatorList& list = FastBlockAllocatorList::GetDefault();
    EXPECT_EQ(&list, &FastBlockAllocatorList::GetDefault());
    _BLOCKALLOCATOR_INIT init;
    init.blockSize = 40;
    init.blocksPerAllocation = 16;
    FastBlockAllocator* first = nullptr;
    FastBlockAllocator* second = nullptr;
    ASSERT_EQ(list.Init(init, &first, "shared first"), blockalloc_success);
    ASSERT_EQ(list.Init(init, &second, "shared second"), blockalloc_success);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second->GetName(), "shared first");
    const uint64_t id = first->GetBlockAllocatorId();

    // Any field that differs makes another allocator.
    _BLOCKALLOCATOR_INIT other = init;
    other.compactSeconds = 11;
    FastBlockAllocator* third = nullptr;
    ASSERT_EQ(list.Init(other, &third, "shared third"), blockalloc_success);
    EXPECT_NE(third, first);

    EXPECT_EQ(list.Init(init, nullptr, "x"), blockalloc_invalid_parameter);
    FastBlockAllocator stranger("stranger");
    EXPECT_EQ(list.Term(&stranger), blockalloc_invalid_parameter);
    EXPECT_EQ(list.Term(nullptr), blockalloc_invalid_parameter);
    _BLOCKALLOCATOR_INIT bad = init;
    bad.maxBlocks = 1;
    FastBlockAllocator* refused = first;
    EXPECT_EQ(list.Init(bad, &refused, "refused"), blockalloc_out_of_memory);
    EXPECT_EQ(refused, nullptr);

    void* block = first->GetBlock();
    ASSERT_EQ(list.Term(first), blockalloc_success);
    _BLOCK_ALLOC_STATS stats;
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(stats, id)) << "one user is left";
    EXPECT_EQ(second->ReleaseBlock(block), blockalloc_success);
    ASSERT_EQ(list.Term(second), blockalloc_success);
    EXPECT_FALSE(BlockAllocatorStatMngr::GetStats(stats, id)) << "the last user ended it";
    EXPECT_EQ(list.Term(second), blockalloc_invalid_parameter);
    ASSERT_EQ(list.Term(third), blockalloc_success);
}

// ---- BlockAllocList and SharedBlockAllocList -----------------------------------------------

TEST(BlockAllocList, OneAllocatorPerExactSize) {
    static const char kName[] = "list by size";
    BlockAllocList* list = BlockAllocList::CreateObject(50, kName, false);
    ASSERT_NE(list, nullptr);
    EXPECT_FALSE(list->IsEnabled());
    list->SetEnabled();
    EXPECT_TRUE(list->IsEnabled());

    void* small = list->GetBlock(48);
    void* large = list->GetBlock(64);
    void* small2 = list->GetBlock(48);
    ASSERT_TRUE(small && large && small2);
    const auto named = StatsNamed(kName);
    ASSERT_EQ(named.size(), 2u) << "two allocators, both under the list's name";
    EXPECT_EQ(std::min(named[0].BlockSize, named[1].BlockSize), 56u);
    EXPECT_EQ(std::max(named[0].BlockSize, named[1].BlockSize), 72u);

    // Release needs the exact size; validity needs an allocator at least that large.
    EXPECT_FALSE(list->ReleaseBlock(small, 40));
    EXPECT_TRUE(list->IsValid(small, 48));
    EXPECT_TRUE(list->IsValid(large, 50));
    EXPECT_FALSE(list->IsValid(small, 60));
    EXPECT_FALSE(list->IsValid(nullptr, 1));
    EXPECT_TRUE(list->ReleaseBlock(small, 48));
    EXPECT_FALSE(list->ReleaseBlock(small, 48)) << "a second release is refused";
    EXPECT_FALSE(list->IsValid(small, 48));
    EXPECT_TRUE(list->Owns(small));
    EXPECT_EQ(list->GetBlock(uint64_t{1} << 33), nullptr) << "no size is cut to 32 bits";
    EXPECT_TRUE(list->ReleaseBlock(large, 64));
    EXPECT_TRUE(list->ReleaseBlock(small2, 48));

    EXPECT_EQ(list->Release(), 0);
    EXPECT_TRUE(StatsNamed(kName).empty()) << "the list's end ends its allocators";
}

TEST(SharedBlockAllocList, OneObjectPerKey) {
    SharedBlockAllocList* a = SharedBlockAllocList::GetAllocList(7001);
    EXPECT_EQ(SharedBlockAllocList::GetAllocList(7001), a);
    SharedBlockAllocList* b = SharedBlockAllocList::GetAllocList(7002);
    EXPECT_NE(a, b);

    void* block = a->GetBlock(100, "ignored");
    ASSERT_NE(block, nullptr);
    const auto named = StatsNamed("shared_allocator<7001>");
    ASSERT_EQ(named.size(), 1u);
    // Room for 10000 blocks of 112 bytes (104 usable), in whole granules, twice over.
    const uint64_t granule = GetAllocationGranularity();
    const uint64_t unit = (112 * 10000 + granule - 1) / granule * granule;
    EXPECT_EQ(named[0].CommittedMemory, unit);
    EXPECT_EQ(named[0].ReservedMemory, 2 * unit);

    EXPECT_TRUE(a->IsValid(block, 1 << 20)) << "the size does not narrow the search";
    EXPECT_FALSE(b->IsValid(block, 100));
    EXPECT_FALSE(a->ReleaseBlock(block, 99));
    EXPECT_TRUE(a->ReleaseBlock(block, 100));
    EXPECT_FALSE(a->IsValid(block, 100));
    EXPECT_FALSE(a->IsValid(nullptr, 100));
}

TEST(SharedBlockAllocList, ConcurrentUsers) {
    SharedBlockAllocList* list = SharedBlockAllocList::GetAllocList(7003);
    std::atomic<int> faults{0};
    auto work = [&](unsigned char tag) {
        std::vector<std::pair<unsigned char*, uint64_t>> held;
        for (int round = 0; round < 2000; ++round) {
            const uint64_t size = round % 2 == 0 ? 32 : 200;
            auto* b = static_cast<unsigned char*>(
                SharedBlockAllocList::GetAllocList(7003)->GetBlock(size, nullptr));
            if (b == nullptr) {
                ++faults;
                continue;
            }
            std::memset(b, tag, size);
            held.emplace_back(b, size);
            if (held.size() > 50) {
                for (auto& [p, n] : held) {
                    for (uint64_t i = 0; i < n; ++i)
                        if (p[i] != tag) ++faults;
                    if (!list->ReleaseBlock(p, n)) ++faults;
                }
                held.clear();
            }
        }
        for (auto& [p, n] : held)
            if (!list->ReleaseBlock(p, n)) ++faults;
    };
    std::vector<std::thread> threads;
    for (unsigned char t = 1; t <= 4; ++t)
        threads.emplace_back(work, t);
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(faults.load(), 0);
}

// ---- fast_allocator ------------------------------------------------------------------------

TEST(FastAllocator, ContainersShareOneListAcrossRebinding) {
    using Alloc = fast_allocator<std::pair<const int, int>, 64, true>;
    Alloc alloc;
    EXPECT_EQ(alloc.Peek(), nullptr) << "no list before first need";
    std::map<int, int, std::less<int>, Alloc> map(alloc);
    EXPECT_NE(alloc.Peek(), nullptr) << "copying made the source's list";
    for (int i = 0; i < 5000; ++i)
        map[i * 7 % 5000] = i;
    for (int i = 0; i < 5000; i += 2)
        map.erase(i);
    EXPECT_EQ(map.size(), 2500u);
    EXPECT_EQ(map.get_allocator(), alloc);

    // The list, made by the first allocator copied, is named after that allocator's type,
    // demangled; the node allocator rebound from it shares the name.
    const auto named = StatsNamed("std::pair<int const, int>");
    ASSERT_EQ(named.size(), 1u);
    EXPECT_GT(named[0].BlockSize, sizeof(std::pair<const int, int>)) << "a node, not a pair";

    fast_allocator<int, 64, true> rebound(alloc);
    EXPECT_EQ(rebound.Peek(), alloc.Peek());
    fast_allocator<int, 64, true> assigned;
    assigned = rebound;
    const auto& self = assigned;
    assigned = self;
    EXPECT_EQ(assigned.Peek(), alloc.Peek());
    std::list<int, fast_allocator<int, 64, true>> list(assigned);
    list.assign(100, 5);
    EXPECT_EQ(list.size(), 100u);
}

TEST(FastAllocator, FailuresAndStrangers) {
    fast_allocator<uint64_t, 16, true> alloc;
    try {
        (void)alloc.allocate(uint64_t{1} << 31);  // 16 GiB in one block: more than 32 bits
        ADD_FAILURE() << "no exception";
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ(e.what(), "bad allocation");
    }
    // A size the list never saw goes to the heap (the sanitizers would see a wrong free).
    auto* heap = static_cast<uint64_t*>(std::malloc(3 * sizeof(uint64_t)));
    alloc.deallocate(heap, 3);
    // A pool block released twice stays the pool's: the heap never sees it.
    uint64_t* block = alloc.allocate(1);
    *block = 1;
    alloc.deallocate(block, 1);
    alloc.deallocate(block, 1);
    EXPECT_EQ(alloc.allocate(1), block);
    // Without a list everything is the heap's.
    fast_allocator<uint64_t, 16, true> fresh;
    fresh.deallocate(static_cast<uint64_t*>(std::malloc(8)), 1);
}
