// Feeds arbitrary bytes to the ELF version note reader as a whole file, and the descriptor
// it finds (or the bytes themselves) to the record queries.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/versionnote.h"

namespace note = TOLVEN::platform::versionnote;

namespace {
void QueryAll(const uint8_t* d, size_t size) {
    static const char* const kQueries[] = {
        "\\",
        "\\VarFileInfo\\Translation",
        "\\StringFileInfo\\040904e4\\ProductName",
        "\\StringFileInfo\\040904E4\\LegalCopyright",
        "\\StringFileInfo\\00000000\\",
        "\\StringFileInfo\\",
    };
    for (const char* q : kQueries) {
        const void* value = nullptr;
        uint32_t length = 0;
        if (note::Query(d, size, q, &value, &length)) {
            // The answer must lie inside the descriptor.
            const auto* p = static_cast<const uint8_t*>(value);
            if (p < d || p + length > d + size) __builtin_trap();
            volatile uint8_t sink = 0;
            for (uint32_t i = 0; i < length; ++i)
                sink = sink ^ p[i];
            (void)sink;
        }
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> descriptor;
    if (note::FindInElfBuffer(data, size, descriptor)) {
        if (descriptor.size() < note::kHeaderSize || descriptor.size() > note::kMaxDescriptor) {
            __builtin_trap();
        }
        QueryAll(descriptor.data(), descriptor.size());
    }
    // The queries on raw bytes, copied so that reads past the end are caught.
    std::vector<uint8_t> copy(data, data + size);
    QueryAll(copy.data(), copy.size());
    return 0;
}
