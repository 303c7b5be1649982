#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/fastblockallocator.h"
#include "tolven/iniconfigreader.h"

using namespace TOLVEN;
namespace fs = std::filesystem;
using alloctest::TestDir;

namespace {

// What the process looked like around its first allocator, taken before any test runs.
struct FirstUse {
    uint64_t countBefore = 99;
    bool lookupBefore = true;
    int announced = 0;
} g_first;

// Works in TestDir(), so that the default memory file lands there, and makes the first
// allocator of the process.
struct FirstUseEnvironment : ::testing::Environment {
    void SetUp() override {
        fs::current_path(TestDir());
        alloctest::LogCapture log;
        g_first.countBefore = BlockAllocatorStatMngr::NumStats();
        _BLOCK_ALLOC_STATS stats;
        g_first.lookupBefore = BlockAllocatorStatMngr::GetStats(stats, 1);
        { BlockAllocator first("first"); }
        g_first.announced =
            log.Count(LOGGER_NORMAL, "Using memory file unittest_blockallocstat_memory.ini");
    }
    void TearDown() override {
        fs::current_path(TestDir().parent_path());
        std::error_code ignored;
        fs::remove_all(TestDir(), ignored);
    }
};
::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new FirstUseEnvironment);

std::string Put(const std::string& name, const std::string& text) {
    const std::string path = (TestDir() / name).string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
}

// One number of an INI file, read by a reader of its own; -1 when absent.
int64_t ReadNumber(const std::string& path, const char* section, const char* item) {
    IniConfigReader* reader = IniConfigReader::CreateObject();
    unsigned int value = 0;
    const bool read =
        reader->SetIniFile(path.c_str(), false, false, nullptr) == configreader_success &&
        reader->ReadUINT(section, item, &value) == configreader_success;
    (void)reader->Release();
    return read ? int64_t{value} : -1;
}

}  // namespace

TEST(BlockAllocatorStatMngr, FirstUseOfTheProcess) {
    EXPECT_EQ(g_first.countBefore, 0u) << "the static readers do not build the manager";
    EXPECT_FALSE(g_first.lookupBefore);
    EXPECT_TRUE(fs::exists(TestDir() / "unittest_blockallocstat_memory.ini"));
    EXPECT_EQ(g_first.announced, 1);
}

TEST(BlockAllocatorStatMngr, MemoryFileFigures) {
    const std::string path =
        Put("figures.ini", "[finalme]\nStartingBlocks=5000\n[garbled]\nStartingBlocks=lots\n");
    {
        alloctest::LogCapture log;
        ASSERT_TRUE(BlockAllocatorStatMngr::Get().SetAllocatorFile(path.c_str(), nullptr));
        EXPECT_EQ(log.Count(LOGGER_NORMAL, "Using memory config file " + path), 1);
    }
    {
        // The starting figure is read, then cleared by Init's own Term: one commit unit.
        BlockAllocator a("finalme"), g("garbled"), never("never"), termed("termed");
        ASSERT_EQ(a.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(alloctest::StatsOf(a).FreeBlocks, GetAllocationGranularity() / 80);
        EXPECT_EQ(g.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        ASSERT_EQ(termed.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(termed.Term(), blockalloc_success);
        FastBlockAllocator fast("fastend");
        ASSERT_EQ(fast.Init(64, 10, kBlockAllocNoLimit), blockalloc_success);
    }
    // Whether anything was committed, not how much: 819 blocks write 1. Nothing is written
    // without a block size: never initialised, terminated, or a fast allocator (whose
    // destructor terminates before it leaves the manager).
    EXPECT_EQ(ReadNumber(path, "finalme", "FinalBlocks"), 1);
    EXPECT_EQ(ReadNumber(path, "garbled", "FinalBlocks"), 1);
    for (const char* none : {"never", "termed", "fastend"})
        EXPECT_EQ(ReadNumber(path, none, "FinalBlocks"), -1) << none;
}

TEST(BlockAllocatorStatMngr, UnreadableOrGarbledFilesAreNotFatal) {
    const std::string missing = (TestDir() / "no" / "such" / "dir.ini").string();
    {
        alloctest::LogCapture log;
        UtilError error;
        EXPECT_FALSE(BlockAllocatorStatMngr::Get().SetAllocatorFile(missing.c_str(), &error));
        EXPECT_EQ(error.GetError(), "Error reading memory config file " + missing);
        EXPECT_EQ(log.Count(LOGGER_ERROR, "Error reading memory config file " + missing), 1);
    }
    std::string garbage("\0\xFF[[[]]]=\n=====\n[a\n\x01StartingBlocks\n", 34);
    garbage += std::string(20000, 'x') + "\n[garbage]\nStartingBlocks=\xFF\xFE\n";
    for (const std::string& file : {missing, Put("garbage.ini", garbage), TestDir().string()}) {
        UtilError error;
        if (!BlockAllocatorStatMngr::Get().SetAllocatorFile(file.c_str(), &error)) {
            EXPECT_EQ(error.GetError(), "Error reading memory config file " + file);
        }
        // Registration, work and the figure at the end go on as usual.
        BlockAllocator a("garbage");
        ASSERT_EQ(a.Init(16, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(a.ReleaseBlock(a.GetBlock()), blockalloc_success);
    }
    ASSERT_TRUE(
        BlockAllocatorStatMngr::Get().SetAllocatorFile(Put("after.ini", "").c_str(), nullptr));
}

TEST(BlockAllocatorStatMngr, ListingsKeepToTheRoomGiven) {
    BlockAllocator a("listed"), b("listed too");
    std::vector<_BLOCK_ALLOC_STATS> all(2);
    uint64_t count = 1;
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(all.data(), &count));
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(all[1].Id, UINT64_MAX) << "nothing past the room given";
    EXPECT_FALSE(BlockAllocatorStatMngr::GetStats(all.data(), nullptr));
}
