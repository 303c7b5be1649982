#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/baseallocator.h"
#include "tolven/blockallocator.h"
#include "tolven/blockallocstatmngr.h"

using namespace TOLVEN;
using alloctest::PageSeam;
using alloctest::StatsOf;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new alloctest::MemoryFileEnvironment);

namespace {

uint64_t Granule() {
    return GetAllocationGranularity();
}

// Bytes of one commit unit for a stride and a count.
uint64_t Unit(uint64_t stride, uint64_t blocks) {
    const uint64_t g = Granule();
    return std::max<uint64_t>((stride * blocks + g - 1) / g, 1) * g;
}

uintptr_t Addr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

}  // namespace

TEST(BlockAllocator, StrideRuleAndCarveOrder) {
    const std::pair<uint64_t, uint64_t> cases[] = {{1, 16},  {8, 16},  {15, 16},  {16, 24},
                                                   {17, 24}, {24, 32}, {100, 104}};
    for (const auto& [asked, usable] : cases) {
        BlockAllocator a("stride");
        ASSERT_EQ(a.Init(asked, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(a.GetBlockSize(), usable) << "asked " << asked;
        const uint64_t stride = usable + 8;
        // The highest block goes out first, then one stride lower each time.
        void* first = a.GetBlock();
        void* second = a.GetBlock();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(Addr(first) - Addr(second), stride);
        EXPECT_EQ(Addr(first) % 8, 0u);
        // The first block is the last whole one in the first commit unit.
        const auto s = StatsOf(a);
        EXPECT_EQ(s.CommittedMemory, Unit(stride, 10));
        EXPECT_EQ(s.ReservedMemory, 2 * Unit(stride, 10));
        EXPECT_EQ(s.FreeBlocks + 2, Unit(stride, 10) / stride);
        EXPECT_EQ(s.FreeMemory, s.FreeBlocks * usable);
        std::memset(first, 0xAB, usable);  // the whole payload is the caller's
        std::memset(second, 0xCD, usable);
        EXPECT_EQ(a.ReleaseBlock(first), blockalloc_success);
        EXPECT_EQ(a.ReleaseBlock(second), blockalloc_success);
    }
}

TEST(BlockAllocator, InitRefusals) {
    BlockAllocator a(nullptr);
    EXPECT_STREQ(a.GetName(), "unnamed");
    EXPECT_FALSE(a.IsInitialized());
    EXPECT_EQ(a.GetBlock(), nullptr);
    EXPECT_EQ(a.ReleaseBlock(&a), blockalloc_invalid_block);

    ASSERT_EQ(a.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    void* held = a.GetBlock();
    // A zero in a required field changes nothing, not even the block handed out.
    EXPECT_EQ(a.Init(0, 10, 100, true, 10, 2), blockalloc_invalid_parameter);
    EXPECT_EQ(a.Init(64, 0, 100, true, 10, 2), blockalloc_invalid_parameter);
    EXPECT_EQ(a.Init(64, 10, 0, true, 10, 2), blockalloc_invalid_parameter);
    EXPECT_EQ(a.Init(64, 10, 100, true, 10, 0), blockalloc_invalid_parameter);
    EXPECT_EQ(a.Init(nullptr), blockalloc_invalid_parameter);
    EXPECT_TRUE(a.IsValid(held));
    EXPECT_EQ(a.GetBlockSize(), 72u);

    // A limit below one commit unit fails and leaves the allocator not initialised.
    EXPECT_EQ(a.Init(64, 10, 9, true, 10, 2), blockalloc_out_of_memory);
    EXPECT_FALSE(a.IsInitialized());
    EXPECT_EQ(a.GetBlockSize(), 0u);
    // Sizes no address space holds are refused the same way.
    EXPECT_EQ(a.Init(uint64_t{1} << 60, 10, kBlockAllocNoLimit, true, 10, 2),
              blockalloc_out_of_memory);
    EXPECT_EQ(a.Init(64, uint64_t{1} << 40, kBlockAllocNoLimit, true, 10, 2),
              blockalloc_out_of_memory);
    EXPECT_FALSE(a.IsInitialized());

    // Unlocked use and a compaction delay of 0 are fine.
    EXPECT_EQ(a.Init(64, 10, kBlockAllocNoLimit, false, 0, 1), blockalloc_success);
    EXPECT_EQ(a.Term(), blockalloc_success);
    EXPECT_EQ(a.Term(), blockalloc_success);
    EXPECT_EQ(a.GetBlock(), nullptr);
}

TEST(BlockAllocator, LimitExhaustion) {
    // 1000-byte blocks (1016 with the header), 10 per commit: a granule carves 64, past the
    // 10 asked for, so the limit of 100 stops the third commit rather than the tenth block
    // past 100.
    BlockAllocator a("limit");
    ASSERT_EQ(a.Init(1000, 10, 100, true, 10, 2), blockalloc_success);
    const uint64_t stride = 1016;
    const uint64_t firstCommit = Granule() / stride;
    const uint64_t secondCommit = (Granule() + Granule() % stride) / stride;
    std::vector<void*> blocks;
    for (void* b; (b = a.GetBlock()) != nullptr;)
        blocks.push_back(b);
    EXPECT_EQ(blocks.size(), firstCommit + secondCommit);
    EXPECT_EQ(a.GetBlock(), nullptr) << "stays exhausted";
    // Blocks never overlap, the one cut in two by the first commit's end included.
    std::vector<uintptr_t> sorted;
    for (void* b : blocks)
        sorted.push_back(Addr(b));
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 1; i < sorted.size(); ++i)
        ASSERT_GE(sorted[i] - sorted[i - 1], stride);
    for (void* b : blocks)
        std::memset(b, 0x5A, 1000);
    ASSERT_EQ(a.ReleaseBlock(blocks.back()), blockalloc_success);
    EXPECT_EQ(a.GetBlock(), blocks.back()) << "a released block serves again";
    for (void* b : blocks)
        EXPECT_EQ(a.ReleaseBlock(b), blockalloc_success);
}

TEST(BlockAllocator, BadReleasesGiveStatusAndChangeNothing) {
    BlockAllocator a("bad releases");
    BlockAllocator other("other");
    ASSERT_EQ(a.Init(40, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    ASSERT_EQ(other.Init(40, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    char* block = static_cast<char*>(a.GetBlock());
    char* neighbour = static_cast<char*>(a.GetBlock());
    std::memset(block, 0xFF, 48);  // a payload of all ones: every "header" inside reads as set
    std::memset(neighbour, 0xFF, 48);
    const auto before = StatsOf(a);

    // Interior pointers, the header's own address, the run's first bytes and its end.
    const auto committedEnd = [&] {
        // The highest block is the first handed out; its payload ends where the commit ends,
        // less what is left over after the last whole block.
        return Addr(block) + 48 + Unit(56, 100) % 56;
    }();
    for (char* p :
         {block + 8, block + 1, block + 47, block - 8, neighbour + 16,
          reinterpret_cast<char*>(committedEnd), reinterpret_cast<char*>(committedEnd - 8)})
        EXPECT_EQ(a.ReleaseBlock(p), blockalloc_invalid_block) << static_cast<void*>(p);
    // Foreign pointers: the stack, the heap, another allocator's block, null.
    int local = 0;
    void* heap = std::malloc(64);
    void* theirs = other.GetBlock();
    EXPECT_EQ(a.ReleaseBlock(&local), blockalloc_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(heap), blockalloc_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(theirs), blockalloc_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(nullptr), blockalloc_invalid_block);
    EXPECT_FALSE(a.IsValid(block + 8));
    EXPECT_FALSE(a.IsValid(heap));
    std::free(heap);

    const auto after = StatsOf(a);
    EXPECT_EQ(after.FreeBlocks, before.FreeBlocks);
    EXPECT_TRUE(a.IsValid(block));
    EXPECT_TRUE(a.IsValid(neighbour));

    // A double release is caught by the header and leaves the state as it was.
    EXPECT_EQ(a.ReleaseBlock(block), blockalloc_success);
    EXPECT_FALSE(a.IsValid(block));
    EXPECT_EQ(a.ReleaseBlock(block), blockalloc_block_not_allocated);
    EXPECT_EQ(StatsOf(a).FreeBlocks, before.FreeBlocks + 1);
    EXPECT_EQ(a.GetBlock(), block) << "the free list took the block once";
    EXPECT_NE(a.GetBlock(), block);
    EXPECT_EQ(other.ReleaseBlock(theirs), blockalloc_success);
}

TEST(BlockAllocator, RunsGoIdleAndComeBack) {
    PageSeam seam;
    PageSeam::refuseInPlace = true;  // every new run is a reservation of its own
    BlockAllocator a("idle");
    ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, 5, 2), blockalloc_success);
    const uint64_t perRun = 2 * (Unit(80, 100) / 80);
    std::vector<void*> blocks;
    for (uint64_t i = 0; i < perRun + 1; ++i)
        blocks.push_back(a.GetBlock());
    EXPECT_EQ(PageSeam::reservations.load(), 2);
    // The newest run is searched first; its single block is the last one taken.
    void* loner = blocks.back();
    blocks.pop_back();

    // The run that became wholly free goes idle at once: the others can serve.
    ASSERT_EQ(a.ReleaseBlock(loner), blockalloc_success);
    auto s = StatsOf(a);
    EXPECT_EQ(s.UnusedReservedMemory, 2 * Unit(80, 100));
    EXPECT_EQ(s.UnusedCommittedMemory, Unit(80, 100));
    EXPECT_EQ(s.FreeBlocks, 0u) << "an idle run's blocks are not counted";

    // The idle run comes back before anything is reserved.
    void* again = a.GetBlock();
    EXPECT_EQ(again, loner);
    EXPECT_EQ(PageSeam::reservations.load(), 2);
    EXPECT_EQ(StatsOf(a).UnusedReservedMemory, 0u);
    ASSERT_EQ(a.ReleaseBlock(again), blockalloc_success);

    // The last active run never goes idle.
    for (void* b : blocks)
        ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
    s = StatsOf(a);
    EXPECT_EQ(s.ReservedMemory, 2 * Unit(80, 100));
    EXPECT_EQ(s.FreeBlocks, perRun);
}

TEST(BlockAllocator, CompactionFollowsTheClock) {
    for (const uint64_t seconds : {uint64_t{0}, uint64_t{5}}) {
        // Start just short of the 32-bit wrap: the idle time is taken modulo 2^32.
        PageSeam seam(0xFFFFFC00u);
        PageSeam::refuseInPlace = true;
        BlockAllocator a("compact");
        ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, seconds, 2), blockalloc_success);
        const uint64_t perRun = 2 * (Unit(80, 100) / 80);
        std::vector<void*> blocks;
        for (uint64_t i = 0; i < perRun + 1; ++i)
            blocks.push_back(a.GetBlock());
        ASSERT_EQ(a.ReleaseBlock(blocks.back()), blockalloc_success);
        ASSERT_EQ(StatsOf(a).UnusedReservedMemory, 2 * Unit(80, 100));
        const uintptr_t idleBase = Addr(blocks.back()) & ~uintptr_t{Granule() - 1};

        // Kept while the whole seconds idle do not exceed compactSeconds.
        seam.Advance(static_cast<uint32_t>(seconds * 1000 + 999));
        EXPECT_EQ(a.Compact(), blockalloc_success);
        EXPECT_EQ(a.ReleaseBlock(blocks[0]), blockalloc_success);
        EXPECT_EQ(StatsOf(a).UnusedReservedMemory, 2 * Unit(80, 100)) << seconds;

        // One more millisecond, and a release of a foreign pointer compacts.
        seam.Advance(1);
        int foreign = 0;
        EXPECT_EQ(a.ReleaseBlock(&foreign), blockalloc_invalid_block);
        const auto s = StatsOf(a);
        EXPECT_EQ(s.UnusedReservedMemory, 0u) << seconds;
        EXPECT_EQ(s.UnusedCommittedMemory, 0u);
        const auto frees = PageSeam::Frees();
        ASSERT_EQ(frees.size(), 1u);
        EXPECT_EQ(frees[0].address, idleBase);
        EXPECT_EQ(frees[0].size, Unit(80, 100));
        EXPECT_EQ(frees[0].flags, kFreeDecommit | kFreeRelease);
        for (size_t i = 1; i + 1 < blocks.size(); ++i)
            ASSERT_EQ(a.ReleaseBlock(blocks[i]), blockalloc_success);
    }
}

namespace {

// Lays a run out by hand: the allocator's first reservation lands at `area`, the chunk
// behind it is free, and a neighbour's reservation starts one chunk further on. Commits
// at `failCommitAt` fail.
struct HandLayout {
    static inline char* area = nullptr;
    static inline char* failCommitAt = nullptr;
    static inline int placed = 0;
    detail::BlockAllocatorTestOps ops;
    const detail::BlockAllocatorTestOps* previous = nullptr;
    void* neighbour = nullptr;

    explicit HandLayout(uint64_t chunk) {
        area = static_cast<char*>(AllocateEx(nullptr, 3 * chunk, nullptr, false, kAllocReserve));
        EXPECT_NE(area, nullptr);
        EXPECT_TRUE(FreeAllocationEx(area, 0, kFreeRelease));
        placed = 0;
        failCommitAt = nullptr;
        ops.allocateEx = [](void* address, uint64_t size, uint64_t* actual, bool lock,
                            uint32_t flags) -> void* {
            if (address == nullptr && flags == kAllocReserve && placed++ == 0) address = area;
            if (flags == kAllocCommit && address == failCommitAt) return nullptr;
            return AllocateEx(address, size, actual, lock, flags);
        };
        previous = detail::SetBlockAllocatorOpsForTest(&ops);
        neighbour = AllocateEx(area + 2 * chunk, chunk, nullptr, false, kAllocReserve);
        EXPECT_EQ(neighbour, area + 2 * chunk);
    }
    ~HandLayout() {
        (void)detail::SetBlockAllocatorOpsForTest(previous);
        EXPECT_TRUE(FreeAllocationEx(neighbour, 0, kFreeDecommit | kFreeRelease));
    }
    // Commits a page of the neighbour and writes to it: only a live reservation allows it.
    char* TouchNeighbour() {
        auto* page = static_cast<char*>(AllocateEx(neighbour, 4096, nullptr, false, kAllocCommit));
        EXPECT_EQ(page, neighbour);
        if (page != nullptr) page[0] = 7;
        return page;
    }
};

}  // namespace

TEST(BlockAllocator, GrowsInPlaceUntilBlocked) {
    const uint64_t unit = Unit(80, 100), chunk = 2 * unit, perUnit = unit / 80;
    HandLayout layout(chunk);
    BlockAllocator a("grow");
    ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    std::vector<void*> blocks;
    // Two units fill the first chunk; the next block grows the run in place.
    for (uint64_t i = 0; i < 2 * perUnit + 1; ++i)
        blocks.push_back(a.GetBlock());
    auto s = StatsOf(a);
    EXPECT_EQ(s.ReservedMemory, 2 * chunk) << "one run, two reservations";
    EXPECT_EQ(s.CommittedMemory, 3 * unit);
    EXPECT_GE(Addr(blocks.back()), Addr(HandLayout::area + chunk));

    // The grown run commits further only by growing again, which the neighbour blocks: a
    // new run is reserved elsewhere.
    while (blocks.size() < 3 * unit / 80 + 1)
        blocks.push_back(a.GetBlock());
    ASSERT_NE(blocks.back(), nullptr);
    s = StatsOf(a);
    EXPECT_EQ(s.ReservedMemory, 3 * chunk);
    EXPECT_EQ(s.CommittedMemory, 4 * unit);
    EXPECT_FALSE(Addr(blocks.back()) >= Addr(HandLayout::area) &&
                 Addr(blocks.back()) < Addr(HandLayout::area) + 3 * chunk);
    char* page = layout.TouchNeighbour();

    for (void* b : blocks)
        ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
    EXPECT_EQ(a.Term(), blockalloc_success);
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page[0], 7);
}

TEST(BlockAllocator, FailedCommitWhileGrowingKeepsTheReservationAndTheNeighbour) {
    const uint64_t unit = Unit(80, 100), chunk = 2 * unit, perUnit = unit / 80;
    HandLayout layout(chunk);
    // The commit right behind the first chunk fails once the run has grown there; a release
    // "one chunk past" the new reservation would aim at the neighbour.
    HandLayout::failCommitAt = HandLayout::area + chunk;
    BlockAllocator a("grow fail");
    ASSERT_EQ(a.Init(64, 100, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
    std::vector<void*> blocks;
    for (uint64_t i = 0; i < 2 * perUnit + 1; ++i)
        blocks.push_back(a.GetBlock());
    ASSERT_NE(blocks.back(), nullptr) << "a new run serves";
    const auto s = StatsOf(a);
    // The first run kept its raised reservation; the second is a chunk of its own.
    EXPECT_EQ(s.ReservedMemory, 3 * chunk);
    EXPECT_EQ(s.CommittedMemory, 3 * unit);
    char* page = layout.TouchNeighbour();

    for (void* b : blocks)
        ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
    EXPECT_EQ(a.Term(), blockalloc_success);
    // Term gave back both reservations of the first run: the space behind it is free.
    void* behind = AllocateEx(HandLayout::area + chunk, chunk, nullptr, false, kAllocReserve);
    EXPECT_EQ(behind, HandLayout::area + chunk);
    EXPECT_TRUE(FreeAllocationEx(behind, 0, kFreeRelease));
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page[0], 7);
}

TEST(BlockAllocator, CommitStepFollowsSetBlocksPerAllocation) {
    BlockAllocator a("step");
    ASSERT_EQ(a.Init(64, 10, kBlockAllocNoLimit, true, 10, 8), blockalloc_success);
    const uint64_t first = Granule() / 80;
    std::vector<void*> blocks;
    for (uint64_t i = 0; i < first; ++i)
        blocks.push_back(a.GetBlock());
    EXPECT_EQ(a.SetBlocksPerAllocation(2000), blockalloc_success);
    EXPECT_EQ(a.GetBlocksPerAllocation(), 2000u);
    blocks.push_back(a.GetBlock());
    const auto s = StatsOf(a);
    EXPECT_EQ(s.CommittedMemory, Granule() + Unit(80, 2000));
    EXPECT_EQ(s.FreeBlocks + 1, (Unit(80, 2000) + Granule() % 80) / 80);
    EXPECT_EQ(s.ReservedMemory, 8 * Granule()) << "the chunk size does not follow";
    EXPECT_EQ(a.SetMaxBlocks(5), blockalloc_success);
    EXPECT_EQ(a.GetMaxBlocks(), 5u);
    for (void* b : blocks)
        ASSERT_EQ(a.ReleaseBlock(b), blockalloc_success);
}

TEST(BlockAllocator, ConcurrentTrafficKeepsBlocksApart) {
    BlockAllocator a("threads");
    ASSERT_EQ(a.Init(48, 64, kBlockAllocNoLimit, true, 0, 2), blockalloc_success);
    std::atomic<int> faults{0};
    auto work = [&](unsigned char tag) {
        std::vector<unsigned char*> held;
        for (int round = 0; round < 3000; ++round) {
            if (held.size() < 200 && (round % 3 != 2)) {
                auto* b = static_cast<unsigned char*>(a.GetBlock());
                if (b == nullptr) {
                    ++faults;
                    continue;
                }
                std::memset(b, tag, 56);
                held.push_back(b);
            } else if (!held.empty()) {
                unsigned char* b = held[held.size() / 2];
                held.erase(held.begin() + static_cast<std::ptrdiff_t>(held.size() / 2));
                for (int i = 0; i < 56; ++i)
                    if (b[i] != tag) ++faults;
                if (a.ReleaseBlock(b) != blockalloc_success) ++faults;
            }
        }
        for (unsigned char* b : held)
            if (a.ReleaseBlock(b) != blockalloc_success) ++faults;
    };
    std::vector<std::thread> threads;
    for (unsigned char t = 1; t <= 4; ++t)
        threads.emplace_back(work, t);
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(faults.load(), 0);
    const auto s = StatsOf(a);
    EXPECT_EQ(s.FreeBlocks * 56, s.FreeMemory);
    EXPECT_GE(s.FreeBlocks, 200u) << "every block came back";
}
