// Seams where later subsystems join thread configuration.
#pragma once

#include "tolven/autothread.h"

namespace TOLVEN::detail {

// Applies the thread file's settings to a record being configured. Does nothing until the
// thread file exists.
void ApplyThreadFileSettings(thread_data* data);

// Process-wide set-up that belongs to the main thread's configuration, such as the blob
// pools. Does nothing until those subsystems exist.
void OnMainThreadConfigured();

// Per-thread clean-up at the end of an auto_thread, such as the COM apartment.
void OnAutoThreadExit();

}  // namespace TOLVEN::detail
