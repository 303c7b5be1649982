// Typed access to blob fields: add, overwrite and read by field number and by name, with
// conversion between the field's type and the caller's type.
//
// A field keeps the type it was created with. Every read converts from that type to the
// type asked for, every overwrite converts from the caller's type to the field's type, and
// only the GetPtr calls insist on the exact type. An Add of a name that already exists in a
// blob with unique names behaves as the Set of that field.
//
// Scalar tokens and their caller-side types:
//   BOOL unsigned char, I8 char, I16 int16_t, I32 int32_t, I64 int64_t, U8 uint8_t,
//   U16 uint16_t, U32 uint32_t, U64 uint64_t, F32 float, F64 double.
// Every token but BOOL also has an array form (XArray). UTF-16 text is in char16_t units.
//
// Conversions on read (GetX, GetXArray):
//   - integer to integer extends by the source's signedness and narrows by dropping high
//     bytes, with no range check (GetI8 of an INT32 300 gives 44);
//   - floats to integers truncate towards zero through 32 bits for I8-I32, through 64 bits for
//     the others (U64 takes values of 2^63 and above through an offset); NaN and values out
//     of range give the minimum of that width, the same on every compiler;
//   - text (STRING, UTF16) is parsed in base 10 as the C runtime's strtol/strtoul (32-bit,
//     saturating) do, strtoi64/strtoui64 for the 64-bit targets, strtod for floats, always in
//     the "C" locale; trailing text is ignored, no digit at all gives 0 and status 12;
//   - GetBOOL reads numbers as true when above 0 (signed and floats) or not 0 (unsigned), and
//     text as true when it is "true" or "1" in any case; other text leaves *out as it was;
//   - nested blobs, binary, time stamps and arrays give status 7 to the scalar reads.
// Conversions on overwrite (SetX): into STRING and UTF16 fields the value's text ("%i", "%u",
// 64-bit values signed, floats with ten decimals and no trailing zeros, "TRUE"/"FALSE");
// into BOOL fields the truth of the value; into numbers the low bytes or the numeric value.
// Nested blob, array, binary and time stamp fields give status 7 to scalar overwrites.
//
// Text, UTF-16 and nested blob fields grow on overwrite: a value that fits is written in
// place and the rest of the room padded with 0xFF; a longer one moves the later fields up
// (growing the buffer if needed: status 13 with preservePointers, 1 for a borrowed buffer).
// Arrays and binary never grow: more than the room gives status 1 and changes nothing.
//
// Statuses common to all families: null out or values 2; index not below the field count 4;
// by name, a null handle 2, a null or unknown name 4 (the first field of that name answers).
// A non-zero status leaves the blob as it was, except that an Add keeps the field it
// appended when the store behind it fails.
//
// Locking: each call takes the shared (reads) or exclusive (writes) side of the blob's lock
// when the blob has one. Pointers from GetPtr calls outlive the call: hold BlobReadLock or set
// preservePointers for as long as they are used. Safe for concurrent use without external
// locking on blobs made with BLOB_CREATE_LOCKED; otherwise a blob belongs to one thread.
#pragma once

#include <cstdint>
#include <cstring>

#include "tolven/blob.h"
#include "tolven/blobtime.h"

// The scalar tokens: X(token, caller type).
// clang-format off
#define TOLVEN_BLOB_SCALAR_TOKENS(X) \
    X(BOOL, unsigned char)           \
    TOLVEN_BLOB_ARRAY_TOKENS(X)

// The tokens that have an array form: X(token, caller element type).
#define TOLVEN_BLOB_ARRAY_TOKENS(X)  \
    X(I8, char)                      \
    X(I16, int16_t)                  \
    X(I32, int32_t)                  \
    X(I64, int64_t)                  \
    X(U8, uint8_t)                   \
    X(U16, uint16_t)                 \
    X(U32, uint32_t)                 \
    X(U64, uint64_t)                 \
    X(F32, float)                    \
    X(F64, double)
// clang-format on

namespace TOLVEN {

// ---- scalars: AddX, SetX, SetByNameX, GetX, GetByNameX, GetPtrX, GetPtrByNameX ----------
// AddX appends a field of the token's type (or finds the existing one under unique names)
// and stores the value as SetX does. GetPtrX points into the buffer and gives status 2 unless
// the field has exactly the token's type.
#define TOLVEN_DECLARE_BLOB_SCALAR(T, C)                                        \
    blob_status Add##T(_BLOB_INFO* blob, const char* name, C value);            \
    blob_status Set##T(_BLOB_INFO* blob, uint64_t index, C value);              \
    blob_status SetByName##T(_BLOB_INFO* blob, const char* name, C value);      \
    blob_status GetByName##T(const _BLOB_INFO* blob, const char* name, C* out); \
    blob_status GetPtr##T(const _BLOB_INFO* blob, uint64_t index, C** out);     \
    blob_status GetPtrByName##T(const _BLOB_INFO* blob, const char* name, C** out);
TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_DECLARE_BLOB_SCALAR)
#undef TOLVEN_DECLARE_BLOB_SCALAR

