// The blob: a self-describing binary message of typed, optionally named fields in one
// contiguous buffer that is at the same time its wire and file form. This header holds the
// buffer's types, the handle and the lifecycle and untyped field operations.
//
// Buffer format (all integers little-endian, unaligned, never padded for alignment):
//   byte 0      format byte, written as (old & 1) | 2 and never read
//   bytes 1-4   total length in bytes, these five header bytes included (5 when empty)
//   bytes 5-    the fields, one behind the other
// One field: a type byte (bits 0-6 the blob_field_type, bit 7 set when a name follows),
// the name and a NUL when named, the value, then for variable-length values any number of
// 0xFF bytes of padding (0xFF can never begin a field).
#pragma once

#include <cstdint>

#include "tolven/blobstatus.h"

namespace TOLVEN {

// The type of a field, bits 0-6 of its type byte.
enum blob_field_type : uint32_t {
    BLOB_FIELD_TYPE_UNDEFINED = 0,       // never stored; the type of a field that is not there
    BLOB_FIELD_TYPE_STRING = 1,          // bytes and a NUL, then padding
    BLOB_FIELD_TYPE_BOOL = 2,            // one byte, 0 or 1
    BLOB_FIELD_TYPE_INT8 = 3,            // 1 byte, signed
    BLOB_FIELD_TYPE_INT16 = 4,           // 2 bytes, signed
    BLOB_FIELD_TYPE_INT32 = 5,           // 4 bytes, signed
    BLOB_FIELD_TYPE_INT64 = 6,           // 8 bytes, signed
    BLOB_FIELD_TYPE_UINT8 = 7,           // 1 byte, unsigned
    BLOB_FIELD_TYPE_UINT16 = 8,          // 2 bytes, unsigned
    BLOB_FIELD_TYPE_UINT32 = 9,          // 4 bytes, unsigned
    BLOB_FIELD_TYPE_UINT64 = 10,         // 8 bytes, unsigned
    BLOB_FIELD_TYPE_FLOAT32 = 11,        // IEEE 754 single
    BLOB_FIELD_TYPE_FLOAT64 = 12,        // IEEE 754 double
    BLOB_FIELD_TYPE_BLOB = 13,           // a whole nested blob buffer, then padding
    BLOB_FIELD_TYPE_INT8_ARRAY = 14,     // 32-bit count, elements, padding
    BLOB_FIELD_TYPE_INT16_ARRAY = 15,    // likewise
    BLOB_FIELD_TYPE_INT32_ARRAY = 16,    // likewise
    BLOB_FIELD_TYPE_INT64_ARRAY = 17,    // likewise
    BLOB_FIELD_TYPE_UINT8_ARRAY = 18,    // likewise
    BLOB_FIELD_TYPE_UINT16_ARRAY = 19,   // likewise
    BLOB_FIELD_TYPE_UINT32_ARRAY = 20,   // likewise
    BLOB_FIELD_TYPE_UINT64_ARRAY = 21,   // likewise
    BLOB_FIELD_TYPE_FLOAT32_ARRAY = 22,  // likewise
    BLOB_FIELD_TYPE_FLOAT64_ARRAY = 23,  // likewise
    BLOB_FIELD_TYPE_BINARY = 24,         // 32-bit byte count, bytes, padding
    BLOB_FIELD_TYPE_TIMESTAMP = 25,      // a 16-byte _blob_timestamp
    BLOB_FIELD_TYPE_UTF16 = 26,          // 16-bit units and a 0 unit, then padding
    BLOB_FIELD_TYPE_MAX = 27,            // the null field: type byte and name, no data
};

// How a blob is made. The duplicate test is an equality with 4, so 6 gives a lock and
// unique names.
enum blob_create_option : uint32_t {
    BLOB_CREATE_DEFAULT = 0,           // unique names, no lock
    BLOB_CREATE_LOCKED = 2,            // the handle carries a BlobLock that every call takes
    BLOB_CREATE_ALLOW_DUPLICATES = 4,  // a name may occur more than once
};

// Where one field lies in the buffer. dataOffset - headerOffset - 2 is the name's length;
// a difference of 1 marks a nameless field. Plain value; not thread-safe.
struct BlobFieldEntry {
    uint32_t headerOffset;  // offset of the type byte
    uint32_t dataOffset;    // offset of the value
    uint32_t dataSize;      // room of the value, padding included
};
static_assert(sizeof(BlobFieldEntry) == 12, "BlobFieldEntry is three 32-bit words");

// A busy-wait read/write lock with a re-entrant writer: `spin` (0 free, 1 taken) guards the
// other three words. Safe for concurrent use without external locking (that is its job).
struct BlobLock {
    uint32_t spin;
    uint32_t writers;
    uint32_t readers;
    uint32_t writerThread;
};

// The blob handle: 56 bytes, or 72 when `options` has BLOB_CREATE_LOCKED and `lock` exists.
// Only refCount may be touched by several threads at once, unless the blob has its lock;
// without one a blob belongs to one thread at a time.
struct _BLOB_INFO {
    int32_t refCount;             // reference count, atomic, 1 at creation
    uint8_t uniqueNames;          // a second field of the same name is refused
    uint8_t preservePointers;     // nothing may move the buffer or the index
    uint8_t borrowedBuffer;       // `buffer` is the caller's: never released nor grown
    uint8_t borrowedHandle;       // the index lies in caller memory
    uint8_t options;              // the blob_create_option given at creation
    uint8_t fixedHandle;          // the handle itself lies in caller memory (never released)
    uint8_t reserved[2];          // zero
    uint64_t fieldCount;          // fields in use
    unsigned char* buffer;        // the buffer described above
    uint64_t bufferCapacity;      // bytes available at `buffer`
    BlobFieldEntry* fieldIndex;   // one entry per field, in field order
    uint64_t fieldIndexCapacity;  // entries available
    BlobLock lock;                // present only with BLOB_CREATE_LOCKED
};
static_assert(sizeof(_BLOB_INFO) == 72, "a locked handle is 72 bytes");

// The size of a handle without its lock.
inline constexpr uint64_t kBlobHandleSize = 56;
// The size of a handle with its lock.
inline constexpr uint64_t kBlobLockedHandleSize = 72;

// ---- creation and lifetime --------------------------------------------------------------

// An empty blob with a 256-byte buffer and a 64-entry index.
blob_status CreateBlob(_BLOB_INFO** out, blob_create_option option = BLOB_CREATE_DEFAULT);
// An empty blob with room for `size` bytes (at least the 5 header bytes) and 64 entries.
blob_status CreateBlob(_BLOB_INFO** out, uint64_t size, blob_create_option option);
// A blob from serialised bytes, walked once and checked against `length`. With `copy` false
// the blob borrows `bytes`, which must outlive it. Status 10 when the length field exceeds
// `length`, 5 for malformed bytes (then *out stays null).
blob_status CreateBlob(_BLOB_INFO** out, const unsigned char* bytes, uint64_t length, bool copy,
                       blob_create_option option);
// A deep copy of `source` with its capacities.
blob_status CreateBlob(_BLOB_INFO** out, const _BLOB_INFO* source, blob_create_option option);
// A blob over caller memory. In place, the handle (aligned up to 8 bytes), `maxFields` index
// entries and the buffer all lie in `memory`; otherwise the handle and index come from the
// pools and all of `memory` is the buffer. Status 1 when the memory is too small.
blob_status CreateFixedBlob(_BLOB_INFO** out, unsigned char* memory, uint64_t size,
                            uint32_t maxFields, bool inPlace, blob_create_option option);
// A blob of random fields, to drive consumers with unpredictable input.
blob_status CreateRandomBlob(_BLOB_INFO** out, blob_create_option option);
// Replaces the content of `target` with that of `source`; modes and options stay.
blob_status CopyBlob(_BLOB_INFO* target, const _BLOB_INFO* source);
// Empties the blob and keeps both capacities. Always success.
blob_status Clear(_BLOB_INFO* blob);
// Adds a reference; returns the new count (0 for a null handle).
int32_t AddRefBlob(_BLOB_INFO* blob);
// The reference count.
int32_t GetRefCountBlob(const _BLOB_INFO* blob);
// Drops a reference and returns the new count. At 0 frees the blob and sets *blob to null.
int32_t ReleaseBlob(_BLOB_INFO** blob);
// Points the handle at a caller's buffer (borrowed) and walks it. Takes the shared side of
// the lock although it replaces the buffer; use BlobWriteLock for exclusion.
blob_status SetBlobPtr(_BLOB_INFO* blob, const unsigned char* bytes, uint64_t length);
// The buffer and its used length: the serialised form.
blob_status GetBlobPtr(const _BLOB_INFO* blob, unsigned char** ptr, uint64_t* length);
// The used length (0 for a null handle).
uint64_t GetBlobLen(const _BLOB_INFO* blob);
// The length field of serialised bytes; reads five bytes and checks nothing.
uint64_t GetBlobBufferLen(const unsigned char* bytes);

// ---- untyped field operations -----------------------------------------------------------

// The number of fields (0 for a null handle).
uint64_t GetNumFields(const _BLOB_INFO* blob);
// The number of the first field of that name (A-Z folded); `index` may be null. Status 4
// when there is none.
blob_status GetFieldNumber(const _BLOB_INFO* blob, const char* name, uint64_t* index);
// 1 when a field of that name exists.
int IsFieldPresent(const _BLOB_INFO* blob, const char* name);
// 1 when `index` is below the field count.
int IsItemPresent(const _BLOB_INFO* blob, uint64_t index);
// The field's type; BLOB_FIELD_TYPE_UNDEFINED when there is no such field.
blob_field_type GetFieldType(const _BLOB_INFO* blob, uint64_t index);
// The field's length by type: characters with terminator for text, the length of a nested
// blob, the count of arrays and binary, the data size of the rest. A STRING of one byte of
// room leaves *length as it was.
blob_status GetFieldLen(const _BLOB_INFO* blob, uint64_t index, uint64_t* length);
// Copies the field's name into `name` of *length bytes, always terminated; *length receives
// the bytes taken. Status 4 for a nameless field.
blob_status GetFieldDescription(const _BLOB_INFO* blob, uint64_t index, char* name,
                                uint64_t* length);
// A pointer to the field's name inside the buffer; null and status 4 for a nameless field.
blob_status GetFieldDescriptionPtr(const _BLOB_INFO* blob, uint64_t index, const char** name);
// Appends a field of `type` with `size` bytes of payload, filled with its initial content.
// With unique names an existing name gives that field's number and success, unchanged.
blob_status AddField(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                     uint64_t* index);
// Removes a field; the fields behind it move down and keep their order.
blob_status RemoveField(_BLOB_INFO* blob, uint64_t index);
// Removes the first field of that name.
blob_status RemoveFieldByName(_BLOB_INFO* blob, const char* name);
// Sets uniqueNames to !allow.
blob_status BlobAllowDuplicateField(_BLOB_INFO* blob, bool allow);
// Sets uniqueNames to !allow; `previous` gets what allow was before.
blob_status BlobAllowDuplicateField(_BLOB_INFO* blob, bool allow, bool& previous);
// Forbids (or allows again) everything that would move the buffer or the index.
blob_status BlobPreservePointers(_BLOB_INFO* blob, bool preserve);
// Rewrites the blob with the narrowest integer types and no string padding.
blob_status ShrinkBlobFields(_BLOB_INFO* blob);
// Gives unused index and buffer memory back. For blobs that own their memory.
blob_status ShrinkBlobMemory(_BLOB_INFO* blob);
// Exchanges the contents of two blobs; counts, modes, options and locks stay.
blob_status SwapBlobs(_BLOB_INFO* a, _BLOB_INFO* b);

// ---- explicit locking (blobs made with BLOB_CREATE_LOCKED; others give status 13) --------

// Takes the shared side: several readers, or the writing thread itself.
blob_status BlobReadLock(const _BLOB_INFO* blob);
// Gives the shared side back.
blob_status BlobReadUnlock(const _BLOB_INFO* blob);
// Takes the exclusive side; re-entrant for the writing thread. There is no upgrade from read.
blob_status BlobWriteLock(const _BLOB_INFO* blob);
// Gives the exclusive side back.
blob_status BlobWriteUnlock(const _BLOB_INFO* blob);

// ---- memory -----------------------------------------------------------------------------

// Sets the process-wide handler called once when a blob allocation fails (null clears it).
void SetBlobOutOfMemoryHandler(void (*handler)());

}  // namespace TOLVEN
