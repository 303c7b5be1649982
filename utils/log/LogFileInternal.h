// Internals of the log files shared with tests.
#pragma once

#include "tolven/blobtime.h"

namespace TOLVEN::detail {

// A clock of the log files: the local time now.
using LogFileClock = void (*)(_blob_timestamp* now);

// Replaces the clock the log files read for their dates, stamps and ages; null goes back
// to the local time. For tests that cross midnight without waiting for it.
void SetLogFileClockForTest(LogFileClock clock);

// The local time now, from the clock above.
void LogFileNow(_blob_timestamp* now);

}  // namespace TOLVEN::detail
