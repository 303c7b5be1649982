#include "alloc_test_support.h"

#include <chrono>
#include <thread>

#include "tolven/baseallocator.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/utilerror.h"

namespace fs = std::filesystem;
using namespace TOLVEN;

namespace alloctest {

fs::path TestDir() {
    static const fs::path dir = [] {
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        fs::path p = fs::temp_directory_path() / ("tolven_alloc_" + std::to_string(stamp));
        fs::create_directories(p);
        return fs::canonical(p);
    }();
    return dir;
}

void MemoryFileEnvironment::SetUp() {
    UtilError error;
    ASSERT_TRUE(BlockAllocatorStatMngr::Get().SetAllocatorFile(
        (TestDir() / "alloc_memory.ini").string().c_str(), &error))
        << error.GetError();
}

void MemoryFileEnvironment::TearDown() {
    std::error_code ignored;
    fs::remove_all(TestDir(), ignored);
}

LogCapture::LogCapture() {
    EXPECT_EQ(LogInitApi(), LOG_SUCCESS);
    EXPECT_EQ(LogAddCallbackFunc(&LogCapture::Callback, this, &id_, LOGGER_TRACE), LOG_SUCCESS);
}

LogCapture::~LogCapture() {
    (void)LogRemoveCallback(id_);
    LogTermApi();
}

void LogCapture::Callback(_LOGGER_CB_DATA* const data, void* context) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> guard(self->lock_);
    self->seen_.emplace_back(data->level, data->text);
}

std::vector<std::string> LogCapture::Texts(uint32_t level) {
    EXPECT_TRUE(LogFlush());
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> out;
    for (const auto& [l, text] : seen_)
        if (level == 0 || l == level) out.push_back(text);
    return out;
}

namespace {
std::mutex g_freeLock;
std::vector<PageSeam::FreeCall> g_frees;
}  // namespace

PageSeam::PageSeam(uint32_t start) {
    now = start;
    refuseInPlace = false;
    failCommitAt = 0;
    reservations = 0;
    commits = 0;
    {
        std::lock_guard<std::mutex> guard(g_freeLock);
        g_frees.clear();
    }
    ops_.allocateEx = [](void* address, uint64_t size, uint64_t* actual, bool lock,
                         uint32_t flags) -> void* {
        if ((flags & kAllocReserve) != 0) {
            if (address != nullptr && refuseInPlace) return nullptr;
            ++reservations;
        } else {
            ++commits;
            if (reinterpret_cast<uintptr_t>(address) == failCommitAt) return nullptr;
        }
        return AllocateEx(address, size, actual, lock, flags);
    };
    ops_.freeAllocationEx = [](void* address, uint64_t size, uint32_t flags) {
        {
            std::lock_guard<std::mutex> guard(g_freeLock);
            g_frees.push_back({reinterpret_cast<uintptr_t>(address), size, flags});
        }
        return FreeAllocationEx(address, size, flags);
    };
    ops_.ticks = [] { return now.load(); };
    previous_ = detail::SetBlockAllocatorOpsForTest(&ops_);
}

PageSeam::~PageSeam() {
    (void)detail::SetBlockAllocatorOpsForTest(previous_);
}

std::vector<PageSeam::FreeCall> PageSeam::Frees() {
    std::lock_guard<std::mutex> guard(g_freeLock);
    return g_frees;
}

_BLOCK_ALLOC_STATS StatsOf(StatManagedBlockAllocator& allocator) {
    _BLOCK_ALLOC_STATS stats;
    EXPECT_TRUE(allocator.GetStats(stats));
    return stats;
}

}  // namespace alloctest
