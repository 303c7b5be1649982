// The native slot is a thread_local word; a pthread key with a destructor delivers the
// exit notification. glibc clears the key's value before it calls the destructor, so the
// thread_local word, not pthread_getspecific, is what keeps the value readable meanwhile.
#include "platform/tls.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace TOLVEN::platform {
namespace {
pthread_key_t g_key;
std::once_flag g_once;
std::atomic<bool> g_ready{false};
ThreadExitHandler g_handler = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local void* t_slot = nullptr;

void OnThreadExit(void* value) {
    if (g_handler != nullptr) g_handler(value);
    t_slot = nullptr;
}
}  // namespace

bool InitThreadSlot(ThreadExitHandler handler) noexcept {
    std::call_once(g_once, [handler] {
        g_handler = handler;
        if (::pthread_key_create(&g_key, &OnThreadExit) == 0)
            g_ready.store(true, std::memory_order_release);
    });
    return g_ready.load(std::memory_order_acquire);
}

void* GetThreadSlot() noexcept {
    return t_slot;
}

void SetThreadSlot(void* value) noexcept {
    t_slot = value;
    if (g_ready.load(std::memory_order_acquire)) ::pthread_setspecific(g_key, value);
}

}  // namespace TOLVEN::platform
