// The inline fast path of typed field access, shared by its units: the token table, the view
// of a field, the number conversions, and the cores that the exported families are generated
// from. Text parsing and formatting are the converting path's (blob_convert.h), which these
// templates call and which knows nothing of them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "blob/blob_convert.h"
#include "blob/blob_internal.h"
#include "tolven/blobtyped.h"

namespace TOLVEN::detail {

// ---- tokens ----

// How a token's caller-side value behaves in conversions.
enum class TokenKind : uint8_t { Bool, Signed, Unsigned, Float };

// One scalar token: caller type, field type, array type (UNDEFINED for BOOL), kind, width.
template <typename C, blob_field_type F, blob_field_type A, TokenKind K>
struct Token {
    using type = C;
    static constexpr blob_field_type field = F;
    static constexpr blob_field_type array = A;
    static constexpr TokenKind kind = K;
    static constexpr unsigned bits = sizeof(C) * 8;
};
using TokBOOL =
    Token<unsigned char, BLOB_FIELD_TYPE_BOOL, BLOB_FIELD_TYPE_UNDEFINED, TokenKind::Bool>;
using TokI8 = Token<char, BLOB_FIELD_TYPE_INT8, BLOB_FIELD_TYPE_INT8_ARRAY, TokenKind::Signed>;
using TokI16 =
    Token<int16_t, BLOB_FIELD_TYPE_INT16, BLOB_FIELD_TYPE_INT16_ARRAY, TokenKind::Signed>;
using TokI32 =
    Token<int32_t, BLOB_FIELD_TYPE_INT32, BLOB_FIELD_TYPE_INT32_ARRAY, TokenKind::Signed>;
using TokI64 =
    Token<int64_t, BLOB_FIELD_TYPE_INT64, BLOB_FIELD_TYPE_INT64_ARRAY, TokenKind::Signed>;
using TokU8 =
    Token<uint8_t, BLOB_FIELD_TYPE_UINT8, BLOB_FIELD_TYPE_UINT8_ARRAY, TokenKind::Unsigned>;
using TokU16 =
    Token<uint16_t, BLOB_FIELD_TYPE_UINT16, BLOB_FIELD_TYPE_UINT16_ARRAY, TokenKind::Unsigned>;
using TokU32 =
    Token<uint32_t, BLOB_FIELD_TYPE_UINT32, BLOB_FIELD_TYPE_UINT32_ARRAY, TokenKind::Unsigned>;
using TokU64 =
    Token<uint64_t, BLOB_FIELD_TYPE_UINT64, BLOB_FIELD_TYPE_UINT64_ARRAY, TokenKind::Unsigned>;
using TokF32 =
    Token<float, BLOB_FIELD_TYPE_FLOAT32, BLOB_FIELD_TYPE_FLOAT32_ARRAY, TokenKind::Float>;
using TokF64 =
    Token<double, BLOB_FIELD_TYPE_FLOAT64, BLOB_FIELD_TYPE_FLOAT64_ARRAY, TokenKind::Float>;

// ---- a field seen through its bytes ----

// The view of field `index` (FieldView is the converting path's).
inline FieldView ViewOf(const _BLOB_INFO* blob, uint64_t index) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    return FieldView{blob->buffer + e.dataOffset, e.dataSize, EntryType(blob, e)};
}

// ---- number conversions that give the same result on every compiler ----

// Truncation towards zero into 32 bits; NaN and values out of range give INT32_MIN, as the
// x86 conversion instruction does.
inline int32_t TruncToI32(double d) noexcept {
    return (d > -2147483649.0 && d < 2147483648.0) ? static_cast<int32_t>(d) : INT32_MIN;
}
// Truncation towards zero into 64 bits; NaN and values out of range give INT64_MIN.
inline int64_t TruncToI64(double d) noexcept {
    return (d >= -0x1p63 && d < 0x1p63) ? static_cast<int64_t>(d) : INT64_MIN;
}
// Truncation into an unsigned 64-bit value: 2^63 and above pass through an offset.
inline uint64_t TruncToU64(double d) noexcept {
    if (d >= 0x1p63) return static_cast<uint64_t>(TruncToI64(d - 0x1p63)) + (uint64_t{1} << 63);
    return static_cast<uint64_t>(TruncToI64(d));
}

