// Any text as a processor range list: init must answer true or false, and the mask built
// from whatever ranges it kept must hold only processors of the node.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tolven/affinity.h"
#include "tolven/utilerror.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    TOLVEN::affinity a;
    TOLVEN::UtilError error;
    const bool ok = a.init(text, &error);
    if (ok == error.HasError()) std::abort();
    if (ok && a.get_cpumask_str() != text) std::abort();
    TOLVEN::affinity::mask m;
    uint64_t word = 0;
    uint64_t node = 0;
    TOLVEN::UtilError ignored;
    if (a.get_cpumask(0, m, &ignored) && m.convert(word)) {
        // Node 0 of this machine: every bit of the result must be one of its processors.
        TOLVEN::affinity all;
        all.add_range({0, 0xFFFFFFFFu});
        TOLVEN::affinity::mask full;
        if (all.get_cpumask(0, full, &ignored) && full.convert(node) && (word & ~node) != 0)
            std::abort();
    }
    return 0;
}