namespace detail {

// The field type whose stored bytes are exactly the token's caller type. BOOL has none: a
// stored byte above 1 still reads as 1.
inline constexpr uint32_t kExactField_BOOL = BLOB_FIELD_TYPE_UNDEFINED;
inline constexpr uint32_t kExactField_I8 = BLOB_FIELD_TYPE_INT8;
inline constexpr uint32_t kExactField_I16 = BLOB_FIELD_TYPE_INT16;
inline constexpr uint32_t kExactField_I32 = BLOB_FIELD_TYPE_INT32;
inline constexpr uint32_t kExactField_I64 = BLOB_FIELD_TYPE_INT64;
inline constexpr uint32_t kExactField_U8 = BLOB_FIELD_TYPE_UINT8;
inline constexpr uint32_t kExactField_U16 = BLOB_FIELD_TYPE_UINT16;
inline constexpr uint32_t kExactField_U32 = BLOB_FIELD_TYPE_UINT32;
inline constexpr uint32_t kExactField_U64 = BLOB_FIELD_TYPE_UINT64;
inline constexpr uint32_t kExactField_F32 = BLOB_FIELD_TYPE_FLOAT32;
inline constexpr uint32_t kExactField_F64 = BLOB_FIELD_TYPE_FLOAT64;

// The value bytes of field `index` when the blob has no lock, the index is in range and the
// field's type is `type`; null otherwise (the caller then takes the full path).
inline const unsigned char* ExactField(const _BLOB_INFO* blob, uint64_t index, uint32_t type,
                                       uint32_t* room) noexcept {
    if (blob == nullptr || (blob->options & BLOB_CREATE_LOCKED) != 0 || index >= blob->fieldCount)
        return nullptr;
    const BlobFieldEntry& e = blob->fieldIndex[index];
    if ((blob->buffer[e.headerOffset] & 0x7Fu) != type) return nullptr;
    if (room != nullptr) *room = e.dataSize;
    return blob->buffer + e.dataOffset;
}

// The full reads behind the inline ones: every type, every conversion, the lock.
#define TOLVEN_DECLARE_BLOB_FULL_READ(T, C) \
    blob_status Get##T##Full(const _BLOB_INFO* blob, uint64_t index, C* out);
TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_DECLARE_BLOB_FULL_READ)
#undef TOLVEN_DECLARE_BLOB_FULL_READ
blob_status GetStrFull(const _BLOB_INFO* blob, uint64_t index, char* buffer, uint64_t size);

}  // namespace detail

// GetX: reads field `index` converted to the token's type. A field of exactly that type in a
// blob without a lock is read inline; everything else goes to the library.
#define TOLVEN_DEFINE_BLOB_GET(T, C)                                                     \
    inline blob_status Get##T(const _BLOB_INFO* blob, uint64_t index, C* out) {          \
        if (detail::kExactField_##T != 0 && out != nullptr) {                            \
            if (const unsigned char* p =                                                 \
                    detail::ExactField(blob, index, detail::kExactField_##T, nullptr)) { \
                std::memcpy(out, p, sizeof(C));                                          \
                return BLOB_STATUS_SUCCESS;                                              \
            }                                                                            \
        }                                                                                \
        return detail::Get##T##Full(blob, index, out);                                   \
    }
TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_DEFINE_BLOB_GET)
#undef TOLVEN_DEFINE_BLOB_GET

// GetBOOL into an int: 1 or 0 (0 also when text left the answer open).
blob_status GetBOOL(const _BLOB_INFO* blob, uint64_t index, int* out);
// GetByNameBOOL into an int, as GetBOOL.
blob_status GetByNameBOOL(const _BLOB_INFO* blob, const char* name, int* out);

