#include "tolven/processmonitor.h"

#include "platform/processwatch.h"
#include "tolven/quicklock.h"

namespace TOLVEN {

ProcessMonitor& ProcessMonitor::Get() {
    static ProcessMonitor monitor;
    return monitor;
}

ProcessMonitor::ProcessMonitor() = default;

ProcessMonitor::~ProcessMonitor() {
    HouseLockGuard guard(cs_);
    for (auto& entry : watches_)
        platform::CloseProcessWatch(entry.second.handle);
    watches_.clear();
}

bool ProcessMonitor::MonitorProcess(uint64_t processId, bool monitor) {
    HouseLockGuard guard(cs_);
    auto it = watches_.find(processId);
    if (it == watches_.end()) {
        if (!monitor) return false;
        // A process that cannot be opened is recorded with no handle and reports as ended.
        const uint64_t handle = platform::OpenProcessWatch(processId);
        try {
            watches_.emplace(processId, Watch{handle, 1});
        } catch (...) {
            platform::CloseProcessWatch(handle);
            return false;
        }
        return true;
    }
    if (monitor) {
        ++it->second.uses;
    } else if (--it->second.uses == 0) {
        platform::CloseProcessWatch(it->second.handle);
        watches_.erase(it);
    }
    return true;
}

bool ProcessMonitor::IsProcessActive(uint64_t processId) const {
    HouseLockGuard guard(cs_);
    const auto it = watches_.find(processId);
    return it != watches_.end() && platform::ProcessWatchRunning(it->second.handle);
}

}  // namespace TOLVEN
