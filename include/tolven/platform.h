// Platform traits that the public headers need. The only public header that may test for
// an operating system.
#pragma once

// Thread-slot reads inline in callers: a plain thread_local read where the toolchain gives
// static TLS to shared libraries; an exported call where thread_local is emulated (mingw).
#if defined(_WIN32)
#define TOLVEN_INLINE_THREAD_SLOTS 0
#else
#define TOLVEN_INLINE_THREAD_SLOTS 1
#endif

// The critical section's uncontended path is inline over a futex word where the kernel
// offers futexes; elsewhere it calls the platform's own critical section.
#if defined(__linux__)
#define TOLVEN_FUTEX_LOCK 1
#else
#define TOLVEN_FUTEX_LOCK 0
#endif
