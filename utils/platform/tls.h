// The one native thread slot of the library, with a per-thread exit notification.
//
// The library multiplexes all its logical thread slots over this single word. The exit
// handler runs on each ending thread whose slot is not null, before that thread's storage
// goes, and the slot still reads the same value while the handler runs.
#pragma once

namespace TOLVEN::platform {

using ThreadExitHandler = void (*)(void* value);

// Installs the exit handler; returns false when the OS has no slot left. Idempotent.
bool InitThreadSlot(ThreadExitHandler handler) noexcept;

// The calling thread's slot value; null until set.
void* GetThreadSlot() noexcept;

// Sets the calling thread's slot value and arms the exit notification for this thread.
void SetThreadSlot(void* value) noexcept;

}  // namespace TOLVEN::platform
