#include "tolven/blockallocstatmngr.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "tolven/iniconfigreader.h"
#include "tolven/logapi.h"
#include "tolven/osutils.h"
#include "tolven/quicklock.h"
#include "tolven/utilerror.h"

namespace TOLVEN {
namespace {

// Ids of all allocators; the first one given out is 1.
std::atomic<uint64_t> g_lastId{0};
// The instance once built; the static readers use it and never build it.
std::atomic<BlockAllocatorStatMngr*> g_instance{nullptr};

constexpr size_t kPathRoom = 260;
constexpr const char* kStartingBlocks = "StartingBlocks";
constexpr const char* kFinalBlocks = "FinalBlocks";

}  // namespace

BlockAllocatorStatMngr::BlockAllocatorStatMngr() : cs_(4000), reader_(nullptr) {}

BlockAllocatorStatMngr& BlockAllocatorStatMngr::Get() {
    // Never destroyed: allocators with static storage leave it during exit.
    static BlockAllocatorStatMngr* const instance = [] {
        auto* manager = new BlockAllocatorStatMngr;
        g_instance.store(manager, std::memory_order_release);
        return manager;
    }();
    return *instance;
}

uint64_t BlockAllocatorStatMngr::GetNewInstanceId() {
    return g_lastId.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool BlockAllocatorStatMngr::AddAllocator(StatManagedBlockAllocator* allocator,
                                          uint64_t* startingBlocks) {
    HouseLockGuard guard(cs_);
    if (startingBlocks != nullptr) {
        if (reader_ == nullptr) (void)SetAllocatorFileLocked(nullptr, nullptr);
        // Registration comes before the allocator's Init: the name is all it has yet.
        _BLOCK_ALLOC_STATS stats;
        (void)allocator->GetStats(stats);
        unsigned int value = 0;
        const bool read =
            reader_ != nullptr &&
            reader_->ReadUINT(stats.Name.c_str(), kStartingBlocks, &value) == configreader_success;
        *startingBlocks = read ? value : 0;
    }
    try {
        allocators_.emplace(allocator, 0);
    } catch (const std::bad_alloc&) {
        // Unlisted: the allocator works all the same, it only goes missing from listings.
    }
    return true;
}

void BlockAllocatorStatMngr::RemoveAllocator(StatManagedBlockAllocator* allocator) {
    HouseLockGuard guard(cs_);
    const auto it = allocators_.find(allocator);
    if (it == allocators_.end()) return;
    _BLOCK_ALLOC_STATS stats;
    (void)allocator->GetStats(stats);
    if (stats.BlockSize != 0 && reader_ != nullptr) {
        // What goes in the file is whether the allocator ended with any committed block
        // (0 or 1), not how many it had.
        const uint64_t finalBlocks = std::min<uint64_t>(stats.CommittedMemory / stats.BlockSize, 1);
        (void)reader_->WriteUINT(stats.Name.c_str(), kFinalBlocks,
                                 static_cast<unsigned int>(finalBlocks));
    }
    allocators_.erase(it);
}

bool BlockAllocatorStatMngr::SetAllocatorFile(const char* file, UtilError* error) {
    HouseLockGuard guard(cs_);
    return SetAllocatorFileLocked(file, error);
}

bool BlockAllocatorStatMngr::SetAllocatorFileLocked(const char* file, UtilError* error) {
    static constexpr const char* kFunction = "TOLVEN::BlockAllocatorStatMngr::SetAllocatorFile";
    const bool created = reader_ == nullptr;
    if (created) reader_ = IniConfigReader::CreateObject();
    if (file == nullptr && !created) return true;

    configreader_status status = configreader_io_error;
    if (reader_ != nullptr) {
        if (file == nullptr) {
            char application[kPathRoom];
            if (!OS::GetApplicationName(application, sizeof(application))) application[0] = '\0';
            char name[kPathRoom];
            (void)std::snprintf(name, sizeof(name), "%s_memory.ini", application);
            TOLVEN_LOG(LOGGER_NORMAL, "BlockAllocatorStatMngr", kFunction, "Using memory file %s",
                       name);
            status = reader_->SetIniFile(name, true, true, nullptr);
        } else {
            TOLVEN_LOG(LOGGER_NORMAL, "BlockAllocatorStatMngr", kFunction,
                       "Using memory config file %s", file);
            status = reader_->SetIniFile(file, true, true, nullptr);
        }
    }
    if (status != configreader_success) {
        const char* shown = file != nullptr ? file : "(null)";
        TOLVEN_LOG(LOGGER_ERROR, "BlockAllocatorStatMngr", kFunction,
                   "Error reading memory config file %s", shown);
        if (error != nullptr)
            (void)error->SetErrorFormat("Error reading memory config file %s", shown);
        return false;
    }
    return true;
}

bool BlockAllocatorStatMngr::GetStats(_BLOCK_ALLOC_STATS& stats, uint64_t id) {
    stats.Reset();
    BlockAllocatorStatMngr* manager = g_instance.load(std::memory_order_acquire);
    if (manager == nullptr) return false;
    HouseLockGuard guard(manager->cs_);
    for (const auto& entry : manager->allocators_) {
        if (entry.first->GetBlockAllocatorId() == id) return entry.first->GetStats(stats);
    }
    return false;
}

bool BlockAllocatorStatMngr::GetStats(_BLOCK_ALLOC_STATS* stats, uint64_t* count) {
    if (count == nullptr) return false;
    BlockAllocatorStatMngr* manager = g_instance.load(std::memory_order_acquire);
    if (manager == nullptr || stats == nullptr) {
        *count = 0;
        return true;
    }
    HouseLockGuard guard(manager->cs_);
    uint64_t filled = 0;
    for (const auto& entry : manager->allocators_) {
        if (filled >= *count) break;
        (void)entry.first->GetStats(stats[filled]);
        ++filled;
    }
    *count = filled;
    return true;
}

uint64_t BlockAllocatorStatMngr::NumStats() {
    BlockAllocatorStatMngr* manager = g_instance.load(std::memory_order_acquire);
    if (manager == nullptr) return 0;
    HouseLockGuard guard(manager->cs_);
    return manager->allocators_.size();
}

}  // namespace TOLVEN
