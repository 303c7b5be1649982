#include "tolven/blobstatus.h"

namespace TOLVEN {

const char* BlobStatusToString(blob_status status) noexcept {
    static constexpr const char* kTexts[] = {
        "success",        "buffer too small", "invalid parameter",     "reached max items",
        "item not found", "invalid blob",     "field already set",     "unhandled type",
        "out of memory",  "unknown error",    "invalid buffer length", "data corrupt",
        "cannot convert", "not allowed",
    };
    const uint32_t index = static_cast<uint32_t>(status);
    if (index >= sizeof(kTexts) / sizeof(kTexts[0])) return "unknown";
    return kTexts[index];
}

}  // namespace TOLVEN
