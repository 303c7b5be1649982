// Reserve and commit over VirtualAlloc, and named shared memory over file mappings
// backed by the paging file.
#include "platform/memory.h"

#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

thread_local uint32_t t_lastError = 0;

void Note() noexcept {
    t_lastError = static_cast<uint32_t>(::GetLastError());
}

BOOL Free(void* address, SIZE_T bytes, DWORD type, bool numa) noexcept {
    if (numa) return ::VirtualFreeEx(::GetCurrentProcess(), address, bytes, type);
    return ::VirtualFree(address, bytes, type);
}

}  // namespace

void GetMemoryInfo(MemoryInfo* out) noexcept {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    out->pageSize = info.dwPageSize;
    out->allocationGranularity = info.dwAllocationGranularity;
}

bool GetNumaHighestNode(uint32_t* highest) noexcept {
    ULONG node = 0;
    if (!::GetNumaHighestNodeNumber(&node)) {
        Note();
        return false;
    }
    *highest = node;
    return true;
}

void* VirtualAllocate(void* address, uint64_t bytes, uint32_t flags, uint32_t node) noexcept {
    DWORD type = 0;
    if ((flags & kMemReserve) != 0) type |= MEM_RESERVE;
    if ((flags & kMemCommit) != 0) type |= MEM_COMMIT;
    if (type == 0) {
        t_lastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    void* p;
    if (node == kNoNumaNode)
        p = ::VirtualAlloc(address, static_cast<SIZE_T>(bytes), type, PAGE_READWRITE);
    else
        p = ::VirtualAllocExNuma(::GetCurrentProcess(), address, static_cast<SIZE_T>(bytes), type,
                                 PAGE_READWRITE, node);
    if (p == nullptr) Note();
    return p;
}

bool VirtualDecommit(void* address, uint64_t bytes, bool numa) noexcept {
    if (!Free(address, static_cast<SIZE_T>(bytes), MEM_DECOMMIT, numa)) {
        Note();
        return false;
    }
    return true;
}

bool VirtualRelease(void* address, bool numa) noexcept {
    if (!Free(address, 0, MEM_RELEASE, numa)) {
        Note();
        return false;
    }
    return true;
}

bool LockPages(void* address, uint64_t bytes) noexcept {
    if (!::VirtualLock(address, static_cast<SIZE_T>(bytes))) {
        Note();
        return false;
    }
    return true;
}

uint32_t LastMemoryError() noexcept {
    return t_lastError;
}

void* OpenSharedRegion(const char* name, uint32_t size, uint64_t* handle, uint64_t* regionSize,
                       bool* alreadyExisted) noexcept {
    bool existed = true;
    HANDLE mapping = ::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name);
    if (mapping == nullptr) {
        existed = false;
        mapping =
            ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
    }
    if (mapping == nullptr) {
        Note();
        return nullptr;
    }
    void* view = ::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
    MEMORY_BASIC_INFORMATION info;
    if (view == nullptr || ::VirtualQuery(view, &info, sizeof(info)) == 0) {
        Note();
        if (view != nullptr) ::UnmapViewOfFile(view);
        ::CloseHandle(mapping);
        return nullptr;
    }
    *handle = reinterpret_cast<uint64_t>(mapping);
    *regionSize = info.RegionSize;
    *alreadyExisted = existed;
    return view;
}

bool UnmapSharedView(void* view) noexcept {
    if (!::UnmapViewOfFile(view)) {
        Note();
        return false;
    }
    return true;
}

void CloseSharedHandle(uint64_t handle) noexcept {
    if (handle != 0) ::CloseHandle(reinterpret_cast<HANDLE>(handle));
}

}  // namespace TOLVEN::platform
