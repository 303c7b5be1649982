// Internals of the log door shared with the rest of the logging subsystem and with tests.
#pragma once

#include <cstdint>

#include "tolven/detail/critical_section.h"

namespace TOLVEN::detail {

// The API lock: callback tables, reference count, terminating flag. Recursive.
CriticalSection& LogApiLock();
// The occurrence lock of the per-site message limits. Recursive.
CriticalSection& LogOccurrenceLock();

// Caps the capacity of rings created by later LogInitApi calls (0: no cap). For tests
// that need a ring that fills quickly.
void SetLogRingCapacityLimitForTest(uint32_t bytes);

// How many times a producer has waited for room in the ring, over the process's life.
uint64_t LogBlockedWriteCount() noexcept;

// True on a thread that is delivering messages (the log thread, or LogTermApi's caller
// while it drains).
bool IsLogConsumerThread() noexcept;

// While set, the calling thread's messages never wait for room in the ring: with the ring
// full they are dropped. For a thread that logs while it configures itself, which holds the
// configuration lock and may be the log thread itself, before it drains anything. Returns
// the previous setting.
bool SetLogNeverWait(bool neverWait) noexcept;

}  // namespace TOLVEN::detail
