// The mapped block allocator: file layout, recovery after a restart, bad files, read-only
// use, exclusive use and the statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "log/logfile_test_util.h"
#include "memory/alloc_test_support.h"
#include "tolven/mappedblockallocator.h"

using namespace TOLVEN;
using tolven_test::ScratchDir;
using tolven_test::Slurp;
namespace fs = std::filesystem;

namespace {

uint64_t Word(const std::string& bytes, size_t at) {
    uint64_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

void PutWord(const std::string& path, size_t at, uint64_t value) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(static_cast<std::streamoff>(at));
    f.write(reinterpret_cast<const char*>(&value), sizeof value);
}

void Put(void* payload, uint64_t value) {
    std::memcpy(payload, &value, sizeof value);
}
uint64_t Get(const void* payload) {
    uint64_t value;
    std::memcpy(&value, payload, sizeof value);
    return value;
}

}  // namespace

// 100-byte blocks, 1000 asked for: stride 112, 28 pages holding 36 blocks each (1008), 64
// bytes left at a page's end; the carving walks the same positions as the recovery.
TEST(MappedBlockAllocator, WorkedExampleLayoutAndFirstFile) {
    ScratchDir dir;
    MappedBlockAllocator a;
    ASSERT_EQ(a.Init(100, 1000, (dir.str() + "\\ ").c_str(), "x", true), mba_success);
    EXPECT_EQ(a.GetStride(), 112u);
    EXPECT_EQ(a.GetExtentBytes(), 114688u);
    EXPECT_EQ(a.GetBlocksPerExtent(), 1008u);
    EXPECT_EQ(a.GetPageWaste(), 64u);
    EXPECT_EQ(a.GetFileSize(), 114704u);
    EXPECT_STREQ(a.GetName(), "x");

    std::vector<char*> blocks;
    for (int i = 0; i < 1008; ++i) {
        auto* p = static_cast<char*>(a.GetBlock());
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 4u);
        EXPECT_TRUE(a.IsValid(p));
        blocks.push_back(p);
    }
    // Blocks follow at the stride; where a step lands 64 bytes short of a page, the next
    // block starts on the page. All fit in the file, none overlaps another.
    char* view = blocks[0] - 12 - 16;
    uint64_t expected = 16;
    for (char* p : blocks) {
        ASSERT_EQ(static_cast<uint64_t>(p - 12 - view), expected);
        expected += 112;
        if (expected % 4096 == 4096 - 64) expected += 64;
    }
    EXPECT_LE(static_cast<uint64_t>(blocks.back() - view) + 100, 114704u);
    EXPECT_FALSE(fs::exists(dir / "x.1.mba"));
    void* more = a.GetBlock();  // the first extent is full: a second file
    ASSERT_NE(more, nullptr);
    EXPECT_TRUE(fs::exists(dir / "x.1.mba"));
    const _BLOCK_ALLOC_STATS stats = alloctest::StatsOf(a);
    EXPECT_EQ(stats.FreeBlocks, 1008u * 2 - 1009);
    EXPECT_EQ(stats.FreeMemory, stats.FreeBlocks * 112);
    EXPECT_EQ(stats.BlockSize, 100u);

    // The files can be read once the allocator lets them go.
    EXPECT_EQ(a.Term(), mba_success);
    const std::string file = Slurp(dir / "x.0.mba");
    EXPECT_EQ(Word(file, 0), 8u);
    EXPECT_EQ(Word(file, 8), 112u);
    // Zero pages were written from fileSize past the end, fileSize bytes' worth.
    EXPECT_EQ(file.size(), 2 * 114704u + 29 * 4096u);
}

// Blocks handed out survive the object; the next Init gives them back, last extent and
// highest address first, and counts them as not free.
TEST(MappedBlockAllocator, RestartGivesBackTheBlocksInUse) {
    ScratchDir dir;
    std::vector<uint64_t> kept;
    {
        MappedBlockAllocator a;
        ASSERT_EQ(a.Init(16, 100, dir.str().c_str(), "r", true), mba_success);
        const uint64_t perExtent = a.GetBlocksPerExtent();
        std::vector<void*> blocks;
        for (uint64_t i = 0; i < perExtent + 5; ++i) {
            blocks.push_back(a.GetBlock());
            Put(blocks.back(), 1000 + i);
        }
        for (size_t i = 0; i < blocks.size(); ++i)
            if (i % 3 != 0)
                ASSERT_EQ(a.ReleaseBlock(blocks[i]), mba_success);
            else
                kept.push_back(1000 + i);
        ASSERT_EQ(a.Flush(), mba_success);
    }
    MappedBlockAllocator b;
    ASSERT_EQ(b.Init(16, 100, dir.str().c_str(), "r", true), mba_success);
    EXPECT_EQ(alloctest::StatsOf(b).FreeBlocks, 2 * b.GetBlocksPerExtent() - kept.size());
    std::vector<uint64_t> back;
    while (b.HasAllocatedBlocks()) {
        void* p = b.GetAllocatedBlock();
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(b.IsValid(p));
        back.push_back(Get(p));
    }
    EXPECT_EQ(b.GetAllocatedBlock(), nullptr);
    std::reverse(back.begin(), back.end());
    EXPECT_EQ(back, kept);
    // New blocks never collide with the recovered ones.
    std::set<uint64_t> seen(kept.begin(), kept.end());
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(seen.count(Get(b.GetBlock())), 0u);
}

