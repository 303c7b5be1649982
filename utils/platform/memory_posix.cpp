// Reserve and commit over mmap and mprotect, with a registry of reservations.
//
// The kernel keeps no notion of a reservation, so this file does: every range it maps is
// recorded with its length, a release of "the reservation at this base" looks the length
// up, and a commit or decommit is refused unless it lies inside one recorded range. No
// call here ever unmaps or remaps memory it did not map itself.
//
// Named shared memory is a POSIX shared memory object. Windows drops such an object with
// its last handle; here every handle holds a shared flock on the object, and the closer
// that can take the lock exclusively is the last one and unlinks the name. An opener that
// finds the name while nobody holds a lock has found a leftover of ended processes and
// starts afresh. A name is trusted only after the holder has checked, under its lock,
// that the name still leads to the object it locked.
#include "platform/memory.h"

#include <fcntl.h>
#include <linux/mempolicy.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <string>

namespace TOLVEN::platform {
namespace {

constexpr uint32_t kGranularity = 64 * 1024;

thread_local uint32_t t_lastError = 0;

uint32_t Fail(int error) noexcept {
    t_lastError = static_cast<uint32_t>(error);
    return 0;
}

uint64_t PageSize() noexcept {
    static const uint64_t size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

uint64_t RoundDown(uint64_t v, uint64_t unit) noexcept {
    return v - v % unit;
}
uint64_t RoundUp(uint64_t v, uint64_t unit) noexcept {
    return RoundDown(v + unit - 1, unit);
}

// Reservations by base address, with their lengths. Never destroyed: allocators release
// memory from static destructors.
struct Registry {
    std::mutex lock;
    std::map<uintptr_t, uint64_t> reservations;
    std::map<uintptr_t, uint64_t> views;
    std::map<int, std::string> sharedNames;
};

Registry& Reg() {
    static Registry* registry = new Registry;
    return *registry;
}

// The reservation holding all of [start, end), or end() of the map.
std::map<uintptr_t, uint64_t>::iterator FindHolder(Registry& r, uintptr_t start, uintptr_t end) {
    auto it = r.reservations.upper_bound(start);
    if (it == r.reservations.begin()) return r.reservations.end();
    --it;
    if (start >= it->first && end <= it->first + it->second && end > start) return it;
    return r.reservations.end();
}

// Prefers `node` for the pages of a range. Placement is a wish: a refusal is ignored.
void PreferNode(void* address, uint64_t bytes, uint32_t node) noexcept {
    constexpr uint32_t kWords = 16;
    if (node == kNoNumaNode || node >= kWords * 64) return;
    unsigned long mask[kWords] = {};
    mask[node / 64] = 1ul << (node % 64);
    (void)::syscall(SYS_mbind, address, bytes, MPOL_PREFERRED, mask, kWords * 64 + 1, 0);
}

void* MapAnonymous(void* at, uint64_t bytes, int prot, int extraFlags) noexcept {
    int flags = MAP_PRIVATE | MAP_ANONYMOUS | extraFlags;
    if (prot == PROT_NONE) flags |= MAP_NORESERVE;
    return ::mmap(at, bytes, prot, flags, -1, 0);
}

// Records a reservation; a registry that cannot grow gives the range back.
void* Record(Registry& r, uint64_t base, uint64_t length, uint32_t node) noexcept {
    void* p = reinterpret_cast<void*>(base);
    try {
        r.reservations[base] = length;
    } catch (...) {
        ::munmap(p, length);
        return Fail(ENOMEM), nullptr;
    }
    PreferNode(p, length, node);
    return p;
}

void* Reserve(Registry& r, void* address, uint64_t bytes, int prot, uint32_t node) noexcept {
    const uint64_t page = PageSize();
    if (address != nullptr) {
        const uint64_t want = reinterpret_cast<uintptr_t>(address);
        const uint64_t base = RoundDown(want, kGranularity);
        const uint64_t length = RoundUp(want + bytes, page) - base;
        void* p = MapAnonymous(reinterpret_cast<void*>(base), length, prot, MAP_FIXED_NOREPLACE);
        if (p == MAP_FAILED) return Fail(errno), nullptr;
        if (reinterpret_cast<uintptr_t>(p) != base) {
            // An old kernel took the address as a hint only.
            ::munmap(p, length);
            return Fail(EEXIST), nullptr;
        }
        return Record(r, base, length, node);
    }
    // Map one granule more than wanted and trim, so that the base is aligned as on Windows.
    const uint64_t length = RoundUp(bytes, page);
    const uint64_t span = length + kGranularity;
    void* p = MapAnonymous(nullptr, span, prot, 0);
    if (p == MAP_FAILED) return Fail(errno), nullptr;
    const uint64_t raw = reinterpret_cast<uintptr_t>(p);
    const uint64_t base = RoundUp(raw, kGranularity);
    if (base > raw) ::munmap(p, base - raw);
    const uint64_t tail = raw + span - (base + length);
    if (tail > 0) ::munmap(reinterpret_cast<void*>(base + length), tail);
    return Record(r, base, length, node);
}

// ---- shared memory ------------------------------------------------------------------------

std::string SharedName(const char* name) {
    std::string out = "/tolven.";
    for (const char* c = name; *c != '\0'; ++c)
        out.push_back(*c == '/' || *c == '\\' ? '_' : *c);
    return out;
}

// True when `name` leads to the object open on `fd`.
bool NameLeadsTo(int fd, const std::string& name) noexcept {
    struct stat mine, named;
    if (::fstat(fd, &mine) != 0) return false;
    const int other = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (other < 0) return false;
    const bool same =
        ::fstat(other, &named) == 0 && named.st_dev == mine.st_dev && named.st_ino == mine.st_ino;
    ::close(other);
    return same;
}

// Closes a handle; the last holder removes the name.
void CloseShared(int fd, const std::string& name) noexcept {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && NameLeadsTo(fd, name)) ::shm_unlink(name.c_str());
    ::close(fd);
}

}  // namespace

void GetMemoryInfo(MemoryInfo* out) noexcept {
    out->pageSize = static_cast<uint32_t>(PageSize());
    out->allocationGranularity = kGranularity;
}

bool GetNumaHighestNode(uint32_t* highest) noexcept {
    // -1: not read yet; -2: unreadable; else the answer. Reading twice is harmless.
    static std::atomic<int64_t> cached{-1};
    int64_t value = cached.load(std::memory_order_relaxed);
    if (value == -1) {
        value = -2;
        const int fd = ::open("/sys/devices/system/node/online", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            char text[256];
            const ssize_t n = ::read(fd, text, sizeof(text) - 1);
            ::close(fd);
            if (n > 0) {
                // The list reads like "0" or "0-3,5": the highest node is the largest number.
                int64_t number = -1, best = -1;
                for (ssize_t i = 0; i < n; ++i) {
                    if (text[i] >= '0' && text[i] <= '9') {
                        number = (number < 0 ? 0 : number * 10) + (text[i] - '0');
                        if (number > best) best = number;
                    } else {
                        number = -1;
                    }
                }
                if (best >= 0) value = best;
            }
        }
        cached.store(value, std::memory_order_relaxed);
    }
    if (value < 0) return Fail(ENOENT), false;
    *highest = static_cast<uint32_t>(value);
    return true;
}

void* VirtualAllocate(void* address, uint64_t bytes, uint32_t flags, uint32_t node) noexcept {
    flags &= kMemReserve | kMemCommit;
    if (flags == 0 || bytes == 0) return Fail(EINVAL), nullptr;
    if (flags == kMemCommit && address == nullptr) flags = kMemReserve | kMemCommit;
    Registry& r = Reg();
    std::lock_guard<std::mutex> guard(r.lock);
    if ((flags & kMemReserve) != 0) {
        const int prot = (flags & kMemCommit) != 0 ? PROT_READ | PROT_WRITE : PROT_NONE;
        return Reserve(r, address, bytes, prot, node);
    }
    const uint64_t page = PageSize();
    const uintptr_t start = RoundDown(reinterpret_cast<uintptr_t>(address), page);
    const uintptr_t end = RoundUp(reinterpret_cast<uintptr_t>(address) + bytes, page);
    if (FindHolder(r, start, end) == r.reservations.end()) return Fail(EINVAL), nullptr;
    void* p = reinterpret_cast<void*>(start);
    if (::mprotect(p, end - start, PROT_READ | PROT_WRITE) != 0) return Fail(errno), nullptr;
    PreferNode(p, end - start, node);
    return p;
}

bool VirtualDecommit(void* address, uint64_t bytes, bool) noexcept {
    Registry& r = Reg();
    std::lock_guard<std::mutex> guard(r.lock);
    uintptr_t start, end;
    if (bytes == 0) {
        auto it = r.reservations.find(reinterpret_cast<uintptr_t>(address));
        if (it == r.reservations.end()) return Fail(EINVAL), false;
        start = it->first;
        end = it->first + it->second;
    } else {
        const uint64_t page = PageSize();
        start = RoundDown(reinterpret_cast<uintptr_t>(address), page);
        end = RoundUp(reinterpret_cast<uintptr_t>(address) + bytes, page);
        if (FindHolder(r, start, end) == r.reservations.end()) return Fail(EINVAL), false;
    }
    // A fresh inaccessible mapping over the range drops the pages, their contents and any
    // lock at once, and keeps the addresses reserved.
    void* p = MapAnonymous(reinterpret_cast<void*>(start), end - start, PROT_NONE, MAP_FIXED);
    if (p == MAP_FAILED) return Fail(errno), false;
    return true;
}

bool VirtualRelease(void* address, bool) noexcept {
    Registry& r = Reg();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.reservations.find(reinterpret_cast<uintptr_t>(address));
    if (it == r.reservations.end()) return Fail(EINVAL), false;
    if (::munmap(address, it->second) != 0) return Fail(errno), false;
    r.reservations.erase(it);
    return true;
}

bool LockPages(void* address, uint64_t bytes) noexcept {
    if (::mlock(address, bytes) != 0) return Fail(errno), false;
    return true;
}

uint32_t LastMemoryError() noexcept {
    return t_lastError;
}

void* OpenSharedRegion(const char* name, uint32_t size, uint64_t* handle, uint64_t* regionSize,
                       bool* alreadyExisted) noexcept {
    if (name == nullptr || *name == '\0' || std::strlen(name) > 200) return Fail(EINVAL), nullptr;
    std::string path;
    try {
        path = SharedName(name);
    } catch (...) {
        return Fail(ENOMEM), nullptr;
    }
    // Each pass either ends, or undoes a race with another opener or closer and tries again.
    for (int pass = 0; pass < 1000; ++pass) {
        bool created = false;
        int fd = ::shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            created = true;
            // Exclusive while the size is set, so that no opener maps an empty object.
            ::flock(fd, LOCK_EX);
            if (size == 0 || ::ftruncate(fd, size) != 0) {
                const int error = size == 0 ? EINVAL : errno;
                if (NameLeadsTo(fd, path)) ::shm_unlink(path.c_str());
                ::close(fd);
                return Fail(error), nullptr;
            }
            ::flock(fd, LOCK_SH);
        } else if (errno == EEXIST) {
            fd = ::shm_open(path.c_str(), O_RDWR | O_CLOEXEC, 0);
            if (fd < 0) {
                if (errno == ENOENT) continue;
                return Fail(errno), nullptr;
            }
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
                // Nobody holds it: a leftover. Remove it and create anew.
                if (NameLeadsTo(fd, path)) ::shm_unlink(path.c_str());
                ::close(fd);
                continue;
            }
            ::flock(fd, LOCK_SH);
        } else {
            return Fail(errno), nullptr;
        }
        if (!NameLeadsTo(fd, path)) {
            ::close(fd);
            continue;
        }
        struct stat st;
        void* view = MAP_FAILED;
        if (::fstat(fd, &st) == 0 && st.st_size > 0)
            view = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE,
                          MAP_SHARED, fd, 0);
        if (view == MAP_FAILED) {
            const int error = errno != 0 ? errno : EINVAL;
            CloseShared(fd, path);
            return Fail(error), nullptr;
        }
        const uint64_t length = RoundUp(static_cast<uint64_t>(st.st_size), PageSize());
        Registry& r = Reg();
        try {
            std::lock_guard<std::mutex> guard(r.lock);
            r.views[reinterpret_cast<uintptr_t>(view)] = length;
            r.sharedNames[fd] = path;
        } catch (...) {
            ::munmap(view, length);
            CloseShared(fd, path);
            return Fail(ENOMEM), nullptr;
        }
        *handle = static_cast<uint64_t>(fd) + 1;
        *regionSize = length;
        *alreadyExisted = !created;
        return view;
    }
    return Fail(EAGAIN), nullptr;
}

bool UnmapSharedView(void* view) noexcept {
    Registry& r = Reg();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.views.find(reinterpret_cast<uintptr_t>(view));
    if (it == r.views.end()) return Fail(EINVAL), false;
    if (::munmap(view, it->second) != 0) return Fail(errno), false;
    r.views.erase(it);
    return true;
}

void CloseSharedHandle(uint64_t handle) noexcept {
    if (handle == 0 || handle > 0x7FFFFFFF) return;
    const int fd = static_cast<int>(handle - 1);
    std::string name;
    {
        Registry& r = Reg();
        std::lock_guard<std::mutex> guard(r.lock);
        auto it = r.sharedNames.find(fd);
        if (it == r.sharedNames.end()) return;
        name.swap(it->second);
        r.sharedNames.erase(it);
    }
    CloseShared(fd, name);
}

}  // namespace TOLVEN::platform
