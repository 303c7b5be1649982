#include "platform/namedmutex.h"

#include <new>

#include "platform/win32_api.h"

namespace TOLVEN::platform {

struct NamedMutex {
    HANDLE handle;
};

NamedMutex* OpenNamedMutex(const char* name) noexcept {
    HANDLE handle = ::CreateMutexA(nullptr, FALSE, name);
    if (handle == nullptr) return nullptr;
    auto* mutex = new (std::nothrow) NamedMutex{handle};
    if (mutex == nullptr) ::CloseHandle(handle);
    return mutex;
}

bool LockNamedMutex(NamedMutex* mutex, bool* ownerDied) noexcept {
    *ownerDied = false;
    if (mutex == nullptr) return false;
    const DWORD rc = ::WaitForSingleObject(mutex->handle, INFINITE);
    if (rc == WAIT_ABANDONED) *ownerDied = true;
    return rc == WAIT_OBJECT_0 || rc == WAIT_ABANDONED;
}

void UnlockNamedMutex(NamedMutex* mutex) noexcept {
    if (mutex != nullptr) (void)::ReleaseMutex(mutex->handle);
}

void CloseNamedMutex(NamedMutex* mutex) noexcept {
    if (mutex == nullptr) return;
    ::CloseHandle(mutex->handle);
    delete mutex;
}

}  // namespace TOLVEN::platform
