#include "platform/process.h"
#include "tolven/osutils.h"

namespace TOLVEN {

unsigned int CPUID_GetProcessorCount() {
    return platform::ProcessorCount();
}

unsigned int CPUID_GetAvailableProcessorCount() {
    uint32_t count = 0;
    if (!platform::ProcessAffinityCount(&count) || count == 0) return CPUID_GetProcessorCount();
    return count;
}

bool CPUID_IsSupported_cmpxchg16b() {
    // "ntel", the third word of the vendor text "GenuineIntel".
    constexpr uint32_t kIntelEcx = 0x6c65746e;
    uint32_t ecx = 0;
    return platform::CpuidVendorEcx(&ecx) && ecx == kIntelEcx;
}

}  // namespace TOLVEN
