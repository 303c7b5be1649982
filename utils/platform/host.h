// Facts about the system the process runs on.
#pragma once

namespace TOLVEN::platform {

// True when the process is a Windows program running under Wine, which imitates Windows
// with known gaps (an older reported version, stubbed NUMA queries, a console that writes
// nothing into a pipe). Tests that meet a gap skip with the reason; code never relies on it.
bool RunningUnderWine() noexcept;

}  // namespace TOLVEN::platform
