#include "platform/thread.h"

#include <cstring>

#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

// The exception debuggers have long read a thread's name from.
constexpr DWORD kSetThreadNameCode = 0x406D1388;

#pragma pack(push, 8)
struct ThreadNameInfo {
    DWORD type;      // 0x1000
    LPCSTR name;     // the name, narrow
    DWORD threadId;  // the thread, or -1 for the caller
    DWORD flags;     // reserved, 0
};
#pragma pack(pop)

using SetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
using GetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PWSTR*);

// Looks a kernel32 export up by name; the thread description calls came with Windows 10.
template <class Fn>
Fn Kernel32Function(const char* name) noexcept {
    HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    if (kernel == nullptr) return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(kernel, name)));
}

SetThreadDescriptionFn SetDescription() noexcept {
    static const SetThreadDescriptionFn fn =
        Kernel32Function<SetThreadDescriptionFn>("SetThreadDescription");
    return fn;
}

GetThreadDescriptionFn GetDescription() noexcept {
    static const GetThreadDescriptionFn fn =
        Kernel32Function<GetThreadDescriptionFn>("GetThreadDescription");
    return fn;
}

// The name exception is swallowed here when no debugger took it first. GCC has no
// __try, so a vectored handler, the first in line, stands in for the local handler.
LONG CALLBACK SwallowThreadName(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode == kSetThreadNameCode)
        return EXCEPTION_CONTINUE_EXECUTION;
    return EXCEPTION_CONTINUE_SEARCH;
}

void RaiseThreadNameException(const char* name) noexcept {
    PVOID handler = ::AddVectoredExceptionHandler(1, &SwallowThreadName);
    if (handler == nullptr) return;
    ThreadNameInfo info{0x1000, name, ::GetCurrentThreadId(), 0};
    ::RaiseException(kSetThreadNameCode, 0, sizeof(info) / sizeof(ULONG_PTR),
                     reinterpret_cast<const ULONG_PTR*>(&info));
    ::RemoveVectoredExceptionHandler(handler);
}

}  // namespace

uint32_t CurrentThreadId() noexcept {
    return static_cast<uint32_t>(::GetCurrentThreadId());
}

void* CurrentThreadHandle() noexcept {
    return ::GetCurrentThread();
}

void SetCurrentThreadName(const char* name) noexcept {
    if (name == nullptr) return;
    if (SetThreadDescriptionFn set = SetDescription()) {
        // A name longer than the buffer is cut; the caller keeps the full one.
        char cut[256];
        std::strncpy(cut, name, sizeof(cut) - 1);
        cut[sizeof(cut) - 1] = '\0';
        wchar_t wide[256];
        if (::MultiByteToWideChar(CP_UTF8, 0, cut, -1, wide, 256) != 0)
            (void)set(::GetCurrentThread(), wide);
    }
    RaiseThreadNameException(name);
}

bool GetCurrentThreadName(char* out, size_t size) noexcept {
    if (out == nullptr || size == 0) return false;
    GetThreadDescriptionFn get = GetDescription();
    if (get == nullptr) return false;
    PWSTR wide = nullptr;
    if (FAILED(get(::GetCurrentThread(), &wide)) || wide == nullptr) return false;
    const int n =
        ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, out, static_cast<int>(size), nullptr, nullptr);
    ::LocalFree(wide);
    if (n == 0) out[0] = '\0';
    return n != 0;
}

bool SetThreadPriority(uint32_t threadId, int priority) noexcept {
    if (threadId == 0) return false;
    HANDLE thread = ::OpenThread(THREAD_SET_INFORMATION, FALSE, threadId);
    if (thread == nullptr) return false;
    const BOOL ok = ::SetThreadPriority(thread, priority);
    ::CloseHandle(thread);
    return ok != FALSE;
}

bool ThreadHasEnded(uint32_t threadId) noexcept {
    const HANDLE thread = ::OpenThread(SYNCHRONIZE, FALSE, threadId);
    if (thread == nullptr) return ::GetLastError() == ERROR_INVALID_PARAMETER;  // no such thread
    const bool ended = ::WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
    ::CloseHandle(thread);
    return ended;
}

void SleepMs(uint32_t ms) noexcept {
    ::Sleep(ms);
}

void YieldThread() noexcept {
    (void)::SwitchToThread();
}

void CpuRelax() noexcept {
    YieldProcessor();
}

}  // namespace TOLVEN::platform
