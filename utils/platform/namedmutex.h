// A recursive mutex shared by the processes of one machine under a name, that a process
// ending while it holds it does not leave locked.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

struct NamedMutex;

// Opens or creates the mutex `name`. Null on failure.
NamedMutex* OpenNamedMutex(const char* name) noexcept;

// Waits for the mutex. `ownerDied` tells that the last holder ended without releasing it,
// so that the data it guards may be half-written. False when the mutex cannot be had.
bool LockNamedMutex(NamedMutex* mutex, bool* ownerDied) noexcept;

// Releases one hold of the mutex.
void UnlockNamedMutex(NamedMutex* mutex) noexcept;

// Closes the handle; the mutex goes with the machine's last handle.
void CloseNamedMutex(NamedMutex* mutex) noexcept;

}  // namespace TOLVEN::platform
