// The native slot is a TlsAlloc index. The exit notification comes from the library's
// DLL entry point: on DLL_THREAD_DETACH the ending thread runs the handler with its slot
// value, which TlsGetValue still returns meanwhile. Nothing runs at DLL_PROCESS_DETACH,
// and nothing for a thread whose slot was never set.
#include <atomic>

#include "platform/tls.h"
#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {
INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;
std::atomic<DWORD> g_index{TLS_OUT_OF_INDEXES};
std::atomic<ThreadExitHandler> g_handler{nullptr};

BOOL CALLBACK AllocateSlot(PINIT_ONCE, PVOID handler, PVOID*) {
    g_handler.store(reinterpret_cast<ThreadExitHandler>(handler), std::memory_order_relaxed);
    const DWORD index = ::TlsAlloc();
    g_index.store(index, std::memory_order_release);
    return TRUE;
}
}  // namespace

bool InitThreadSlot(ThreadExitHandler handler) noexcept {
    (void)::InitOnceExecuteOnce(&g_once, &AllocateSlot, reinterpret_cast<PVOID>(handler), nullptr);
    return g_index.load(std::memory_order_acquire) != TLS_OUT_OF_INDEXES;
}

void* GetThreadSlot() noexcept {
    const DWORD index = g_index.load(std::memory_order_acquire);
    return index != TLS_OUT_OF_INDEXES ? ::TlsGetValue(index) : nullptr;
}

void SetThreadSlot(void* value) noexcept {
    const DWORD index = g_index.load(std::memory_order_acquire);
    if (index != TLS_OUT_OF_INDEXES) (void)::TlsSetValue(index, value);
}

namespace detail {
// Runs on each ending thread, from the DLL entry point below.
void OnDllThreadDetach() noexcept {
    const DWORD index = g_index.load(std::memory_order_acquire);
    if (index == TLS_OUT_OF_INDEXES) return;
    void* value = ::TlsGetValue(index);
    if (value == nullptr) return;
    if (ThreadExitHandler handler = g_handler.load(std::memory_order_relaxed)) handler(value);
    (void)::TlsSetValue(index, nullptr);
}
}  // namespace detail

}  // namespace TOLVEN::platform

// The library's DLL entry point, called by the C runtime's start-up code.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_THREAD_DETACH) TOLVEN::platform::detail::OnDllThreadDetach();
    return TRUE;
}