// ---- arrays: AddXArray, SetXArray, SetByNameXArray, GetXArray, GetByNameXArray, GetPtr... --
// SetXArray needs an array field (types 14-23, else 7) whose room holds `count` elements of
// its own element type (else 1, nothing changed); elements are converted as SetX converts.
// GetXArray takes the room in *count and always gives back the field's element count;
// status 1 and nothing copied when the room is smaller. GetPtrXArray gives the elements and
// their count, exact type only.
#define TOLVEN_DECLARE_BLOB_ARRAY(T, C)                                                           \
    blob_status Add##T##Array(_BLOB_INFO* blob, const char* name, const C* values,                \
                              uint64_t count);                                                    \
    blob_status Set##T##Array(_BLOB_INFO* blob, uint64_t index, const C* values, uint64_t count); \
    blob_status SetByName##T##Array(_BLOB_INFO* blob, const char* name, const C* values,          \
                                    uint64_t count);                                              \
    blob_status Get##T##Array(const _BLOB_INFO* blob, uint64_t index, C* out, uint64_t* count);   \
    blob_status GetByName##T##Array(const _BLOB_INFO* blob, const char* name, C* out,             \
                                    uint64_t* count);                                             \
    blob_status GetPtr##T##Array(const _BLOB_INFO* blob, uint64_t index, C** out,                 \
                                 uint64_t* count);                                                \
    blob_status GetPtrByName##T##Array(const _BLOB_INFO* blob, const char* name, C** out,         \
                                       uint64_t* count);
TOLVEN_BLOB_ARRAY_TOKENS(TOLVEN_DECLARE_BLOB_ARRAY)
#undef TOLVEN_DECLARE_BLOB_ARRAY

// ---- text ---------------------------------------------------------------------------------
// AddStr/SetStr store at most `maxLength` bytes of `text` (a null text counts as empty for
// AddStr). On a non-text field SetStr converts: BOOL is "true" or "1" in any case, integers
// take the 32-bit decimal value (sign-extended into 64-bit fields), floats the decimal value.
// GetStr formats any field but nested blobs and binary (status 7, empty text) into `buffer`
// of `size` bytes, always terminated: status 1 when the text does not fit, 12 when UTF-16
// text has a unit above 255. Floats print five (F32) or ten (F64) decimals, trailing zeros
// and point removed; arrays print their elements joined by commas.
blob_status AddStr(_BLOB_INFO* blob, const char* name, const char* text, uint64_t maxLength);
blob_status SetStr(_BLOB_INFO* blob, uint64_t index, const char* text, uint64_t maxLength);
blob_status SetByNameStr(_BLOB_INFO* blob, const char* name, const char* text, uint64_t maxLength);
// A STRING field that fits, in a blob without a lock, is copied inline.
inline blob_status GetStr(const _BLOB_INFO* blob, uint64_t index, char* buffer, uint64_t size) {
    uint32_t room = 0;
    if (buffer != nullptr && size != 0) {
        if (const unsigned char* p =
                detail::ExactField(blob, index, BLOB_FIELD_TYPE_STRING, &room)) {
            // Behind a text's terminator there is only 0xFF padding: a room that ends in
            // 0 holds a text of room - 1 bytes, with no search.
            const void* nul =
                room != 0 && p[room - 1] == 0 ? p + room - 1 : std::memchr(p, 0, room);
            if (nul != nullptr) {
                const auto n = static_cast<uint64_t>(static_cast<const unsigned char*>(nul) - p);
                if (n < size) {
                    std::memcpy(buffer, p, static_cast<size_t>(n) + 1);
                    buffer[size - 1] = 0;
                    return BLOB_STATUS_SUCCESS;
                }
            }
        }
    }
    return detail::GetStrFull(blob, index, buffer, size);
}
blob_status GetByNameStr(const _BLOB_INFO* blob, const char* name, char* buffer, uint64_t size);
// The text of a STRING field in the buffer; status 2 for any other type.
blob_status GetPtrStr(const _BLOB_INFO* blob, uint64_t index, const char** out);
blob_status GetPtrByNameStr(const _BLOB_INFO* blob, const char* name, const char** out);

// ---- UTF-16 text ----------------------------------------------------------------------------
// As the text family, in 16-bit units. Narrowing to bytes maps units 0-255 to that byte and
// fails with status 12 on any unit above; widening sign-extends each byte. GetUTF16 copies at
// most `size` units, always terminated; other types go through GetStr and are widened.
blob_status AddUTF16(_BLOB_INFO* blob, const char* name, const char16_t* text, uint64_t maxLength);
blob_status SetUTF16(_BLOB_INFO* blob, uint64_t index, const char16_t* text, uint64_t maxLength);
blob_status SetByNameUTF16(_BLOB_INFO* blob, const char* name, const char16_t* text,
                           uint64_t maxLength);
blob_status GetUTF16(const _BLOB_INFO* blob, uint64_t index, char16_t* buffer, uint64_t size);
blob_status GetByNameUTF16(const _BLOB_INFO* blob, const char* name, char16_t* buffer,
                           uint64_t size);
// The units of a UTF16 field in the buffer; status 2 for any other type.
blob_status GetPtrUTF16(const _BLOB_INFO* blob, uint64_t index, const char16_t** out);
blob_status GetPtrByNameUTF16(const _BLOB_INFO* blob, const char* name, const char16_t** out);

