#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/blockallocator.h"

using namespace TOLVEN;
using alloctest::PageSeam;
using alloctest::StatsOf;
using alloctest::Unit;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new alloctest::MemoryFileEnvironment);

namespace {
uintptr_t Addr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}
}  // namespace

TEST(BlockAllocator, InitRefusalsAndMaxBlocksExhaustion) {
    BlockAllocator a(nullptr);
    EXPECT_EQ(a.GetBlock(), nullptr) << "not initialised";
    EXPECT_EQ(a.ReleaseBlock(&a), blockalloc_invalid_block);
    ASSERT_EQ(a.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    void* held = a.GetBlock();
    // A zero in a required field changes nothing, not even the block handed out.
    for (const auto& z : {std::array<uint64_t, 4>{0, 10, 100, 2},
                          {64, 0, 100, 2},
                          {64, 10, 0, 2},
                          {64, 10, 100, 0}})
        EXPECT_EQ(a.Init(z[0], z[1], z[2], true, 10, z[3]), blockalloc_invalid_parameter);
    EXPECT_TRUE(a.IsValid(held));
    // A limit below one commit unit, or sizes no address space holds: status 1, and the
    // allocator is left not initialised.
    EXPECT_EQ(a.Init(64, 10, 9, true, 10, 2), blockalloc_out_of_memory);
    EXPECT_FALSE(a.IsInitialized());

    // 1000-byte blocks (1016 with the header), 10 per commit: a granule carves 64, past the
    // 10 asked for, so a limit of 100 stops the third commit, not the 101st block.
    ASSERT_EQ(a.Init(1000, 10, 100, false, 0, 2), blockalloc_success);
    EXPECT_EQ(a.GetBlockSize(), 1008u);
    const uint64_t g = GetAllocationGranularity();
    std::vector<void*> blocks;
    for (void* b; (b = a.GetBlock()) != nullptr;)
        blocks.push_back(b);
    EXPECT_EQ(blocks.size(), g / 1016 + (g + g % 1016) / 1016);
    // None overlaps, the one cut in two by the first commit's end included.
    std::sort(blocks.begin(), blocks.end());
    for (size_t i = 1; i < blocks.size(); ++i)
        ASSERT_GE(Addr(blocks[i]) - Addr(blocks[i - 1]), 1016u);
    std::memset(blocks.back(), 1, 1008);
    ASSERT_EQ(a.ReleaseBlock(blocks[7]), blockalloc_success);
    EXPECT_EQ(a.GetBlock(), blocks[7]) << "a released block serves again";
    EXPECT_EQ(a.Term(), blockalloc_success);
    EXPECT_EQ(a.GetBlock(), nullptr);
}

TEST(BlockAllocator, BadReleasesGiveStatusAndChangeNothing) {
    BlockAllocator a("bad releases"), other("other");
    ASSERT_EQ(a.Init(40, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    ASSERT_EQ(other.Init(40, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    // The first block is the highest of the unit: 16 bytes of the unit are left after it.
    char* block = static_cast<char*>(a.GetBlock());
    std::memset(block, 0xFF, 48);  // every word inside reads as a handed-out header
    char* end = block + 48 + Unit(56, 100) % 56;
    const uint64_t freeBefore = StatsOf(a).FreeBlocks;
    int local = 0;
    void* heap = std::malloc(64);
    void* theirs = other.GetBlock();
    for (void* p :
         {static_cast<void*>(block + 8), static_cast<void*>(block + 1),
          static_cast<void*>(block - 8), static_cast<void*>(end), static_cast<void*>(end - 8),
          static_cast<void*>(&local), heap, theirs, static_cast<void*>(nullptr)}) {
        EXPECT_EQ(a.ReleaseBlock(p), blockalloc_invalid_block) << p;
        EXPECT_FALSE(a.IsValid(p));
    }
    std::free(heap);
    EXPECT_EQ(StatsOf(a).FreeBlocks, freeBefore);
    EXPECT_TRUE(a.IsValid(block));

    EXPECT_EQ(a.ReleaseBlock(block), blockalloc_success);
    EXPECT_EQ(a.ReleaseBlock(block), blockalloc_block_not_allocated);
    EXPECT_EQ(StatsOf(a).FreeBlocks, freeBefore + 1) << "the free list took the block once";
}

TEST(BlockAllocator, IdleRunsComeBackThenCompactByTheClock) {
    for (const uint32_t seconds : {0u, 5u}) {
        // Just short of the 32-bit wrap: idle time is taken modulo 2^32.
        PageSeam seam(0xFFFFFC00u);
        PageSeam::refuseInPlace = true;  // every run is a reservation of its own
        BlockAllocator a("idle");
        ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, seconds, 2), blockalloc_success);
        const uint64_t unit = Unit(80, 100), perRun = 2 * (unit / 80);
        std::vector<void*> blocks;
        for (uint64_t i = 0; i < perRun + 1; ++i)
            blocks.push_back(a.GetBlock());
        EXPECT_EQ(PageSeam::reservations.load(), 2);
        // The new run, searched first, holds only the last block. Once that is back the run
        // goes idle: another can serve. Its blocks leave FreeBlocks.
        void* loner = blocks.back();
        blocks.pop_back();
        ASSERT_EQ(a.ReleaseBlock(loner), blockalloc_success);
        EXPECT_EQ(StatsOf(a).UnusedReservedMemory, 2 * unit);
        EXPECT_EQ(StatsOf(a).FreeBlocks, 0u);

        // Kept while the whole seconds idle do not exceed compactSeconds...
        PageSeam::now += seconds * 1000 + 999;
        EXPECT_EQ(a.Compact(), blockalloc_success);
        ASSERT_EQ(a.ReleaseBlock(blocks[0]), blockalloc_success);
        EXPECT_EQ(StatsOf(a).UnusedReservedMemory, 2 * unit);
        EXPECT_EQ(PageSeam::releases.load(), 0);
        // ...and a millisecond later given back by any release, a foreign one included.
        PageSeam::now += 1;
        int foreign = 0;
        EXPECT_EQ(a.ReleaseBlock(&foreign), blockalloc_invalid_block);
        EXPECT_EQ(StatsOf(a).UnusedReservedMemory, 0u);
        EXPECT_EQ(PageSeam::releases.load(), 1);

        // The last active run never goes idle, even when wholly free.
        for (size_t i = 1; i < blocks.size(); ++i)
            ASSERT_EQ(a.ReleaseBlock(blocks[i]), blockalloc_success);
        EXPECT_EQ(StatsOf(a).ReservedMemory, 2 * unit);
    }
}

namespace {
// The first run lands at `area`, the chunk behind it is free, and a neighbour's
// reservation, with data in it, starts one chunk further on.
struct NeighbourLayout {
    char* area;
    char* neighbour;
    explicit NeighbourLayout(uint64_t chunk) {
        area = static_cast<char*>(AllocateEx(nullptr, 3 * chunk, nullptr, false, kAllocReserve));
        EXPECT_TRUE(FreeAllocationEx(area, 0, kFreeRelease));
        PageSeam::placeAt = area;
        neighbour = static_cast<char*>(
            AllocateEx(area + 2 * chunk, chunk, nullptr, false, kAllocReserve | kAllocCommit));
        EXPECT_EQ(neighbour, area + 2 * chunk);
        neighbour[0] = 7;
    }
    ~NeighbourLayout() {
        EXPECT_EQ(neighbour[0], 7) << "the neighbour is intact";
        EXPECT_TRUE(FreeAllocation(neighbour));
    }
};
}  // namespace

TEST(BlockAllocator, GrowsInPlaceAndNeverTouchesANeighbour) {
    const uint64_t unit = Unit(80, 100), chunk = 2 * unit, perUnit = unit / 80;
    for (const bool failCommit : {false, true}) {
        PageSeam seam(0);
        NeighbourLayout layout(chunk);
        // With failCommit, the commit behind the first chunk fails once the run has grown
        // there; a release "one chunk past" the new reservation would aim at the neighbour.
        if (failCommit) PageSeam::failAt = layout.area + chunk;
        BlockAllocator a("grow");
        ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        std::vector<void*> blocks;
        for (uint64_t i = 0; i < 2 * perUnit + 1; ++i)
            blocks.push_back(a.GetBlock());
        ASSERT_NE(blocks.back(), nullptr);
        auto s = StatsOf(a);
        if (!failCommit) {
            EXPECT_EQ(s.ReservedMemory, 2 * chunk) << "one run, two reservations";
            EXPECT_EQ(s.CommittedMemory, 3 * unit);
            EXPECT_GE(Addr(blocks.back()), Addr(layout.area + chunk));
            // Growing again is blocked by the neighbour: a new run elsewhere.
            while (blocks.size() < 3 * unit / 80 + 1)
                blocks.push_back(a.GetBlock());
            ASSERT_NE(blocks.back(), nullptr);
            EXPECT_EQ(StatsOf(a).CommittedMemory, 4 * unit);
        } else {
            // The first run keeps its raised reservation; a new run serves.
            EXPECT_EQ(s.CommittedMemory, 3 * unit);
        }
        EXPECT_EQ(StatsOf(a).ReservedMemory, 3 * chunk);
        for (void* b : blocks)
            ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
        EXPECT_EQ(a.Term(), blockalloc_success);
        // Term gave back both reservations of the first run.
        void* behind = AllocateEx(layout.area, 2 * chunk, nullptr, false, kAllocReserve);
        EXPECT_EQ(behind, layout.area);
        EXPECT_TRUE(FreeAllocationEx(behind, 0, kFreeRelease));
    }
}

TEST(BlockAllocator, ConcurrentTrafficKeepsBlocksApart) {
    BlockAllocator a("threads");
    ASSERT_EQ(a.Init(48, 64, kBlockAllocNoLimit, true, 0, 2), blockalloc_success);
    std::atomic<int> faults{0};
    auto work = [&](unsigned char tag) {
        std::vector<unsigned char*> held;
        for (int round = 0; round < 3000; ++round) {
            if (round % 400 < 250) {  // the pool grows, then shrinks and runs go idle
                held.push_back(static_cast<unsigned char*>(a.GetBlock()));
                std::memset(held.back(), tag, 56);
            } else if (!held.empty()) {
                faults += std::count(held.back(), held.back() + 56, tag) != 56;
                faults += a.ReleaseBlock(held.back()) != blockalloc_success;
                held.pop_back();
            }
        }
        for (unsigned char* b : held)
            faults += a.ReleaseBlock(b) != blockalloc_success;
    };
    std::thread t1(work, 1), t2(work, 2), t3(work, 3);
    t1.join(), t2.join(), t3.join();
    EXPECT_EQ(faults.load(), 0);
}
