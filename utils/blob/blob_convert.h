// The converting path of typed field access, out of line in BlobTypedConvert.cpp: text to
// number and number to text, both independent of the process locale, the narrowing of
// UTF-16 text, and the text form of every field type. It stands on the blob's internals
// alone; the inline fast path (blob_typed.h) calls into it, never the other way.
#pragma once

#include <cstddef>
#include <cstdint>

#include "blob/blob_internal.h"

namespace TOLVEN::detail {

// ---- a field's value and the length of texts ----

// Where one field's value lies: its data, its room (padding included) and its type.
struct FieldView {
    const unsigned char* data;
    uint32_t size;
    uint32_t type;
};

// The units of a UTF-16 value of `size` bytes at `p` before its 0 unit.
inline uint64_t FieldUnits(const unsigned char* p, uint64_t size) noexcept {
    uint64_t n = 0;
    while (2 * n + 1 < size && (p[2 * n] != 0 || p[2 * n + 1] != 0))
        ++n;
    return n;
}

// Length of a byte text, at most `max` bytes.
inline uint64_t TextLength(const char* s, uint64_t max) noexcept {
    uint64_t n = 0;
    while (n < max && s[n] != 0)
        ++n;
    return n;
}

// ---- text parsers: the C runtime's, pinned to the "C" locale and to fixed widths ----
// Each reads NUL-terminated text, stops at the first character it cannot use, and tells in
// `*used` whether any digit was taken.

// strtol, base 10, saturating at the 32-bit limits.
int32_t ParseLong32(const char* s, bool* used) noexcept;
// strtoul, base 10: saturates at 0xFFFFFFFF, a leading '-' negates the result.
uint32_t ParseULong32(const char* s, bool* used) noexcept;
// strtoi64, base 10, saturating at the 64-bit limits.
int64_t ParseInt64(const char* s, bool* used) noexcept;
// strtoui64, base 10: saturates at the maximum, a leading '-' negates the result.
uint64_t ParseUInt64(const char* s, bool* used) noexcept;
// strtod with the "C" locale's decimal point: decimal and hexadecimal forms, inf and nan.
double ParseDouble(const char* s, bool* used) noexcept;
// "true" or "1" in any case, the text having `n` bytes.
bool IsTrueText(const char* s, uint64_t n) noexcept;

// Room for the ASCII copy of a UTF-16 text that a number is parsed from.
inline constexpr size_t kAsciiRoom = 512;
// Copies a UTF-16 text (little-endian unit bytes at `units`, at most `maxUnits` units, up to
// its 0 unit) into `out` of `room` bytes for the parsers above: units above 127 become 0x7F,
// which no parser takes, and leading white space is dropped when `skipSpace` is set, so a
// long run of it does not crowd out the number. Returns the bytes written, terminator not
// counted.
size_t UnitsToAscii(const unsigned char* units, uint64_t maxUnits, char* out, size_t room,
                    bool skipSpace) noexcept;

// ---- formatting ----

// Room for the longest text of one number: a double with ten decimals.
inline constexpr size_t kNumberTextRoom = 400;

// "%i" / "%I64i" into `out`; returns the length (no terminator written).
size_t FormatSigned(char* out, int64_t v) noexcept;
// "%u" / "%I64u" into `out`; returns the length.
size_t FormatUnsigned(char* out, uint64_t v) noexcept;
// "%.<decimals>f" in the "C" locale with trailing zeros and then a trailing point removed;
// returns the length. `out` has kNumberTextRoom bytes.
size_t FormatFloat(char* out, double v, int decimals) noexcept;

// Formats a field as GetStr does into `buffer` of `size` (> 0) bytes.
blob_status FormatField(const FieldView& f, char* buffer, uint64_t size) noexcept;

// ---- UTF-16 ----

// Narrows `units` UTF-16 units (little-endian unit bytes at `text`, any alignment) to bytes,
// 0-255 to that byte, and terminates them in `out` of `room` (> 0) bytes. Status 12 for a
// unit above 255 (`out` empty), 1 when the text does not fit (as much as fits, terminated).
blob_status NarrowUnits(const void* text, uint64_t units, char* out, uint64_t room) noexcept;

}  // namespace TOLVEN::detail
