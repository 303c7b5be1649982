// Skipping a test where Wine is known to differ from Windows.
#pragma once

#include <gtest/gtest.h>

#include "platform/host.h"

// Ends the current test as skipped, with `reason`, when it runs under Wine. Only for the
// known gaps: Wine reports an older Windows, stubs GetNumaNodeProcessorMask, and its
// WriteConsoleA prints nothing into a pipe. Never skips on Linux or on Windows itself.
#define TOLVEN_SKIP_UNDER_WINE(reason)                          \
    do {                                                        \
        if (::TOLVEN::platform::RunningUnderWine())             \
            GTEST_SKIP() << "skipped under Wine: " << (reason); \
    } while (0)