// A signed source value (already sign-extended) in the caller's type.
template <typename Tok>
inline typename Tok::type FromSigned(int64_t v) noexcept {
    return static_cast<typename Tok::type>(v);
}
// An unsigned source value in the caller's type.
template <typename Tok>
inline typename Tok::type FromUnsigned(uint64_t v) noexcept {
    return static_cast<typename Tok::type>(v);
}
// A floating source value in the caller's type: truncation through 32 bits for the small
// signed types, through 64 bits for the rest.
template <typename Tok>
inline typename Tok::type FromDouble(double d) noexcept {
    using C = typename Tok::type;
    if constexpr (Tok::kind == TokenKind::Float) {
        return static_cast<C>(d);
    } else if constexpr (Tok::kind == TokenKind::Signed) {
        if constexpr (Tok::bits == 64) return TruncToI64(d);
        return static_cast<C>(TruncToI32(d));
    } else {
        if constexpr (Tok::bits == 64) return TruncToU64(d);
        return static_cast<C>(static_cast<uint64_t>(TruncToI64(d)));
    }
}

// Converts the numeric value of a field of scalar type 2-12 at `p` into the caller's type.
// False for any other type.
template <typename Tok>
inline bool ConvertNumeric(const unsigned char* p, uint32_t type,
                           typename Tok::type* out) noexcept {
    switch (type) {
        case BLOB_FIELD_TYPE_BOOL:
        case BLOB_FIELD_TYPE_UINT8:
            *out = FromUnsigned<Tok>(p[0]);
            return true;
        case BLOB_FIELD_TYPE_INT8:
            *out = FromSigned<Tok>(static_cast<int8_t>(p[0]));
            return true;
        case BLOB_FIELD_TYPE_INT16:
            *out = FromSigned<Tok>(LoadAt<int16_t>(p));
            return true;
        case BLOB_FIELD_TYPE_INT32:
            *out = FromSigned<Tok>(LoadAt<int32_t>(p));
            return true;
        case BLOB_FIELD_TYPE_INT64:
            *out = FromSigned<Tok>(LoadAt<int64_t>(p));
            return true;
        case BLOB_FIELD_TYPE_UINT16:
            *out = FromUnsigned<Tok>(LoadAt<uint16_t>(p));
            return true;
        case BLOB_FIELD_TYPE_UINT32:
            *out = FromUnsigned<Tok>(LoadAt<uint32_t>(p));
            return true;
        case BLOB_FIELD_TYPE_UINT64:
            *out = FromUnsigned<Tok>(LoadAt<uint64_t>(p));
            return true;
        case BLOB_FIELD_TYPE_FLOAT32:
            *out = FromDouble<Tok>(LoadAt<float>(p));
            return true;
        case BLOB_FIELD_TYPE_FLOAT64:
            *out = FromDouble<Tok>(LoadAt<double>(p));
            return true;
        default:
            return false;
    }
}

// The truth of a caller's value: above 0 for signed and floating values, not 0 otherwise.
template <typename Tok>
inline bool Truth(typename Tok::type v) noexcept {
    if constexpr (Tok::kind == TokenKind::Signed) {
        return static_cast<int64_t>(static_cast<std::make_signed_t<typename Tok::type>>(v)) > 0;
    } else if constexpr (Tok::kind == TokenKind::Float) {
        return v > 0;
    } else {
        return v != 0;
    }
}

