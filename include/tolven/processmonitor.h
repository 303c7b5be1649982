// Keeps processes in view so that whether they still run can be asked at any time.
#pragma once

#include <cstdint>
#include <map>

#include "tolven/detail/critical_section.h"

namespace TOLVEN {

// Holds an open handle on each process somebody watches, counted by use, so that the
// question whether it still runs stays right after its id is reused. Safe for concurrent
// use without external locking.
class ProcessMonitor {
  public:
    // The process-wide monitor.
    static ProcessMonitor& Get();

    // `monitor` true starts watching `processId`, or counts one more use of it; false counts
    // one use less and stops at none. False only when stopping a process nobody watches, or
    // when no handle could be made. A process that cannot be opened (it is gone, or not
    // ours to see) is still recorded, and reports as not running.
    bool MonitorProcess(uint64_t processId, bool monitor);
    // True when `processId` is watched and has not ended. An unwatched process gives false.
    bool IsProcessActive(uint64_t processId) const;

    ProcessMonitor();
    ~ProcessMonitor();
    ProcessMonitor(const ProcessMonitor&) = delete;
    ProcessMonitor& operator=(const ProcessMonitor&) = delete;

  private:
    struct Watch {
        uint64_t handle;
        uint32_t uses;
    };
    mutable detail::CriticalSection cs_{4000};
    std::map<uint64_t, Watch> watches_;
};

}  // namespace TOLVEN
