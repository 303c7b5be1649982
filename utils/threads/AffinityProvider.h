// Where thread placement asks about NUMA nodes and processor masks. The real provider asks
// the platform; tests put in one that plays a machine of several nodes.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// Each call returns 0 on success or the platform's error code. Masks are 64-bit words of
// processor numbers. Implementations must be safe for concurrent use.
class AffinityProvider {
  public:
    virtual ~AffinityProvider() = default;
    // The highest NUMA node number.
    virtual uint32_t HighestNode(uint32_t* node) = 0;
    // The processors of a node.
    virtual uint32_t NodeMask(uint32_t node, uint64_t* mask) = 0;
    // The processors the process may run on.
    virtual uint32_t ProcessMask(uint64_t* mask) = 0;
    // Restricts the process to `mask`.
    virtual uint32_t SetProcessMask(uint64_t mask) = 0;
    // Binds a thread (OS handle) to `mask`.
    virtual uint32_t SetThreadMask(void* thread, uint64_t mask) = 0;
};

// The provider in use.
AffinityProvider& CurrentAffinityProvider();

// Puts `provider` in use (null: the platform's) and returns the one it replaces. The caller
// keeps ownership and keeps it alive while in use.
AffinityProvider* SetAffinityProvider(AffinityProvider* provider);

}  // namespace TOLVEN::detail