// Writes a caller's value into a field of scalar type 2-12 at `p`: the truth for BOOL, the
// low bytes of the extended value for integers (floats truncated as on read), the numeric
// value for floats. False for any other type.
template <typename Tok>
inline bool StoreNumeric(unsigned char* p, uint32_t type, typename Tok::type v) noexcept {
    // The value as the field's type would read it back through the caller's token.
    auto as = [v](auto tag) noexcept {
        using D = decltype(tag);
        if constexpr (Tok::kind == TokenKind::Float) {
            using R = Token<D, BLOB_FIELD_TYPE_UNDEFINED, BLOB_FIELD_TYPE_UNDEFINED,
                            std::is_signed_v<D> ? TokenKind::Signed : TokenKind::Unsigned>;
            return FromDouble<R>(static_cast<double>(v));
        } else if constexpr (Tok::kind == TokenKind::Signed) {
            return static_cast<D>(static_cast<std::make_signed_t<typename Tok::type>>(v));
        } else {
            return static_cast<D>(v);
        }
    };
    switch (type) {
        case BLOB_FIELD_TYPE_BOOL:
            p[0] = Truth<Tok>(v) ? 1 : 0;
            return true;
        case BLOB_FIELD_TYPE_INT8:
            StoreAt<int8_t>(p, as(int8_t{}));
            return true;
        case BLOB_FIELD_TYPE_INT16:
            StoreAt<int16_t>(p, as(int16_t{}));
            return true;
        case BLOB_FIELD_TYPE_INT32:
            StoreAt<int32_t>(p, as(int32_t{}));
            return true;
        case BLOB_FIELD_TYPE_INT64:
            StoreAt<int64_t>(p, as(int64_t{}));
            return true;
        case BLOB_FIELD_TYPE_UINT8:
            StoreAt<uint8_t>(p, as(uint8_t{}));
            return true;
        case BLOB_FIELD_TYPE_UINT16:
            StoreAt<uint16_t>(p, as(uint16_t{}));
            return true;
        case BLOB_FIELD_TYPE_UINT32:
            StoreAt<uint32_t>(p, as(uint32_t{}));
            return true;
        case BLOB_FIELD_TYPE_UINT64:
            StoreAt<uint64_t>(p, as(uint64_t{}));
            return true;
        case BLOB_FIELD_TYPE_FLOAT32:
            if constexpr (Tok::kind == TokenKind::Signed)
                StoreAt<float>(
                    p, static_cast<float>(static_cast<std::make_signed_t<typename Tok::type>>(v)));
            else
                StoreAt<float>(p, static_cast<float>(v));
            return true;
        case BLOB_FIELD_TYPE_FLOAT64:
            if constexpr (Tok::kind == TokenKind::Signed)
                StoreAt<double>(
                    p, static_cast<double>(static_cast<std::make_signed_t<typename Tok::type>>(v)));
            else
                StoreAt<double>(p, static_cast<double>(v));
            return true;
        default:
            return false;
    }
}

// Parses text into the caller's type as a read from a STRING or UTF16 field does: 32-bit
// parses for the small integer types, 64-bit ones for I64 and U64. False when no digit was
// used (the value is then 0).
template <typename Tok>
inline bool ParseInto(const char* s, typename Tok::type* out) noexcept {
    bool used = false;
    if constexpr (Tok::kind == TokenKind::Float) {
        *out = static_cast<typename Tok::type>(ParseDouble(s, &used));
    } else if constexpr (Tok::kind == TokenKind::Signed) {
        if constexpr (Tok::bits == 64)
            *out = ParseInt64(s, &used);
        else
            *out = static_cast<typename Tok::type>(ParseLong32(s, &used));
    } else {
        if constexpr (Tok::bits == 64)
            *out = ParseUInt64(s, &used);
        else
            *out = static_cast<typename Tok::type>(ParseULong32(s, &used));
    }
    return used;
}

// ---- formatting ----

// The text a SetX stores into a text field; returns the length. `out` has kNumberTextRoom.
template <typename Tok>
inline size_t ValueText(char* out, typename Tok::type v) noexcept {
    if constexpr (Tok::kind == TokenKind::Bool) {
        const char* t = v != 0 ? "TRUE" : "FALSE";
        const size_t n = std::strlen(t);
        std::memcpy(out, t, n);
        return n;
    } else if constexpr (Tok::kind == TokenKind::Float) {
        return FormatFloat(out, static_cast<double>(v), 10);
    } else if constexpr (Tok::kind == TokenKind::Signed || Tok::bits == 64) {
        // 64-bit values print signed, so large unsigned ones read back negative.
        return FormatSigned(
            out, static_cast<int64_t>(static_cast<std::make_signed_t<typename Tok::type>>(v)));
    } else {
        return FormatUnsigned(out, v);
    }
}

