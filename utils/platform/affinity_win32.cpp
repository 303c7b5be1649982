#include "platform/affinity.h"

#include "platform/win32_api.h"

#include <objbase.h>

namespace TOLVEN::platform {

uint32_t NumaHighestNode(uint32_t* highest) noexcept {
    ULONG node = 0;
    if (!::GetNumaHighestNodeNumber(&node)) return ::GetLastError();
    *highest = static_cast<uint32_t>(node);
    return 0;
}

uint32_t NumaNodeMask(uint32_t node, uint64_t* mask) noexcept {
    if (node > 0xFF) return ERROR_INVALID_PARAMETER;
    ULONGLONG m = 0;
    if (!::GetNumaNodeProcessorMask(static_cast<UCHAR>(node), &m)) return ::GetLastError();
    *mask = m;
    return 0;
}

uint32_t GetProcessAffinity(uint64_t* mask) noexcept {
    DWORD_PTR process = 0, system = 0;
    if (!::GetProcessAffinityMask(::GetCurrentProcess(), &process, &system))
        return ::GetLastError();
    *mask = process;
    return 0;
}

uint32_t SetProcessAffinity(uint64_t mask) noexcept {
    if (!::SetProcessAffinityMask(::GetCurrentProcess(), static_cast<DWORD_PTR>(mask)))
        return ::GetLastError();
    return 0;
}

uint32_t SetThreadAffinity(void* thread, uint64_t mask) noexcept {
    if (::SetThreadAffinityMask(static_cast<HANDLE>(thread), static_cast<DWORD_PTR>(mask)) == 0)
        return ::GetLastError();
    return 0;
}

void ComInitialize(uint32_t flags) noexcept {
    (void)::CoInitializeEx(nullptr, flags);
}

void ComUninitialize() noexcept {
    ::CoUninitialize();
}

uint32_t LastOsError() noexcept {
    return ::GetLastError();
}

}  // namespace TOLVEN::platform
