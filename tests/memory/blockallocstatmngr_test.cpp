#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "alloc_test_support.h"
#include "tolven/baseallocator.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/fastblockallocator.h"
#include "tolven/iniconfigreader.h"
#include "tolven/utilerror.h"

using namespace TOLVEN;
namespace fs = std::filesystem;
using alloctest::StatsOf;
using alloctest::TestDir;

namespace {

// What the process looked like before anything touched the manager, taken by the
// environment below before any test runs.
struct FirstUse {
    uint64_t firstId = 0;
    uint64_t countBefore = 99;
    bool lookupBefore = true;
    uint64_t countAfter = 0;
    std::vector<std::string> normalTexts;
};
FirstUse g_first;

// Starts in TestDir() as the working directory, so that the default memory file lands
// there, and makes the first allocator of the process.
class FirstUseEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        fs::current_path(TestDir());
        alloctest::LogCapture log;
        g_first.countBefore = BlockAllocatorStatMngr::NumStats();
        _BLOCK_ALLOC_STATS stats;
        g_first.lookupBefore = BlockAllocatorStatMngr::GetStats(stats, 1);
        g_first.firstId = BlockAllocatorStatMngr::GetNewInstanceId();
        {
            BlockAllocator first("first");
            g_first.countAfter = BlockAllocatorStatMngr::NumStats();
        }
        g_first.normalTexts = log.Texts(LOGGER_NORMAL);
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

// Reads one number of a memory file with a reader of its own; -1 when absent.
int64_t ReadNumber(const std::string& path, const char* section, const char* item) {
    IniConfigReader* reader = IniConfigReader::CreateObject();
    int64_t out = -1;
    unsigned int value = 0;
    if (reader->SetIniFile(path.c_str(), false, false, nullptr) == configreader_success &&
        reader->ReadUINT(section, item, &value) == configreader_success)
        out = value;
    (void)reader->Release();
    return out;
}

// Position of the allocator with `id` in the full listing; -1 when absent.
int PositionOf(uint64_t id) {
    uint64_t count = BlockAllocatorStatMngr::NumStats();
    std::vector<_BLOCK_ALLOC_STATS> all(count);
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(all.data(), &count));
    for (uint64_t i = 0; i < count; ++i)
        if (all[i].Id == id) return static_cast<int>(i);
    return -1;
}

}  // namespace

TEST(BlockAllocatorStatMngr, FirstUseOfTheProcess) {
    EXPECT_EQ(g_first.firstId, 1u);
    EXPECT_EQ(g_first.countBefore, 0u) << "the static readers do not build the manager";
    EXPECT_FALSE(g_first.lookupBefore);
    EXPECT_EQ(g_first.countAfter, 1u);
    // The first registration opened the default file in the working directory.
    EXPECT_TRUE(fs::exists(TestDir() / "unittest_blockallocstat_memory.ini"));
    EXPECT_NE(std::find(g_first.normalTexts.begin(), g_first.normalTexts.end(),
                        "Using memory file unittest_blockallocstat_memory.ini"),
              g_first.normalTexts.end());
    BlockAllocator next("next");
    EXPECT_EQ(next.GetBlockAllocatorId(), BlockAllocatorStatMngr::GetNewInstanceId() - 1);
}

