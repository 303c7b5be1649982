#include "platform/thread.h"
#include "tolven/detail/critical_section.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace TOLVEN::detail {
// Static TLS: the inline lock path reads it with one segment-relative load.
__attribute__((tls_model("initial-exec"))) constinit thread_local uint32_t t_osThreadId = 0;
}  // namespace TOLVEN::detail

namespace TOLVEN::platform {
namespace {

// Windows priorities on the nice scale: higher priority is a lower nice value.
int NiceFor(int priority) noexcept {
    if (priority >= 15) return -20;
    if (priority >= 2) return -10;
    if (priority == 1) return -5;
    if (priority == 0) return 0;
    if (priority == -1) return 5;
    return 10;
}
}  // namespace

uint32_t CurrentThreadId() noexcept {
    uint32_t id = detail::t_osThreadId;
    if (__builtin_expect(id == 0, 0)) {
        id = static_cast<uint32_t>(::syscall(SYS_gettid));
        detail::t_osThreadId = id;
    }
    return id;
}

void* CurrentThreadHandle() noexcept {
    return reinterpret_cast<void*>(::pthread_self());
}

void SetCurrentThreadName(const char* name) noexcept {
    if (name == nullptr) return;
    char cut[16];
    std::strncpy(cut, name, sizeof(cut) - 1);
    cut[sizeof(cut) - 1] = '\0';
    ::pthread_setname_np(::pthread_self(), cut);
}

bool GetCurrentThreadName(char* out, size_t size) noexcept {
    if (out == nullptr || size == 0) return false;
    char name[64];
    if (::pthread_getname_np(::pthread_self(), name, sizeof(name)) != 0) {
        out[0] = '\0';
        return false;
    }
    std::strncpy(out, name, size - 1);
    out[size - 1] = '\0';
    return true;
}

bool SetThreadPriority(uint32_t threadId, int priority) noexcept {
    if (threadId == 0) return false;
    errno = 0;
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(threadId), NiceFor(priority)) == 0;
}

bool ThreadHasEnded(uint32_t) noexcept {
    return false;
}

void SleepMs(uint32_t ms) noexcept {
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void YieldThread() noexcept {
    ::sched_yield();
}

void CpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

}  // namespace TOLVEN::platform
