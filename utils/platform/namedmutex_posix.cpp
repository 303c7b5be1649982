// A robust, process-shared, recursive pthread mutex in a named shared region of its own.
// The creator of the region initialises the mutex and then publishes it through a ready
// word; an opener waits for that word.
#include "platform/namedmutex.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <string>

#include "platform/memory.h"
#include "platform/thread.h"

namespace TOLVEN::platform {

namespace {

struct SharedPart {
    std::atomic<uint32_t> ready;
    uint32_t reserved;
    pthread_mutex_t mutex;
};

constexpr uint32_t kReady = 0x52454459;  // "REDY"

bool InitMutex(pthread_mutex_t* mutex) noexcept {
    pthread_mutexattr_t attr;
    if (::pthread_mutexattr_init(&attr) != 0) return false;
    bool ok = ::pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED) == 0 &&
              ::pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST) == 0 &&
              ::pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
              ::pthread_mutex_init(mutex, &attr) == 0;
    ::pthread_mutexattr_destroy(&attr);
    return ok;
}

}  // namespace

struct NamedMutex {
    SharedPart* part;
    uint64_t handle;
};

NamedMutex* OpenNamedMutex(const char* name) noexcept {
    uint64_t handle = 0, size = 0;
    bool existed = false;
    void* view = OpenSharedRegion(name, sizeof(SharedPart), &handle, &size, &existed);
    if (view == nullptr) return nullptr;
    auto* part = static_cast<SharedPart*>(view);
    bool ok = true;
    if (!existed) {
        ok = InitMutex(&part->mutex);
        if (ok) part->ready.store(kReady, std::memory_order_release);
    } else {
        // The creator initialises in microseconds; one that died doing so leaves the word
        // unset, and after two seconds the region is given up.
        for (int polls = 0; part->ready.load(std::memory_order_acquire) != kReady; ++polls) {
            if (polls >= 2000) {
                ok = false;
                break;
            }
            SleepMs(1);
        }
    }
    auto* mutex = ok ? new (std::nothrow) NamedMutex{part, handle} : nullptr;
    if (mutex == nullptr) {
        (void)UnmapSharedView(view);
        CloseSharedHandle(handle);
    }
    return mutex;
}

bool LockNamedMutex(NamedMutex* mutex, bool* ownerDied) noexcept {
    *ownerDied = false;
    if (mutex == nullptr) return false;
    const int rc = ::pthread_mutex_lock(&mutex->part->mutex);
    if (rc == 0) return true;
    if (rc == EOWNERDEAD) {
        *ownerDied = true;
        return ::pthread_mutex_consistent(&mutex->part->mutex) == 0;
    }
    return false;
}

void UnlockNamedMutex(NamedMutex* mutex) noexcept {
    if (mutex != nullptr) (void)::pthread_mutex_unlock(&mutex->part->mutex);
}

void CloseNamedMutex(NamedMutex* mutex) noexcept {
    if (mutex == nullptr) return;
    (void)UnmapSharedView(mutex->part);
    CloseSharedHandle(mutex->handle);
    delete mutex;
}

}  // namespace TOLVEN::platform
