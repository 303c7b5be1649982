// Affinity over sched_setaffinity and libnuma. The process has no mask of its own on Linux:
// it is read as the union of its threads' masks and set on each of them.
#include "platform/affinity.h"

#include <dirent.h>
#include <numa.h>
#include <sched.h>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace TOLVEN::platform {
namespace {

uint64_t ToMask(const cpu_set_t& set) noexcept {
    uint64_t mask = 0;
    for (int cpu = 0; cpu < 64; ++cpu)
        if (CPU_ISSET(cpu, &set)) mask |= uint64_t{1} << cpu;
    return mask;
}

void FromMask(uint64_t mask, cpu_set_t* set) noexcept {
    CPU_ZERO(set);
    for (int cpu = 0; cpu < 64; ++cpu)
        if ((mask & (uint64_t{1} << cpu)) != 0) CPU_SET(cpu, set);
}

bool NumaUsable() noexcept {
    static const bool usable = ::numa_available() >= 0;
    return usable;
}

// Calls `visit(tid)` for every thread of the process; the errno of a failed listing.
template <class Visit>
uint32_t ForEachTask(Visit&& visit) noexcept {
    DIR* dir = ::opendir("/proc/self/task");
    if (dir == nullptr) return static_cast<uint32_t>(errno);
    uint32_t error = 0;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        const pid_t tid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        // A thread that ended since the listing is no failure.
        if (!visit(tid) && errno != ESRCH && error == 0) error = static_cast<uint32_t>(errno);
    }
    ::closedir(dir);
    return error;
}

}  // namespace

uint32_t NumaHighestNode(uint32_t* highest) noexcept {
    if (!NumaUsable()) {
        *highest = 0;
        return 0;
    }
    const int node = ::numa_max_node();
    if (node < 0) return ENOENT;
    *highest = static_cast<uint32_t>(node);
    return 0;
}

uint32_t NumaNodeMask(uint32_t node, uint64_t* mask) noexcept {
    if (!NumaUsable()) {
        if (node != 0) return EINVAL;
        // Without NUMA the machine is one node of every processor.
        cpu_set_t set;
        CPU_ZERO(&set);
        const long count = ::sysconf(_SC_NPROCESSORS_CONF);
        for (long cpu = 0; cpu < count && cpu < 64; ++cpu)
            CPU_SET(static_cast<int>(cpu), &set);
        *mask = ToMask(set);
        return 0;
    }
    bitmask* cpus = ::numa_allocate_cpumask();
    if (cpus == nullptr) return ENOMEM;
    uint32_t error = 0;
    if (::numa_node_to_cpus(static_cast<int>(node), cpus) != 0) {
        error = errno != 0 ? static_cast<uint32_t>(errno) : EINVAL;
    } else {
        uint64_t m = 0;
        for (unsigned cpu = 0; cpu < 64 && cpu < cpus->size; ++cpu)
            if (::numa_bitmask_isbitset(cpus, cpu)) m |= uint64_t{1} << cpu;
        *mask = m;
    }
    ::numa_free_cpumask(cpus);
    return error;
}

uint32_t GetProcessAffinity(uint64_t* mask) noexcept {
    uint64_t all = 0;
    const uint32_t error = ForEachTask([&](pid_t tid) {
        cpu_set_t set;
        if (::sched_getaffinity(tid, sizeof(set), &set) != 0) return false;
        all |= ToMask(set);
        return true;
    });
    if (error != 0) return error;
    if (all == 0) return ESRCH;
    *mask = all;
    return 0;
}

uint32_t SetProcessAffinity(uint64_t mask) noexcept {
    if (mask == 0) return EINVAL;
    return ForEachTask([&](pid_t tid) {
        cpu_set_t set;
        uint64_t own = 0;
        if (::sched_getaffinity(tid, sizeof(set), &set) == 0) own = ToMask(set) & mask;
        FromMask(own != 0 ? own : mask, &set);
        return ::sched_setaffinity(tid, sizeof(set), &set) == 0;
    });
}

uint32_t SetThreadAffinity(void* thread, uint64_t mask) noexcept {
    if (mask == 0) return EINVAL;
    cpu_set_t set;
    FromMask(mask, &set);
    const pthread_t handle = reinterpret_cast<pthread_t>(thread);
    const int error = ::pthread_setaffinity_np(handle, sizeof(set), &set);
    if (error != 0) errno = error;
    return static_cast<uint32_t>(error);
}

void ComInitialize(uint32_t) noexcept {}

void ComUninitialize() noexcept {}

uint32_t LastOsError() noexcept {
    return static_cast<uint32_t>(errno);
}

}  // namespace TOLVEN::platform