TEST(BlockAllocatorStatMngr, MemoryFileFigures) {
    const std::string path = Put("figures.ini",
                                 "[finalme]\nStartingBlocks=5000\n"
                                 "[garbled]\nStartingBlocks=lots\n");
    {
        alloctest::LogCapture log;
        UtilError error;
        ASSERT_TRUE(BlockAllocatorStatMngr::Get().SetAllocatorFile(path.c_str(), &error));
        EXPECT_FALSE(error.HasError());
        const auto texts = log.Texts(LOGGER_NORMAL);
        EXPECT_NE(std::find(texts.begin(), texts.end(), "Using memory config file " + path),
                  texts.end());
    }
    // A null name with a file open changes nothing.
    EXPECT_TRUE(BlockAllocatorStatMngr::Get().SetAllocatorFile(nullptr, nullptr));

    {
        // The starting figure is read, then cleared by Init's own Term: one commit unit.
        BlockAllocator a("finalme");
        ASSERT_EQ(a.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(StatsOf(a).FreeBlocks, GetAllocationGranularity() / 80);
        BlockAllocator g("garbled");
        EXPECT_EQ(g.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        BlockAllocator never("never");
        BlockAllocator termed("termed");
        ASSERT_EQ(termed.Init(64, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        EXPECT_EQ(termed.Term(), blockalloc_success);
        FastBlockAllocator fast("fastend");
        ASSERT_EQ(fast.Init(64, 10, kBlockAllocNoLimit), blockalloc_success);
    }
    // Whether anything was committed, not how much: 819 blocks write 1.
    EXPECT_EQ(ReadNumber(path, "finalme", "FinalBlocks"), 1);
    EXPECT_EQ(ReadNumber(path, "finalme", "StartingBlocks"), 5000) << "never written";
    EXPECT_EQ(ReadNumber(path, "garbled", "FinalBlocks"), 1);
    // No block size at the end, no figure: never initialised, terminated, or a fast
    // allocator (its destructor terminates before it leaves the manager).
    EXPECT_EQ(ReadNumber(path, "never", "FinalBlocks"), -1);
    EXPECT_EQ(ReadNumber(path, "termed", "FinalBlocks"), -1);
    EXPECT_EQ(ReadNumber(path, "fastend", "FinalBlocks"), -1);
}

TEST(BlockAllocatorStatMngr, UnreadableOrGarbledFilesAreNotFatal) {
    BlockAllocatorStatMngr& manager = BlockAllocatorStatMngr::Get();
    const std::string missing = (TestDir() / "no" / "such" / "dir.ini").string();
    {
        alloctest::LogCapture log;
        UtilError error;
        EXPECT_FALSE(manager.SetAllocatorFile(missing.c_str(), &error));
        EXPECT_EQ(std::string(error.GetError()), "Error reading memory config file " + missing);
        const auto errors = log.Texts(LOGGER_ERROR);
        EXPECT_NE(
            std::find(errors.begin(), errors.end(), "Error reading memory config file " + missing),
            errors.end());
    }
    std::string garbage("\0\xFF[[[]]]=\n=====\n[a\n\x01StartingBlocks\n", 34);
    garbage += std::string(20000, 'x') + "\n[garbage]\nStartingBlocks=\xFF\xFE\n";
    const std::string garbled = Put("garbage.ini", garbage);
    fs::create_directories(TestDir() / "adir.ini");
    for (const std::string& file : {missing, garbled, (TestDir() / "adir.ini").string()}) {
        UtilError error;
        if (!manager.SetAllocatorFile(file.c_str(), &error)) {
            EXPECT_EQ(std::string(error.GetError()), "Error reading memory config file " + file);
        }
        // Registration, work and the figure at the end all go on as usual.
        BlockAllocator a("garbage");
        ASSERT_EQ(a.Init(16, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
        void* b = a.GetBlock();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(a.ReleaseBlock(b), blockalloc_success);
    }
    ASSERT_TRUE(manager.SetAllocatorFile(Put("after.ini", "").c_str(), nullptr));
}

TEST(BlockAllocatorStatMngr, Listings) {
    // Two allocators placed by hand, the later one at the lower address: listings come in
    // address order, whatever the ids say.
    alignas(BlockAllocator) unsigned char room[2 * sizeof(BlockAllocator)];
    auto* high = new (room + sizeof(BlockAllocator)) BlockAllocator("high");
    auto* low = new (room) BlockAllocator("low");
    ASSERT_LT(high->GetBlockAllocatorId(), low->GetBlockAllocatorId());
    EXPECT_LT(PositionOf(low->GetBlockAllocatorId()), PositionOf(high->GetBlockAllocatorId()));

    _BLOCK_ALLOC_STATS one;
    ASSERT_TRUE(BlockAllocatorStatMngr::GetStats(one, low->GetBlockAllocatorId()));
    EXPECT_EQ(one.Name, "low");
    EXPECT_EQ(one.BlockSize, 0u) << "registered before Init: a name and nothing else";
    EXPECT_FALSE(BlockAllocatorStatMngr::GetStats(one, 0));
    EXPECT_EQ(one.Id, UINT64_MAX) << "a failed lookup leaves the blank record";
    EXPECT_TRUE(one.Name.empty());

    const uint64_t total = BlockAllocatorStatMngr::NumStats();
    ASSERT_GE(total, 2u);
    std::vector<_BLOCK_ALLOC_STATS> some(total);
    uint64_t count = 1;
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(some.data(), &count));
    EXPECT_EQ(count, 1u);
    EXPECT_NE(some[0].Id, UINT64_MAX);
    EXPECT_EQ(some[1].Id, UINT64_MAX) << "nothing past the room given";
    count = total + 5;
    some.resize(total + 5);
    EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(some.data(), &count));
    EXPECT_EQ(count, total);
    EXPECT_FALSE(BlockAllocatorStatMngr::GetStats(some.data(), nullptr));

    low->~BlockAllocator();
    high->~BlockAllocator();
    EXPECT_EQ(BlockAllocatorStatMngr::NumStats(), total - 2);
}

TEST(BlockAllocatorStatMngr, RegistrationFromManyThreads) {
    std::atomic<bool> stop{false};
    std::thread lister([&] {
        std::vector<_BLOCK_ALLOC_STATS> room(64);
        while (!stop) {
            uint64_t count = room.size();
            EXPECT_TRUE(BlockAllocatorStatMngr::GetStats(room.data(), &count));
        }
    });
    std::vector<std::thread> makers;
    for (int t = 0; t < 3; ++t) {
        makers.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                BlockAllocator a("churn");
                if (i % 50 == 0) {
                    EXPECT_EQ(a.Init(32, 10, kBlockAllocNoLimit, true, 10, 2), blockalloc_success);
                    void* b = a.GetBlock();
                    EXPECT_EQ(a.ReleaseBlock(b), blockalloc_success);
                }
            }
        });
    }
    for (auto& m : makers)
        m.join();
    stop = true;
    lister.join();
}
