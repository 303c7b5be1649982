// Shared pieces of the block allocator tests: a temporary memory file for the statistics
// manager, a log collector, and seams over the allocators' page calls and clock.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "memory/BlockAllocatorHooks.h"
#include "tolven/blockallocator.h"
#include "tolven/logapi.h"

namespace alloctest {

// A fresh temporary directory for the binary, made on first use.
std::filesystem::path TestDir();

// Points the statistics manager at a memory file in TestDir() before any test runs, so
// that no test writes beside the binary. Registered by the binaries that link it.
class MemoryFileEnvironment : public ::testing::Environment {
  public:
    void SetUp() override;
    void TearDown() override;
};

// Collects log texts while alive.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    // Every text delivered so far at `level` (all levels when 0).
    std::vector<std::string> Texts(uint32_t level = 0);

  private:
    static void Callback(TOLVEN::_LOGGER_CB_DATA* const data, void* context);
    std::mutex lock_;
    std::vector<std::pair<uint32_t, std::string>> seen_;
    uint32_t id_ = 0;
};

// Replaces the allocators' page calls and clock while alive. The clock starts at `start`
// and moves only when told; reservations at a chosen address can be refused, and commits
// at one address made to fail. Every call is counted.
class PageSeam {
  public:
    explicit PageSeam(uint32_t start = 1000);
    ~PageSeam();
    void Advance(uint32_t ms) { now += ms; }

    static inline std::atomic<uint32_t> now{0};
    static inline std::atomic<bool> refuseInPlace{false};
    static inline std::atomic<uintptr_t> failCommitAt{0};
    static inline std::atomic<int> reservations{0};
    static inline std::atomic<int> commits{0};
    struct FreeCall {
        uintptr_t address;
        uint64_t size;
        uint32_t flags;
    };
    static std::vector<FreeCall> Frees();

  private:
    TOLVEN::detail::BlockAllocatorTestOps ops_;
    const TOLVEN::detail::BlockAllocatorTestOps* previous_;
};

// Fetches an allocator's statistics.
TOLVEN::_BLOCK_ALLOC_STATS StatsOf(TOLVEN::StatManagedBlockAllocator& allocator);

}  // namespace alloctest
