// Seams where later subsystems join thread configuration.
#pragma once

#include "tolven/autothread.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN::detail {

// The process-wide critical section under which threads configure themselves.
CriticalSection& ThreadConfigSection();

// Applies the thread file's settings to a record being configured, under the configuration
// critical section: the creator's `priority` (may be null) or the file's, the spinning
// options, processors and COM apartment. Every failure is logged and leaves the thread
// running with what was set.
void ApplyThreadFileSettings(thread_data* data, unsigned int* priority);

// Process-wide set-up that belongs to the main thread's configuration, such as the blob
// pools. Does nothing until those subsystems exist.
void OnMainThreadConfigured();

// Per-thread clean-up at the end of an auto_thread, such as the COM apartment.
void OnAutoThreadExit();

}  // namespace TOLVEN::detail
