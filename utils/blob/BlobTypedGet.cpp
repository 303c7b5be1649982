// Typed reads of blob fields, by number and by name: scalars and arrays with conversion,
// text, UTF-16, binary, nested blobs, time stamps, and pointers into the buffer.
#include "blob/blob_typed.h"
#include "tolven/blobxml.h"

namespace TOLVEN {
namespace detail {
namespace {

// GetBOOL: the truth of numbers, "true" or "1" for text (other text leaves *out alone).
blob_status ReadBool(const FieldView& f, unsigned char* out) noexcept {
    switch (f.type) {
        case BLOB_FIELD_TYPE_BOOL:
        case BLOB_FIELD_TYPE_UINT8:
            *out = f.data[0] != 0;
            break;
        case BLOB_FIELD_TYPE_UINT16:
            *out = LoadAt<uint16_t>(f.data) != 0;
            break;
        case BLOB_FIELD_TYPE_UINT32:
            *out = LoadAt<uint32_t>(f.data) != 0;
            break;
        case BLOB_FIELD_TYPE_UINT64:
            *out = LoadAt<uint64_t>(f.data) != 0;
            break;
        case BLOB_FIELD_TYPE_INT8:
            *out = static_cast<int8_t>(f.data[0]) > 0;
            break;
        case BLOB_FIELD_TYPE_INT16:
            *out = LoadAt<int16_t>(f.data) > 0;
            break;
        case BLOB_FIELD_TYPE_INT32:
            *out = LoadAt<int32_t>(f.data) > 0;
            break;
        case BLOB_FIELD_TYPE_INT64:
            *out = LoadAt<int64_t>(f.data) > 0;
            break;
        case BLOB_FIELD_TYPE_FLOAT32:
            *out = LoadAt<float>(f.data) > 0;
            break;
        case BLOB_FIELD_TYPE_FLOAT64:
            *out = LoadAt<double>(f.data) > 0;
            break;
        case BLOB_FIELD_TYPE_STRING: {
            const auto* text = reinterpret_cast<const char*>(f.data);
            if (IsTrueText(text, TextLength(text, f.size))) *out = 1;
            break;
        }
        case BLOB_FIELD_TYPE_UTF16: {
            char ascii[8];
            const size_t n = UnitsToAscii(f.data, f.size / 2, ascii, sizeof ascii, false);
            if (IsTrueText(ascii, n)) *out = 1;
            break;
        }
        default:
            return BLOB_STATUS_UNHANDLED_TYPE;
    }
    return BLOB_STATUS_SUCCESS;
}

// GetX on a STRING or UTF16 field: the text parsed into the token's type.
template <typename Tok>
blob_status ReadScalarText(const FieldView& f, typename Tok::type* out) noexcept {
    if (f.type == BLOB_FIELD_TYPE_STRING)
        return ParseInto<Tok>(reinterpret_cast<const char*>(f.data), out)
                   ? BLOB_STATUS_SUCCESS
                   : BLOB_STATUS_CANNOT_CONVERT;
    if (f.type == BLOB_FIELD_TYPE_UTF16) {
        char ascii[kAsciiRoom];
        UnitsToAscii(f.data, f.size / 2, ascii, sizeof ascii, true);
        return ParseInto<Tok>(ascii, out) ? BLOB_STATUS_SUCCESS : BLOB_STATUS_CANNOT_CONVERT;
    }
    return BLOB_STATUS_UNHANDLED_TYPE;
}

// GetX: the field converted into the token's type. Numbers are converted here, in the
// caller's frame; text goes to the parsers.
template <typename Tok>
inline blob_status ReadScalar(const FieldView& f, typename Tok::type* out) noexcept {
    if constexpr (Tok::kind == TokenKind::Bool) {
        return ReadBool(f, out);
    } else {
        if (ConvertNumeric<Tok>(f.data, f.type, out)) return BLOB_STATUS_SUCCESS;
        return ReadScalarText<Tok>(f, out);
    }
}

// GetStr: a STRING field is copied here; the other types go to the formatter.
inline blob_status ReadText(const FieldView& f, char* buffer, uint64_t size) noexcept {
    if (f.type != BLOB_FIELD_TYPE_STRING) return FormatField(f, buffer, size);
    const void* nul = std::memchr(f.data, 0, f.size);
    const uint64_t n = nul != nullptr ? static_cast<const unsigned char*>(nul) - f.data : f.size;
    if (n < size) {
        std::memcpy(buffer, f.data, static_cast<size_t>(n));
        buffer[n] = 0;
        buffer[size - 1] = 0;
        return BLOB_STATUS_SUCCESS;
    }
    std::memcpy(buffer, f.data, static_cast<size_t>(size - 1));
    buffer[size - 1] = 0;
    return BLOB_STATUS_BUFFER_TOO_SMALL;
}

// Converts `count` elements of type S at `p` into the caller's type.
template <typename Tok, typename S>
void ConvertElements(const unsigned char* p, uint64_t count, typename Tok::type* out) noexcept {
    constexpr uint32_t kType =
        std::is_floating_point_v<S>
            ? (sizeof(S) == 4 ? BLOB_FIELD_TYPE_FLOAT32 : BLOB_FIELD_TYPE_FLOAT64)
        : std::is_signed_v<S> ? BLOB_FIELD_TYPE_INT8 + (sizeof(S) == 1   ? 0
                                                        : sizeof(S) == 2 ? 1
                                                        : sizeof(S) == 4 ? 2
                                                                         : 3)
                              : BLOB_FIELD_TYPE_UINT8 + (sizeof(S) == 1   ? 0
                                                         : sizeof(S) == 2 ? 1
                                                         : sizeof(S) == 4 ? 2
                                                                          : 3);
    for (uint64_t i = 0; i < count; ++i)
        (void)ConvertNumeric<Tok>(p + i * sizeof(S), kType, &out[i]);
}

// GetXArray: *count is the room in, the field's element count out.
template <typename Tok>
blob_status ReadArray(const FieldView& f, typename Tok::type* out, uint64_t* count) noexcept {
    if (!IsNumericArrayType(f.type)) return BLOB_STATUS_UNHANDLED_TYPE;
    const uint32_t n = LoadAt<uint32_t>(f.data);
    const uint64_t room = *count;
    *count = n;
    if (room < n) return BLOB_STATUS_BUFFER_TOO_SMALL;
    const unsigned char* p = f.data + 4;
    if (f.type == Tok::array) {
        std::memcpy(out, p, size_t{n} * sizeof(typename Tok::type));
        return BLOB_STATUS_SUCCESS;
    }
    switch (f.type) {
        case BLOB_FIELD_TYPE_INT8_ARRAY:
            ConvertElements<Tok, int8_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_INT16_ARRAY:
            ConvertElements<Tok, int16_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_INT32_ARRAY:
            ConvertElements<Tok, int32_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_INT64_ARRAY:
            ConvertElements<Tok, int64_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_UINT8_ARRAY:
            ConvertElements<Tok, uint8_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_UINT16_ARRAY:
            ConvertElements<Tok, uint16_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_UINT32_ARRAY:
            ConvertElements<Tok, uint32_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_UINT64_ARRAY:
            ConvertElements<Tok, uint64_t>(p, n, out);
            break;
        case BLOB_FIELD_TYPE_FLOAT32_ARRAY:
            ConvertElements<Tok, float>(p, n, out);
            break;
        default:
            ConvertElements<Tok, double>(p, n, out);
            break;
    }
    return BLOB_STATUS_SUCCESS;
}

// A pointer to the value of a field of exactly `type`; null and status 2 otherwise.
template <typename P>
blob_status PointTo(const FieldView& f, uint32_t type, P** out, uint32_t skip = 0) noexcept {
    if (f.type != type) {
        *out = nullptr;
        return BLOB_STATUS_INVALID_PARAMETER;
    }
    *out = reinterpret_cast<P*>(const_cast<unsigned char*>(f.data + skip));
    return BLOB_STATUS_SUCCESS;
}

// GetUTF16: a UTF16 field is copied, any other goes through GetStr and is widened.
blob_status ReadUnits(const FieldView& f, char16_t* buffer, uint64_t size) noexcept {
    if (f.type == BLOB_FIELD_TYPE_UTF16) {
        uint64_t n = FieldUnits(f.data, f.size);
        if (n > size - 1) n = size - 1;
        std::memcpy(buffer, f.data, static_cast<size_t>(n * 2));
        buffer[n] = 0;
        return BLOB_STATUS_SUCCESS;
    }
    WorkArea<char, 8000> work(size);
    if (work.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    const blob_status s = FormatField(f, work.get(), size);
    if (s != BLOB_STATUS_SUCCESS) {
        buffer[0] = 0;
        return s;
    }
    WidenBytes(work.get(), std::strlen(work.get()) + 1, buffer);
    return BLOB_STATUS_SUCCESS;
}

// GetBinary: copies when the room holds the bytes, else tells the count needed.
blob_status ReadBinary(const FieldView& f, unsigned char* buffer, uint64_t* size) noexcept {
    if (f.type != BLOB_FIELD_TYPE_BINARY) return BLOB_STATUS_INVALID_PARAMETER;
    const uint32_t n = LoadAt<uint32_t>(f.data);
    if (*size < n) {
        *size = n;
        return BLOB_STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, f.data + 4, n);
    return BLOB_STATUS_SUCCESS;
}

// GetBlob: an owned copy of a nested blob, or the blob a STRING field holds in XML form.
blob_status ReadBlob(const FieldView& f, _BLOB_INFO** out) noexcept {
    if (f.type == BLOB_FIELD_TYPE_STRING) {
        const auto* text = reinterpret_cast<const char*>(f.data);
        return BlobFromXml(text, TextLength(text, f.size), out, BLOBXML_DEFAULT) ==
                       BLOB_STATUS_SUCCESS
                   ? BLOB_STATUS_SUCCESS
                   : BLOB_STATUS_UNHANDLED_TYPE;
    }
    if (f.type != BLOB_FIELD_TYPE_BLOB) return BLOB_STATUS_UNHANDLED_TYPE;
    return CreateBlob(out, f.data, UINT64_MAX, true, BLOB_CREATE_DEFAULT);
}

// GetTimeStamp: a TIMESTAMP field, or STRING and UTF16 text parsed as a time.
blob_status ReadTimeStamp(const FieldView& f, _blob_timestamp* out) noexcept {
    _blob_timestamp t{};
    if (f.type == BLOB_FIELD_TYPE_TIMESTAMP) {
        std::memcpy(out, f.data, sizeof *out);
        return BLOB_STATUS_SUCCESS;
    }
    if (f.type == BLOB_FIELD_TYPE_STRING) {
        if (ConvertStringToTime(reinterpret_cast<const char*>(f.data), &t, nullptr) != 1)
            return BLOB_STATUS_INVALID_PARAMETER;
    } else if (f.type == BLOB_FIELD_TYPE_UTF16) {
        const uint64_t units = FieldUnits(f.data, f.size);
        WorkArea<char, 8000> work(units + 1);
        if (work.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        if (NarrowUnits(f.data, units, work.get(), units + 1) != BLOB_STATUS_SUCCESS)
            return BLOB_STATUS_CANNOT_CONVERT;
        if (ConvertStringToTime(work.get(), &t, nullptr) != 1) return BLOB_STATUS_INVALID_PARAMETER;
    } else {
        return BLOB_STATUS_INVALID_PARAMETER;
    }
    *out = t;
    return BLOB_STATUS_SUCCESS;
}

}  // namespace
}  // namespace detail

using namespace detail;

// Each family is written once: `Read(f)` is the read of one field, `ok` the argument check.
#define TOLVEN_READ_PAIR(Number, ByName, Out, ok, ...)                                   \
    blob_status Number(const _BLOB_INFO* blob, uint64_t index, Out) {                    \
        return AtIndex<false>(blob, index, ok,                                           \
                              [&](uint64_t i) { return __VA_ARGS__(ViewOf(blob, i)); }); \
    }                                                                                    \
    blob_status ByName(const _BLOB_INFO* blob, const char* name, Out) {                  \
        return AtName<false>(blob, name, ok,                                             \
                             [&](uint64_t i) { return __VA_ARGS__(ViewOf(blob, i)); });  \
    }

#define TOLVEN_DEFINE_SCALAR_READS(T, C)                                               \
    TOLVEN_READ_PAIR(detail::Get##T##Full, GetByName##T, C* out, out != nullptr,       \
                     [out](const FieldView& f) { return ReadScalar<Tok##T>(f, out); }) \
    TOLVEN_READ_PAIR(GetPtr##T, GetPtrByName##T, C** out, out != nullptr,              \
                     [out](const FieldView& f) { return PointTo(f, Tok##T::field, out); })
TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_DEFINE_SCALAR_READS)
#undef TOLVEN_DEFINE_SCALAR_READS

#define TOLVEN_DEFINE_ARRAY_READS(T, C)                                                        \
    TOLVEN_READ_PAIR(Get##T##Array, GetByName##T##Array, C* out TOLVEN_COMMA uint64_t* count,  \
                     out != nullptr && count != nullptr, [out, count](const FieldView& f) {    \
                         return ReadArray<Tok##T>(f, out, count);                              \
                     })                                                                        \
    TOLVEN_READ_PAIR(GetPtr##T##Array, GetPtrByName##T##Array,                                 \
                     C** out TOLVEN_COMMA uint64_t* count, out != nullptr && count != nullptr, \
                     [out, count](const FieldView& f) {                                        \
                         const blob_status s = PointTo(f, Tok##T::array, out, 4);              \
                         if (s == BLOB_STATUS_SUCCESS) *count = LoadAt<uint32_t>(f.data);      \
                         return s;                                                             \
                     })
#define TOLVEN_COMMA ,
TOLVEN_BLOB_ARRAY_TOKENS(TOLVEN_DEFINE_ARRAY_READS)
#undef TOLVEN_DEFINE_ARRAY_READS

blob_status GetBOOL(const _BLOB_INFO* blob, uint64_t index, int* out) {
    unsigned char value = 0;
    const blob_status s = GetBOOL(blob, index, out != nullptr ? &value : nullptr);
    if (out != nullptr) *out = value > 0;
    return s;
}

blob_status GetByNameBOOL(const _BLOB_INFO* blob, const char* name, int* out) {
    unsigned char value = 0;
    const blob_status s = GetByNameBOOL(blob, name, out != nullptr ? &value : nullptr);
    if (out != nullptr) *out = value > 0;
    return s;
}

TOLVEN_READ_PAIR(detail::GetStrFull, GetByNameStr, char* buffer TOLVEN_COMMA uint64_t size,
                 buffer != nullptr && size != 0,
                 [buffer, size](const FieldView& f) { return ReadText(f, buffer, size); })
TOLVEN_READ_PAIR(GetPtrStr, GetPtrByNameStr, const char** out, out != nullptr,
                 [out](const FieldView& f) { return PointTo(f, BLOB_FIELD_TYPE_STRING, out); })
TOLVEN_READ_PAIR(GetUTF16, GetByNameUTF16, char16_t* buffer TOLVEN_COMMA uint64_t size,
                 buffer != nullptr && size != 0,
                 [buffer, size](const FieldView& f) { return ReadUnits(f, buffer, size); })
TOLVEN_READ_PAIR(GetPtrUTF16, GetPtrByNameUTF16, const char16_t** out, out != nullptr,
                 [out](const FieldView& f) { return PointTo(f, BLOB_FIELD_TYPE_UTF16, out); })
TOLVEN_READ_PAIR(GetBinary, GetByNameBinary, unsigned char* buffer TOLVEN_COMMA uint64_t* size,
                 buffer != nullptr && size != nullptr,
                 [buffer, size](const FieldView& f) { return ReadBinary(f, buffer, size); })
TOLVEN_READ_PAIR(GetPtrBinary, GetPtrByNameBinary, unsigned char** out TOLVEN_COMMA uint64_t* size,
                 out != nullptr && size != nullptr, [out, size](const FieldView& f) {
                     const blob_status s = PointTo(f, BLOB_FIELD_TYPE_BINARY, out, 4);
                     if (s == BLOB_STATUS_SUCCESS) *size = LoadAt<uint32_t>(f.data);
                     return s;
                 })
TOLVEN_READ_PAIR(GetBlob, GetByNameBlob, _BLOB_INFO** out, out != nullptr,
                 [out](const FieldView& f) { return ReadBlob(f, out); })
TOLVEN_READ_PAIR(GetTimeStamp, GetByNameTimeStamp, _blob_timestamp* out, out != nullptr,
                 [out](const FieldView& f) { return ReadTimeStamp(f, out); })
TOLVEN_READ_PAIR(GetPtrTimeStamp, GetPtrByNameTimeStamp, _blob_timestamp** out, out != nullptr,
                 [out](const FieldView& f) { return PointTo(f, BLOB_FIELD_TYPE_TIMESTAMP, out); })
#undef TOLVEN_COMMA
#undef TOLVEN_READ_PAIR

// ---- reads from serialised bytes ----

namespace {
blob_status FindView(const unsigned char* bytes, uint64_t length, const char* name,
                     FieldView* f) noexcept {
    BlobFieldEntry e{};
    const blob_status s = FindInBuffer(bytes, length, name, &e);
    if (s == BLOB_STATUS_SUCCESS)
        *f = FieldView{bytes + e.dataOffset, e.dataSize, bytes[e.headerOffset] & 0x7Fu};
    return s;
}
}  // namespace

blob_status GetByNameStr(const unsigned char* bytes, uint64_t length, const char* name,
                         char* buffer, uint64_t size) {
    FieldView f{};
    const blob_status s = FindView(bytes, length, name, &f);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if (buffer == nullptr || size == 0) return BLOB_STATUS_INVALID_PARAMETER;
    return FormatField(f, buffer, size);
}

blob_status GetByNameU32(const unsigned char* bytes, uint64_t length, const char* name,
                         uint32_t* out) {
    FieldView f{};
    const blob_status s = FindView(bytes, length, name, &f);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (f.type > BLOB_FIELD_TYPE_FLOAT64) return BLOB_STATUS_UNHANDLED_TYPE;
    return ReadScalar<TokU32>(f, out);
}

blob_status GetPtrByNameStr(const unsigned char* bytes, uint64_t length, const char* name,
                            const char** out) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    FieldView f{};
    const blob_status s = FindView(bytes, length, name, &f);
    if (s != BLOB_STATUS_SUCCESS) return s;
    return PointTo(f, BLOB_FIELD_TYPE_STRING, out);
}

}  // namespace TOLVEN
