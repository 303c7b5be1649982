// Internals of the blob shared by its units and by the typed field layer: memory, locking,
// byte access, name look-up, the raw append, index growth, the string store and the walk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tolven/blob.h"

namespace TOLVEN::detail {

static_assert(offsetof(_BLOB_INFO, lock) == kBlobHandleSize, "the lock follows the 56 bytes");

// Deepest nesting of blobs inside blobs that a walk accepts.
inline constexpr unsigned kMaxBlobDepth = 64;
// Entries of a fresh index: one 768-byte block.
inline constexpr uint64_t kDefaultIndexEntries = 64;
// Buffer of a default blob.
inline constexpr uint64_t kDefaultBufferSize = 256;
// Size of the header: format byte and 32-bit length.
inline constexpr uint64_t kBlobHeaderSize = 5;

// ---- memory (BlobPools) ----

// A block of at least `size` bytes from the pools (malloc above 2048). `*capacity` receives
// the usable size, which must be passed back on release. Calls the out-of-memory handler
// once and gives null when nothing could be had.
void* BlobAlloc(uint64_t size, uint64_t* capacity) noexcept;
// Gives back a block obtained with that capacity.
void BlobFree(void* block, uint64_t capacity) noexcept;
// Builds the pools if they are not there yet.
void EnsureBlobPools() noexcept;

// ---- byte access (unaligned, little-endian host) ----

template <typename T>
inline T LoadAt(const unsigned char* p) noexcept {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}
template <typename T>
inline void StoreAt(unsigned char* p, T v) noexcept {
    std::memcpy(p, &v, sizeof(T));
}

// The length field of a buffer.
inline uint32_t HeaderLength(const unsigned char* buffer) noexcept {
    return LoadAt<uint32_t>(buffer + 1);
}
// Writes a fresh header: the format byte keeps bit 0, and the length.
inline void WriteHeader(unsigned char* buffer, uint32_t length) noexcept {
    buffer[0] = static_cast<unsigned char>((buffer[0] & 1) | 2);
    StoreAt<uint32_t>(buffer + 1, length);
}
inline void SetHeaderLength(unsigned char* buffer, uint32_t length) noexcept {
    StoreAt<uint32_t>(buffer + 1, length);
}
// Used length of a blob.
inline uint32_t UsedLength(const _BLOB_INFO* blob) noexcept {
    return HeaderLength(blob->buffer);
}

// The field type of an entry.
inline blob_field_type EntryType(const _BLOB_INFO* blob, const BlobFieldEntry& e) noexcept {
    return static_cast<blob_field_type>(blob->buffer[e.headerOffset] & 0x7F);
}
// The name length of an entry (0 for a nameless field).
inline uint32_t EntryNameLength(const BlobFieldEntry& e) noexcept {
    const uint32_t d = e.dataOffset - e.headerOffset;
    return d > 1 ? d - 2 : 0;
}

// Per type (0-127): the fixed data size, the element size of arrays and binary, and
// whether the value may carry 0xFF padding. Inline tables: the walk asks for every field.
struct BlobTypeInfo {
    uint8_t fixedSize;
    uint8_t elementSize;
    uint8_t variable;
};
inline constexpr BlobTypeInfo kBlobTypes[128] = {
    {0, 0, 0}, {0, 0, 1}, {1, 0, 0}, {1, 0, 0}, {2, 0, 0},  {4, 0, 0}, {8, 0, 0},
    {1, 0, 0}, {2, 0, 0}, {4, 0, 0}, {8, 0, 0}, {4, 0, 0},  {8, 0, 0}, {0, 0, 1},
    {0, 1, 1}, {0, 2, 1}, {0, 4, 1}, {0, 8, 1}, {0, 1, 1},  {0, 2, 1}, {0, 4, 1},
    {0, 8, 1}, {0, 4, 1}, {0, 8, 1}, {0, 1, 1}, {16, 0, 0}, {0, 0, 1}, {0, 0, 0},
};
// Data size of a fixed-size type; 0 for the variable-length types and the null field.
inline uint32_t FixedTypeSize(uint32_t type) noexcept {
    return type < 128 ? kBlobTypes[type].fixedSize : 0;
}
// Element size of an array or binary type (14-24); 0 for other types.
inline uint32_t ArrayElementSize(uint32_t type) noexcept {
    return type < 128 ? kBlobTypes[type].elementSize : 0;
}
// The scalar type of an array type's elements (14-23 give 3-12).
inline constexpr uint32_t ElementScalarType(uint32_t arrayType) noexcept {
    return arrayType - (BLOB_FIELD_TYPE_INT8_ARRAY - BLOB_FIELD_TYPE_INT8);
}
// True for the numeric array types (14-23).
inline constexpr bool IsNumericArrayType(uint32_t type) noexcept {
    return type >= BLOB_FIELD_TYPE_INT8_ARRAY && type <= BLOB_FIELD_TYPE_FLOAT64_ARRAY;
}
// True for the types that may carry 0xFF padding.
inline bool IsVariableType(uint32_t type) noexcept {
    return type < 128 && kBlobTypes[type].variable != 0;
}
// The first NUL in [p, p + n), or null. Short runs (names, small strings) are the rule.
inline const unsigned char* FindNul(const unsigned char* p, uint64_t n) noexcept {
    const uint64_t shortRun = n < 32 ? n : 32;
    for (uint64_t i = 0; i < shortRun; ++i)
        if (p[i] == 0) return p + i;
    if (n <= 32) return nullptr;
    return static_cast<const unsigned char*>(std::memchr(p + 32, 0, static_cast<size_t>(n - 32)));
}

// ---- locking ----

inline bool HasLock(const _BLOB_INFO* blob) noexcept {
    return (blob->options & 2) != 0;
}
void LockRead(const _BLOB_INFO* blob) noexcept;
void UnlockRead(const _BLOB_INFO* blob) noexcept;
void LockWrite(const _BLOB_INFO* blob) noexcept;
void UnlockWrite(const _BLOB_INFO* blob) noexcept;

// Holds the shared side of a blob's lock for a scope, when it has one.
class BlobReadGuard {
  public:
    explicit BlobReadGuard(const _BLOB_INFO* blob) noexcept
        : blob_(blob != nullptr && HasLock(blob) ? blob : nullptr) {
        if (blob_ != nullptr) LockRead(blob_);
    }
    ~BlobReadGuard() {
        if (blob_ != nullptr) UnlockRead(blob_);
    }
    BlobReadGuard(const BlobReadGuard&) = delete;
    BlobReadGuard& operator=(const BlobReadGuard&) = delete;