// ---- binary ---------------------------------------------------------------------------------
// BINARY fields only (others give status 2). AddBinary appends `size` bytes of room; with
// null data the field stays empty and the status is 2. SetBinary never grows the field (1).
// GetBinary copies when *size (the room) holds the bytes and leaves *size alone; otherwise
// *size receives the count needed and the status is 1.
blob_status AddBinary(_BLOB_INFO* blob, const char* name, unsigned char* data, uint64_t size);
blob_status SetBinary(_BLOB_INFO* blob, uint64_t index, unsigned char* data, uint64_t size);
blob_status SetByNameBinary(_BLOB_INFO* blob, const char* name, unsigned char* data, uint64_t size);
blob_status GetBinary(const _BLOB_INFO* blob, uint64_t index, unsigned char* buffer,
                      uint64_t* size);
blob_status GetByNameBinary(const _BLOB_INFO* blob, const char* name, unsigned char* buffer,
                            uint64_t* size);
// The bytes of a BINARY field in the buffer and their count.
blob_status GetPtrBinary(const _BLOB_INFO* blob, uint64_t index, unsigned char** out,
                         uint64_t* size);
blob_status GetPtrByNameBinary(const _BLOB_INFO* blob, const char* name, unsigned char** out,
                               uint64_t* size);

// ---- nested blobs ---------------------------------------------------------------------------
// AddBlob/SetBlob copy the nested blob's bytes (holding its read lock); BLOB fields only
// (else 7), a null nested blob is 2. GetBlob gives a new owned copy that the caller releases;
// other types give status 7.
blob_status AddBlob(_BLOB_INFO* blob, const char* name, const _BLOB_INFO* nested);
blob_status SetBlob(_BLOB_INFO* blob, uint64_t index, const _BLOB_INFO* nested);
blob_status SetByNameBlob(_BLOB_INFO* blob, const char* name, const _BLOB_INFO* nested);
blob_status GetBlob(const _BLOB_INFO* blob, uint64_t index, _BLOB_INFO** out);
blob_status GetByNameBlob(const _BLOB_INFO* blob, const char* name, _BLOB_INFO** out);

// ---- time stamps ----------------------------------------------------------------------------
// TIMESTAMP fields only for Set (else 2). GetTimeStamp also parses STRING and UTF16 fields
// as time text; a failed parse and any other type give status 2.
blob_status AddTimeStamp(_BLOB_INFO* blob, const char* name, const _blob_timestamp& value);
blob_status SetTimeStamp(_BLOB_INFO* blob, uint64_t index, const _blob_timestamp& value);
blob_status SetByNameTimeStamp(_BLOB_INFO* blob, const char* name, const _blob_timestamp& value);
blob_status GetTimeStamp(const _BLOB_INFO* blob, uint64_t index, _blob_timestamp* out);
blob_status GetByNameTimeStamp(const _BLOB_INFO* blob, const char* name, _blob_timestamp* out);
// The time stamp of a TIMESTAMP field in the buffer; status 2 for any other type.
blob_status GetPtrTimeStamp(const _BLOB_INFO* blob, uint64_t index, _blob_timestamp** out);
blob_status GetPtrByNameTimeStamp(const _BLOB_INFO* blob, const char* name, _blob_timestamp** out);

// ---- null field and text form ---------------------------------------------------------------
// Appends a field of type 27 with a name and no data (not readable back from bytes).
blob_status AddNULL(_BLOB_INFO* blob, const char* name);
// Adds a field from its text form, interpreted by `type`: text, binary, time stamp and UTF-16
// make a STRING field; BOOL is "true", "t" or "1" in any case; small integers take a quick
// decimal parse that does not validate (leading blanks and zeros skipped, one '-' for the
// signed types); 64-bit integers the C runtime's parse; floats a quick decimal parse without
// exponents; arrays a comma-separated list of such values. Types 0, 13 and 27 and above give
// status 4 and add nothing.
blob_status AddField(_BLOB_INFO* blob, const char* name, const char* text, blob_field_type type);

// ---- reads from serialised bytes, without a handle ------------------------------------------
// These walk `bytes` (their header's length, at most `length`) to the first field of that
// name. Status 4 when there is no such field or the buffer holds no field, 5 for malformed
// bytes, 10 when the header's length exceeds `length`.
// Formats the field as GetStr does.
blob_status GetByNameStr(const unsigned char* bytes, uint64_t length, const char* name,
                         char* buffer, uint64_t size);
// Reads the field as GetU32 does; types above FLOAT64 give status 7.
blob_status GetByNameU32(const unsigned char* bytes, uint64_t length, const char* name,
                         uint32_t* out);
// Points at the text of a STRING field inside `bytes`; other types set null and give 2.
blob_status GetPtrByNameStr(const unsigned char* bytes, uint64_t length, const char* name,
                            const char** out);

}  // namespace TOLVEN
