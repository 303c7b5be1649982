#include "threads/ThreadFileTable.h"

#include <cstring>
#include <mutex>

#include "platform/namedmutex.h"
#include "platform/process.h"
#include "platform/processwatch.h"
#include "tolven/baseallocator.h"

namespace TOLVEN::detail {
namespace {

std::mutex& OpenLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

}  // namespace

struct ThreadFileTable::Raw {
    uint64_t pid;
    char path[kPathRoom];
    uint32_t stamp;
};


ThreadFileTable::ThreadFileTable(std::string name) : name_(std::move(name)) {}

ThreadFileTable::~ThreadFileTable() {
    if (!opened_) return;
    Clear();
    FreeAllocationSM(view_, mapping_);
    platform::CloseNamedMutex(mutex_);
}

bool ThreadFileTable::Open() {
    static_assert(sizeof(Raw) == kRecordSize);
    std::lock_guard<std::mutex> guard(OpenLock());
    if (opened_) return true;
    pid_ = platform::CurrentProcessId();
    if (!platform::ProcessStartStamp(pid_, &stamp_)) stamp_ = 0;
    mutex_ = platform::OpenNamedMutex((name_ + "_mutex").c_str());
    if (mutex_ == nullptr) return false;
    view_ = static_cast<unsigned char*>(
        AllocateSM(name_.c_str(), uint64_t{kRecords} * kRecordSize, &mapping_, &size_, nullptr));
    if (view_ == nullptr || size_ < uint64_t{kRecords} * kRecordSize) {
        FreeAllocationSM(view_, mapping_);
        platform::CloseNamedMutex(mutex_);
        view_ = nullptr;
        mapping_ = 0;
        mutex_ = nullptr;
        return false;
    }
    opened_ = true;
    return true;
}

bool ThreadFileTable::Lock() {
    bool ownerDied = false;
    if (!platform::LockNamedMutex(mutex_, &ownerDied)) return false;
    if (ownerDied) {
        // The last holder ended inside: whatever it was writing belongs to a dead process.
        for (uint32_t i = 0; i < kRecords; ++i) {
            Raw r;
            std::memcpy(&r, view_ + i * kRecordSize, sizeof(r));
            if (r.pid != 0 && !platform::ProcessIsAlive(r.pid, r.stamp))
                std::memset(view_ + i * kRecordSize, 0, kRecordSize);
        }
    }
    return true;
}

void ThreadFileTable::Unlock() {
    platform::UnlockNamedMutex(mutex_);
}

bool ThreadFileTable::Record(const char* path) {
    if (!Open() || !Lock()) return false;
    int slot = -1;
    for (uint32_t i = 0; i < kRecords && slot < 0; ++i) {
        Raw r;
        std::memcpy(&r, view_ + i * kRecordSize, sizeof(r));
        if (r.pid == 0 || r.pid == pid_ || !platform::ProcessIsAlive(r.pid, r.stamp))
            slot = static_cast<int>(i);
    }
    if (slot >= 0) {
        Raw r;
        std::memset(&r, 0, sizeof(r));
        r.pid = pid_;
        r.stamp = stamp_;
        if (path != nullptr) std::strncpy(r.path, path, kPathRoom - 1);
        std::memcpy(view_ + static_cast<uint32_t>(slot) * kRecordSize, &r, sizeof(r));
    }
    Unlock();
    return slot >= 0;
}

void ThreadFileTable::Clear() {
    if (!opened_ || !Lock()) return;
    for (uint32_t i = 0; i < kRecords; ++i) {
        uint64_t pid;
        std::memcpy(&pid, view_ + i * kRecordSize, sizeof(pid));
        if (pid == pid_) {
            std::memset(view_ + i * kRecordSize, 0, kRecordSize);
            break;
        }
    }
    Unlock();
}

bool ThreadFileTable::List(std::vector<std::pair<uint64_t, std::string>>& out) {
    out.clear();
    if (!Open() || !Lock()) return false;
    for (uint32_t i = 0; i < kRecords; ++i) {
        Raw r;
        std::memcpy(&r, view_ + i * kRecordSize, sizeof(r));
        r.path[kPathRoom - 1] = '\0';
        if (r.pid != 0) out.emplace_back(r.pid, r.path);
    }
    Unlock();
    return true;
}

}  // namespace TOLVEN::detail