  private:
    const _BLOB_INFO* blob_;
};

// Holds the exclusive side of a blob's lock for a scope, when it has one.
class BlobWriteGuard {
  public:
    explicit BlobWriteGuard(const _BLOB_INFO* blob) noexcept
        : blob_(blob != nullptr && HasLock(blob) ? blob : nullptr) {
        if (blob_ != nullptr) LockWrite(blob_);
    }
    ~BlobWriteGuard() {
        if (blob_ != nullptr) UnlockWrite(blob_);
    }
    BlobWriteGuard(const BlobWriteGuard&) = delete;
    BlobWriteGuard& operator=(const BlobWriteGuard&) = delete;

  private:
    const _BLOB_INFO* blob_;
};

// ---- handles ----

// A zeroed handle from the pools for `option`, with refCount 1, uniqueNames set unless the
// option is 4, and an index of `indexEntries` entries but no buffer. Null when out of memory.
_BLOB_INFO* NewHandle(blob_create_option option, uint64_t indexEntries) noexcept;
// Gives back what the handle owns and the handle itself, as ReleaseBlob does at 0.
void FreeHandle(_BLOB_INFO* blob) noexcept;

// ---- fields, without locking (callers hold the lock) ----

// Name look-up: the first field whose name equals `name` with A-Z folded. False for a null
// or empty name.
bool FindField(const _BLOB_INFO* blob, const char* name, uint64_t* index) noexcept;
// Name comparison with A-Z folded; `a` and `b` have `length` bytes.
bool NamesEqual(const char* a, const char* b, size_t length) noexcept;
// Moves the buffer to a block of at least `newCapacity` bytes: status 13 with
// preservePointers, 1 for a borrowed buffer, 8 when no block.
blob_status GrowBuffer(_BLOB_INFO* blob, uint64_t newCapacity) noexcept;
// Grows the index by half (at least 2 entries). Status 8 when no block.
blob_status GrowIndex(_BLOB_INFO* blob) noexcept;
// The raw append of AddField without the lock: `index` receives the field number (or the
// existing one for a known name under uniqueNames). `*found` (if given) tells which.
blob_status AppendField(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                        uint64_t* index, bool* found) noexcept;
// Replaces a STRING, UTF16 or BLOB field's value with `n` bytes: `n - zeros` from `data`
// and then `zeros` bytes of 0 (the terminator of a text cut short). Grows the field (moving
// later fields up and shifting their offsets) when its room is too small, growing the buffer
// if need be; pads the rest of the room with 0xFF. On failure nothing has changed.
blob_status StoreVariable(_BLOB_INFO* blob, uint64_t index, const void* data, uint64_t n,
                          uint32_t zeros = 0) noexcept;

// ---- the walk ----

// Walks `buffer` (its header's length must already have been checked against the bytes
// available) and fills the blob's index, growing it as needed. Every read is checked
// against the header's length. Status 5 for malformed bytes, 8 when the index cannot grow.
blob_status WalkBuffer(_BLOB_INFO* blob) noexcept;
// Walks serialised bytes to the first field named `name` (A-Z folded), without a handle:
// `*entry` receives where it lies. Status 4 when there is no such
// field or the buffer holds no field at all, 5 for malformed bytes before the match, 10 when
// the header's length exceeds `length`.
blob_status FindInBuffer(const unsigned char* bytes, uint64_t length, const char* name,
                         BlobFieldEntry* entry) noexcept;
// Checks that `bytes` of `length` hold a well-formed blob, nested blobs included, down to
// `depth` levels. Fills nothing.
bool ValidateBuffer(const unsigned char* bytes, uint64_t length, unsigned depth) noexcept;

}  // namespace TOLVEN::detail