TEST(MappedBlockAllocator, StatusesOfArgumentsAndReleases) {
    ScratchDir dir;
    MappedBlockAllocator a;
    EXPECT_EQ(a.GetBlock(), nullptr);
    EXPECT_EQ(a.Init(0, 10, dir.str().c_str(), "s", true), mba_invalid_parameter);
    EXPECT_EQ(a.Init(10, 0, dir.str().c_str(), "s", true), mba_invalid_parameter);
    EXPECT_EQ(a.Init(10, 10, nullptr, "s", true), mba_invalid_parameter);
    EXPECT_EQ(a.Init(10, 10, dir.str().c_str(), nullptr, true), mba_invalid_parameter);
    EXPECT_EQ(a.ReleaseBlock(&a), mba_invalid_block);
    ASSERT_EQ(a.Init(10, 10, dir.str().c_str(), "s", true), mba_success);
    EXPECT_EQ(a.Init(50, 10, dir.str().c_str(), "other", true), mba_success);  // ignored
    EXPECT_EQ(a.GetStride(), 24u);

    char* p = static_cast<char*>(a.GetBlock());
    char* q = static_cast<char*>(a.GetBlock());
    // Addresses inside the file that are no block's payload change nothing (the header is
    // looked at below).
    EXPECT_EQ(a.ReleaseBlock(p - 12), mba_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(p + 1), mba_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(p - 12 - 16 + 4), mba_invalid_block);
    EXPECT_EQ(a.ReleaseBlock(p), mba_success);
    EXPECT_EQ(a.ReleaseBlock(p), mba_block_not_allocated);
    EXPECT_FALSE(a.IsValid(p));
    EXPECT_TRUE(a.IsValid(q));
    EXPECT_EQ(a.GetBlock(), p);  // the free list first
    EXPECT_EQ(a.Term(), mba_success);
    EXPECT_EQ(a.ReleaseBlock(q), mba_invalid_block);
    EXPECT_STREQ(a.GetName(), "");
    const std::string file = Slurp(dir / "s.0.mba");
    EXPECT_EQ(Word(file, 0), 8u);
    EXPECT_EQ(Word(file, 8), 24u);
}

// A file of another word size or stride refuses the start and is left as it was; so is a
// file too short to be read.
TEST(MappedBlockAllocator, ForeignAndDamagedFilesGiveAStatus) {
    ScratchDir dir;
    {
        MappedBlockAllocator a;
        ASSERT_EQ(a.Init(100, 1000, dir.str().c_str(), "x", true), mba_success);
        ASSERT_NE(a.GetBlock(), nullptr);
    }
    const std::string path = dir.str() + "/x.0.mba";  // as the allocator names it
    const std::string good = Slurp(path);
    alloctest::LogCapture log;
    {
        MappedBlockAllocator other;
        EXPECT_EQ(other.Init(200, 1000, dir.str().c_str(), "x", true), mba_bad_file);
        EXPECT_EQ(other.GetBlock(), nullptr);
    }
    EXPECT_EQ(Slurp(path), good);
    EXPECT_EQ(log.Count(LOGGER_ERROR, "MappedBlockAllocator::OpenMappedMem(): File \"" + path +
                                          "\" created with block size 112, expected size is 216."),
              1);

    PutWord(path, 0, 4);
    {
        MappedBlockAllocator a;
        EXPECT_EQ(a.Init(100, 1000, dir.str().c_str(), "x", true), mba_bad_file);
    }
    EXPECT_EQ(log.Count(LOGGER_NORMAL,
                        "MappedBlockAllocator::OpenMappedMem - File created with word size 4 "
                        "system size is 8"),
              1);
    PutWord(path, 0, 8);

    // Cut short: a reader cannot map it; a writer grows it back, keeping what is left.
    fs::resize_file(path, 4096);
    {
        MappedBlockAllocator reader;
        EXPECT_EQ(reader.Init(0, MappedBlockAllocator::kGenericRead, 100, 1000, dir.str().c_str(),
                              "x", true),
                  mba_io_error);
    }
    MappedBlockAllocator writer;
    ASSERT_EQ(writer.Init(100, 1000, dir.str().c_str(), "x", true), mba_success);
    EXPECT_NE(writer.GetAllocatedBlock(), nullptr);
    EXPECT_EQ(writer.GetAllocatedBlock(), nullptr);
}

