// Shared pieces of the block allocator tests: a temporary memory file, a log collector, and
// a seam over the allocators' page calls and clock.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "memory/BlockAllocatorHooks.h"
#include "tolven/baseallocator.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/logapi.h"
#include "tolven/utilerror.h"

namespace alloctest {

// A fresh temporary directory for the binary, made on first use.
inline std::filesystem::path TestDir() {
    static const std::filesystem::path dir = [] {
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        auto p = std::filesystem::temp_directory_path() / ("tolven_alloc_" + std::to_string(stamp));
        return std::filesystem::create_directories(p), std::filesystem::canonical(p);
    }();
    return dir;
}

// Points the statistics manager at a memory file in TestDir() before the tests, so that
// nothing is written beside the binary.
struct MemoryFileEnvironment : ::testing::Environment {
    void SetUp() override {
        TOLVEN::UtilError error;
        ASSERT_TRUE(TOLVEN::BlockAllocatorStatMngr::Get().SetAllocatorFile(
            (TestDir() / "alloc_memory.ini").string().c_str(), &error))
            << error.GetError();
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(TestDir(), ignored);
    }
};

// Collects the log texts of one level while alive.
class LogCapture {
  public:
    LogCapture() {
        EXPECT_EQ(TOLVEN::LogInitApi(), TOLVEN::LOG_SUCCESS);
        EXPECT_EQ(TOLVEN::LogAddCallbackFunc(&Callback, this, &id_, TOLVEN::LOGGER_TRACE),
                  TOLVEN::LOG_SUCCESS);
    }
    ~LogCapture() { (void)TOLVEN::LogRemoveCallback(id_), TOLVEN::LogTermApi(); }
    // How many times `text` came at `level`.
    int Count(uint32_t level, const std::string& text) {
        EXPECT_TRUE(TOLVEN::LogFlush());
        std::lock_guard<std::mutex> guard(lock_);
        return static_cast<int>(
            std::count(seen_.begin(), seen_.end(), std::make_pair(level, text)));
    }

  private:
    static void Callback(TOLVEN::_LOGGER_CB_DATA* const data, void* self) {
        std::lock_guard<std::mutex> guard(static_cast<LogCapture*>(self)->lock_);
        static_cast<LogCapture*>(self)->seen_.emplace_back(data->level, data->text);
    }
    std::mutex lock_;
    std::vector<std::pair<uint32_t, std::string>> seen_;
    uint32_t id_ = 0;
};

// While alive, stands in for the allocators' page calls and clock. The clock stands at
// `now` and moves when told; reservations at a chosen address are refused while
// `refuseInPlace`; the next reservation anywhere lands at `placeAt` when set; a commit at
// `failAt` fails. Reservations and releases are counted.
struct PageSeam {
    static inline std::atomic<uint32_t> now{0};
    static inline std::atomic<bool> refuseInPlace{false};
    static inline std::atomic<char*> placeAt{nullptr}, failAt{nullptr};
    static inline std::atomic<int> reservations{0}, releases{0};
    TOLVEN::detail::BlockAllocatorTestOps ops;
    const TOLVEN::detail::BlockAllocatorTestOps* previous;

    explicit PageSeam(uint32_t start) {
        now = start, refuseInPlace = false, placeAt = failAt = nullptr;
        reservations = releases = 0;
        ops.allocateEx = [](void* at, uint64_t size, uint64_t* actual, bool lock,
                            uint32_t flags) -> void* {
            if ((flags & TOLVEN::kAllocReserve) != 0) {
                if (at != nullptr && refuseInPlace) return nullptr;
                if (at == nullptr) at = placeAt.exchange(nullptr);
                ++reservations;
            } else if (at == failAt.load()) {
                return nullptr;
            }
            return TOLVEN::AllocateEx(at, size, actual, lock, flags);
        };
        ops.freeAllocationEx = [](void* at, uint64_t size, uint32_t flags) {
            ++releases;
            return TOLVEN::FreeAllocationEx(at, size, flags);
        };
        ops.ticks = [] { return now.load(); };
        previous = TOLVEN::detail::SetBlockAllocatorOpsForTest(&ops);
    }
    ~PageSeam() { (void)TOLVEN::detail::SetBlockAllocatorOpsForTest(previous); }
};

inline TOLVEN::_BLOCK_ALLOC_STATS StatsOf(TOLVEN::StatManagedBlockAllocator& allocator) {
    TOLVEN::_BLOCK_ALLOC_STATS stats;
    EXPECT_TRUE(allocator.GetStats(stats));
    return stats;
}

// Bytes of one commit unit: `blocks` blocks of `stride` bytes in whole granules.
inline uint64_t Unit(uint64_t stride, uint64_t blocks) {
    const uint64_t g = TOLVEN::GetAllocationGranularity();
    const uint64_t granules = (stride * blocks + g - 1) / g;
    return (granules == 0 ? 1 : granules) * g;
}

}  // namespace alloctest