// ---- work areas ----

// Scratch room of N elements on the stack, or from the heap when more is asked for.
template <typename T, size_t N>
class WorkArea {
  public:
    explicit WorkArea(uint64_t count) noexcept
        : data_(count <= N
                    ? local_
                    : static_cast<T*>(count > SIZE_MAX / sizeof(T)
                                          ? nullptr
                                          : std::malloc(static_cast<size_t>(count) * sizeof(T)))) {}
    ~WorkArea() {
        if (data_ != local_) std::free(data_);
    }
    WorkArea(const WorkArea&) = delete;
    WorkArea& operator=(const WorkArea&) = delete;
    T* get() const noexcept { return data_; }

  private:
    T local_[N];
    T* data_;
};

// Widens bytes to UTF-16 units, each byte sign-extended; `n` bytes, no terminator added.
inline void WidenBytes(const char* text, uint64_t n, char16_t* out) noexcept {
    for (uint64_t i = 0; i < n; ++i)
        out[i] = static_cast<char16_t>(static_cast<int16_t>(static_cast<signed char>(text[i])));
}
// Length of a 16-bit text, at most `max` units.
inline uint64_t UnitsLength(const char16_t* s, uint64_t max) noexcept {
    uint64_t n = 0;
    while (n < max && s[n] != 0)
        ++n;
    return n;
}

// ---- the frame of every call ----

// By number: null handle or a failed argument check 2, then the lock (shared or exclusive),
// index not below the field count 4, then `fn(index)`.
template <bool Write, typename Fn>
inline blob_status AtIndex(const _BLOB_INFO* blob, uint64_t index, bool argsOk, Fn&& fn) {
    if (blob == nullptr || !argsOk) return BLOB_STATUS_INVALID_PARAMETER;
    if constexpr (Write) {
        BlobWriteGuard guard(blob);
        if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
        return fn(index);
    } else {
        BlobReadGuard guard(blob);
        if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
        return fn(index);
    }
}
// By name: null handle 2, then the lock, null name or no match 4, a failed argument check 2,
// then `fn(index)` with the first field of that name.
template <bool Write, typename Fn>
inline blob_status AtName(const _BLOB_INFO* blob, const char* name, bool argsOk, Fn&& fn) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    auto body = [&]() {
        uint64_t index = 0;
        if (!FindField(blob, name, &index)) return BLOB_STATUS_ITEM_NOT_FOUND;
        if (!argsOk) return BLOB_STATUS_INVALID_PARAMETER;
        return fn(index);
    };
    if constexpr (Write) {
        BlobWriteGuard guard(blob);
        return body();
    } else {
        BlobReadGuard guard(blob);
        return body();
    }
}

// True when `p` points into the blob's buffer, so that storing from it needs a copy first.
inline bool InBuffer(const _BLOB_INFO* blob, const void* p) noexcept {
    const auto a = reinterpret_cast<uintptr_t>(p);
    const auto b = reinterpret_cast<uintptr_t>(blob->buffer);
    return a >= b && a - b < blob->bufferCapacity;
}

// ---- stores on an existing field, without locking (callers hold the write lock) ----

// SetStr: the text (at most maxLength bytes) into any field, converted by its type.
blob_status StoreText(_BLOB_INFO* blob, uint64_t index, const char* text,
                      uint64_t maxLength) noexcept;
// SetUTF16: the units (at most maxLength) into any field, narrowed for non-UTF16 fields.
blob_status StoreUnits(_BLOB_INFO* blob, uint64_t index, const char16_t* text,
                       uint64_t maxLength) noexcept;

}  // namespace TOLVEN::detail