TEST(MappedBlockAllocator, ReaderChangesNoByte) {
    ScratchDir dir;
    {
        MappedBlockAllocator a;
        ASSERT_EQ(a.Init(40, 10, dir.str().c_str(), "ro", true), mba_success);
        for (int i = 0; i < 3; ++i)
            Put(a.GetBlock(), 7 + i);
    }
    const std::string before = Slurp(dir / "ro.0.mba");
    MappedBlockAllocator r;
    ASSERT_EQ(r.Init(1, MappedBlockAllocator::kGenericRead, 40, 10, dir.str().c_str(), "ro", true),
              mba_success);
    std::vector<uint64_t> got;
    while (void* p = r.GetAllocatedBlock())
        got.push_back(Get(p));
    EXPECT_EQ(got, (std::vector<uint64_t>{9, 8, 7}));
    EXPECT_EQ(r.GetBlock(), nullptr);
    EXPECT_EQ(r.Term(), mba_success);
    EXPECT_EQ(Slurp(dir / "ro.0.mba"), before);
    EXPECT_FALSE(fs::exists(dir / "ro.1.mba"));
}

// Extents are read in number order up to the first missing one. A wholly free extent is
// closed once enough other room is free, and its number is not reused in the run.
TEST(MappedBlockAllocator, ExtentsByNumberAndClosing) {
    ScratchDir dir;
    {
        MappedBlockAllocator a;
        ASSERT_EQ(a.Init(16, 4, dir.str().c_str(), "e", true), mba_success);
        const uint64_t per = a.GetBlocksPerExtent();
        std::vector<void*> blocks;
        for (uint64_t i = 0; i < 3 * per; ++i)
            blocks.push_back(a.GetBlock());
        ASSERT_TRUE(fs::exists(dir / "e.2.mba"));
        // Empty extent 1 while 0 and 2 stay full: too little else is free to close it.
        for (uint64_t i = per; i < 2 * per; ++i)
            ASSERT_EQ(a.ReleaseBlock(blocks[i]), mba_success);
        EXPECT_EQ(alloctest::StatsOf(a).FreeBlocks, per);
        // Emptying extent 2 as well makes 2 x per free: extent 2 is closed on its last release.
        for (uint64_t i = 2 * per; i < 3 * per; ++i)
            ASSERT_EQ(a.ReleaseBlock(blocks[i]), mba_success);
        EXPECT_EQ(alloctest::StatsOf(a).FreeBlocks, per);
        EXPECT_EQ(a.ReleaseBlock(blocks[2 * per]), mba_invalid_block);
        for (uint64_t i = 0; i < 2 * per - 1; ++i)
            ASSERT_NE(a.GetBlock(), nullptr);
        EXPECT_TRUE(fs::exists(dir / "e.3.mba"));  // a new number, not 2
        Put(a.GetBlock(), 33);                     // lands in e.3
    }
    fs::remove(dir / "e.2.mba");
    MappedBlockAllocator b;
    ASSERT_EQ(b.Init(16, 4, dir.str().c_str(), "e", true), mba_success);
    uint64_t recovered = 0;
    while (void* p = b.GetAllocatedBlock()) {
        EXPECT_NE(Get(p), 33u);  // e.3 lies behind the gap
        ++recovered;
    }
    EXPECT_EQ(recovered, 2 * b.GetBlocksPerExtent());
}

// While one allocator holds the files, another of the same name cannot start; once the first
// ends, it can.
TEST(MappedBlockAllocator, FilesAreHeldExclusively) {
    ScratchDir dir;
    auto first = std::make_unique<MappedBlockAllocator>();
    ASSERT_EQ(first->Init(32, 8, dir.str().c_str(), "h", true), mba_success);
    {
        MappedBlockAllocator second;
        EXPECT_EQ(second.Init(32, 8, dir.str().c_str(), "h", true), mba_io_error);
    }
    MappedBlockAllocator missing;
    EXPECT_EQ(missing.Init(32, 8, (dir / "no/such").c_str(), "h", true), mba_io_error);
    first.reset();
    MappedBlockAllocator third;
    EXPECT_EQ(third.Init(32, 8, dir.str().c_str(), "h", true), mba_success);
}

TEST(MappedBlockAllocator, ThreadsShareOneAllocator) {
    ScratchDir dir;
    MappedBlockAllocator a;
    ASSERT_EQ(a.Init(24, 64, dir.str().c_str(), "t", true), mba_success);
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (uint64_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::vector<void*> mine;
            for (uint64_t i = 0; i < 3000; ++i) {
                if (i % 3 != 2) {
                    void* p = a.GetBlock();
                    Put(p, t << 32 | i);
                    mine.push_back(p);
                } else {
                    faults += Get(mine.back()) >> 32 != t;
                    faults += a.ReleaseBlock(mine.back()) != mba_success;
                    mine.pop_back();
                }
            }
            for (void* p : mine)
                faults += a.ReleaseBlock(p) != mba_success;
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(faults.load(), 0);
    EXPECT_FALSE(a.HasAllocatedBlocks());
}
