// Status codes of the blob family and their texts.
#pragma once

#include <cstdint>

namespace TOLVEN {

// The outcome of a blob operation; 0 is success.
enum [[nodiscard]] blob_status : uint32_t{
    BLOB_STATUS_SUCCESS = 0,                 // done
    BLOB_STATUS_BUFFER_TOO_SMALL = 1,        // the caller's or a fixed buffer has no room
    BLOB_STATUS_INVALID_PARAMETER = 2,       // a null or out-of-range argument
    BLOB_STATUS_MAX_ITEMS = 3,               // reserved: no operation gives it
    BLOB_STATUS_ITEM_NOT_FOUND = 4,          // no such field
    BLOB_STATUS_INVALID_BLOB = 5,            // malformed blob bytes
    BLOB_STATUS_FIELD_ALREADY_SET = 6,       // reserved: no operation gives it
    BLOB_STATUS_UNHANDLED_TYPE = 7,          // the field's type does not suit the call
    BLOB_STATUS_OUT_OF_MEMORY = 8,           // no block could be had
    BLOB_STATUS_UNKNOWN_ERROR = 9,           // reserved: no operation gives it
    BLOB_STATUS_INVALID_BUFFER_LENGTH = 10,  // the length field exceeds the bytes given
    BLOB_STATUS_DATA_CORRUPT = 11,           // a value inside the blob is damaged
    BLOB_STATUS_CANNOT_CONVERT = 12,         // the value does not convert to the type asked
    BLOB_STATUS_NOT_ALLOWED = 13,            // refused by the blob's mode or options
};

// The text of a status, "unknown" for a value outside the list. Thread-safe.
const char* BlobStatusToString(blob_status status) noexcept;

}  // namespace TOLVEN
