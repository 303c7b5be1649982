// Fields from their text form: AddField with a text and a type. The parsers here are quick
// and do not validate; they are what the callers of this form (configuration and scripts)
// have always had.
#include "blob/blob_typed.h"

namespace TOLVEN {
namespace detail {
namespace {

// Decimal parse without validation: leading blanks and zeros are skipped, one '-' is taken
// when `signedForm`, and every further character counts as the digit (c - '0'), in 32 bits.
uint32_t QuickDecimal(const char* s, bool signedForm) noexcept {
    while (*s == ' ' || *s == '0')
        ++s;
    bool negative = false;
    if (signedForm && *s == '-') {
        negative = true;
        ++s;
    }
    uint32_t v = 0;
    for (; *s != 0; ++s)
        v = v * 10 + static_cast<uint32_t>(static_cast<unsigned char>(*s) - '0');
    return negative ? 0u - v : v;
}

// Float parse without exponents: digits before the point weighted by a table of powers of
// ten, at most 16 after it while they are not below '0'. A point at position 15 or later (or
// as long an integer part) goes to the full parser instead.
double QuickFloat(const char* s) noexcept {
    static constexpr double kUp[15] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6, 1e7,
                                       1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14};
    static constexpr double kDown[17] = {1e0,  1e-1,  1e-2,  1e-3,  1e-4,  1e-5,  1e-6,  1e-7, 1e-8,
                                         1e-9, 1e-10, 1e-11, 1e-12, 1e-13, 1e-14, 1e-15, 1e-16};
    const bool negative = s[0] == '-';
    const char* point = std::strchr(s, '.');
    const size_t intEnd = point != nullptr ? static_cast<size_t>(point - s) : std::strlen(s);
    if (intEnd >= 15) {
        bool used = false;
        return ParseDouble(s, &used);
    }
    double v = 0;
    for (size_t i = negative ? 1 : 0; i < intEnd; ++i)
        v += (static_cast<unsigned char>(s[i]) - 48) * kUp[intEnd - 1 - i];
    if (point != nullptr)
        for (size_t j = 1; j <= 16 && static_cast<signed char>(point[j]) >= '0'; ++j)
            v += (static_cast<unsigned char>(point[j]) - 48) * kDown[j];
    return negative ? -v : v;
}

// The value of one piece of text as the scalar of `type` (3-12) reads it.
template <typename Tok>
typename Tok::type ParsePiece(const char* s) noexcept {
    using C = typename Tok::type;
    bool used = false;
    if constexpr (Tok::kind == TokenKind::Float) {
        return static_cast<C>(QuickFloat(s));
    } else if constexpr (Tok::bits == 64) {
        if constexpr (Tok::kind == TokenKind::Signed)
            return ParseInt64(s, &used);
        else
            return ParseUInt64(s, &used);
    } else {
        return static_cast<C>(QuickDecimal(s, Tok::kind == TokenKind::Signed));
    }
}

// The exported AddXArray of each token.
template <typename Tok>
struct ArrayAdd;
#define TOLVEN_ARRAY_ADD(T, C)                                                      \
    template <>                                                                     \
    struct ArrayAdd<Tok##T> {                                                       \
        static blob_status Add(_BLOB_INFO* blob, const char* name, const C* values, \
                               uint64_t count) {                                    \
            return Add##T##Array(blob, name, values, count);                        \
        }                                                                           \
    };
TOLVEN_BLOB_ARRAY_TOKENS(TOLVEN_ARRAY_ADD)
#undef TOLVEN_ARRAY_ADD

inline bool IsBlank(char c) noexcept {
    return c == ' ' || c == '\t';
}

// A comma-separated list into an array field: empty pieces are skipped (as strtok does),
// each piece is trimmed of blanks on both sides and parsed as the element's scalar.
template <typename Tok>
blob_status AddList(_BLOB_INFO* blob, const char* name, const char* text) noexcept {
    const size_t length = std::strlen(text);
    WorkArea<char, 512> copy(length + 1);
    if (copy.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    char* s = copy.get();
    std::memcpy(s, text, length + 1);
    uint64_t pieces = 0;
    for (size_t i = 0; i < length; ++i)
        if (s[i] != ',' && (i == 0 || s[i - 1] == ',')) ++pieces;
    WorkArea<typename Tok::type, 64> values(pieces);
    if (values.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    uint64_t count = 0;
    for (char* p = s; *p != 0;) {
        if (*p == ',') {
            ++p;
            continue;
        }
        char* end = p;
        while (*end != 0 && *end != ',')
            ++end;
        const bool last = *end == 0;
        char* trimmedEnd = end;
        while (trimmedEnd > p && IsBlank(trimmedEnd[-1]))
            --trimmedEnd;
        *trimmedEnd = 0;
        while (IsBlank(*p))
            ++p;
        values.get()[count++] = ParsePiece<Tok>(p);
        if (last) break;
        p = end + 1;
    }
    return ArrayAdd<Tok>::Add(blob, name, values.get(), count);
}

inline char Fold(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

}  // namespace
}  // namespace detail

using namespace detail;

blob_status AddField(_BLOB_INFO* blob, const char* name, const char* text, blob_field_type type) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    const bool isNull = text == nullptr;
    if (isNull) text = "";
    switch (type) {
        case BLOB_FIELD_TYPE_STRING:
        case BLOB_FIELD_TYPE_BINARY:
        case BLOB_FIELD_TYPE_TIMESTAMP:
        case BLOB_FIELD_TYPE_UTF16:
            return AddStr(blob, name, text, UINT64_MAX);
        case BLOB_FIELD_TYPE_BOOL: {
            const size_t n = std::strlen(text);
            const bool t = IsTrueText(text, n) || (n == 1 && Fold(text[0]) == 't');
            return AddBOOL(blob, name, t ? 1 : 0);
        }
        case BLOB_FIELD_TYPE_INT8:
            return AddI8(blob, name, ParsePiece<TokI8>(text));
        case BLOB_FIELD_TYPE_INT16:
            return AddI16(blob, name, ParsePiece<TokI16>(text));
        case BLOB_FIELD_TYPE_INT32:
            return AddI32(blob, name, ParsePiece<TokI32>(text));
        case BLOB_FIELD_TYPE_INT64:
            return AddI64(blob, name, ParsePiece<TokI64>(text));
        case BLOB_FIELD_TYPE_UINT8:
            return AddU8(blob, name, ParsePiece<TokU8>(text));
        case BLOB_FIELD_TYPE_UINT16:
            return AddU16(blob, name, ParsePiece<TokU16>(text));
        case BLOB_FIELD_TYPE_UINT32:
            return AddU32(blob, name, ParsePiece<TokU32>(text));
        case BLOB_FIELD_TYPE_UINT64:
            return AddU64(blob, name, ParsePiece<TokU64>(text));
        case BLOB_FIELD_TYPE_FLOAT32:
            return AddF32(blob, name, ParsePiece<TokF32>(text));
        case BLOB_FIELD_TYPE_FLOAT64:
            return AddF64(blob, name, ParsePiece<TokF64>(text));
        case BLOB_FIELD_TYPE_INT8_ARRAY:
            return AddList<TokI8>(blob, name, text);
        case BLOB_FIELD_TYPE_INT16_ARRAY:
            return AddList<TokI16>(blob, name, text);
        case BLOB_FIELD_TYPE_INT32_ARRAY:
            return AddList<TokI32>(blob, name, text);
        case BLOB_FIELD_TYPE_INT64_ARRAY:
            return AddList<TokI64>(blob, name, text);
        case BLOB_FIELD_TYPE_UINT8_ARRAY:
            return AddList<TokU8>(blob, name, text);
        case BLOB_FIELD_TYPE_UINT16_ARRAY:
            return AddList<TokU16>(blob, name, text);
        case BLOB_FIELD_TYPE_UINT32_ARRAY:
            return AddList<TokU32>(blob, name, text);
        case BLOB_FIELD_TYPE_UINT64_ARRAY:
            return AddList<TokU64>(blob, name, text);
        case BLOB_FIELD_TYPE_FLOAT32_ARRAY:
            return AddList<TokF32>(blob, name, text);
        case BLOB_FIELD_TYPE_FLOAT64_ARRAY:
            return AddList<TokF64>(blob, name, text);
        default:
            return BLOB_STATUS_ITEM_NOT_FOUND;
    }
}

}  // namespace TOLVEN
