// The conversions of typed field access between text and numbers: parsers with the C
// runtime's overflow behaviour and formatters, both independent of the process locale, the
// narrowing and widening of UTF-16 text, and the text form of every field type.
#include <charconv>
#include <cmath>

#include "blob/blob_convert.h"
#include "blob/blob_internal.h"
#include "tolven/blobtime.h"

namespace TOLVEN::detail {

namespace {

inline bool IsSpace(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
inline bool IsDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}
inline char Fold(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

// The parts of a decimal integer: white space, sign, digits. `overflow` when the magnitude
// passed 64 bits; the digits are consumed all the same, as the runtime does.
struct Scanned {
    uint64_t magnitude = 0;
    bool negative = false;
    bool overflow = false;
    bool used = false;
};
Scanned ScanDecimal(const char* s) noexcept {
    Scanned r;
    while (IsSpace(*s))
        ++s;
    if (*s == '+' || *s == '-') r.negative = *s++ == '-';
    for (; IsDigit(*s); ++s) {
        r.used = true;
        const uint64_t d = static_cast<uint64_t>(*s - '0');
        if (r.magnitude > (UINT64_MAX - d) / 10)
            r.overflow = true;
        else
            r.magnitude = r.magnitude * 10 + d;
    }
    return r;
}

// The decimal exponent of the number a float text starts with: positive means the value is
// at least 1. Used only to tell overflow from underflow.
int64_t DecimalMagnitude(const char* s) noexcept {
    while (*s == '0')
        ++s;
    int64_t digits = 0;
    while (IsDigit(*s)) {
        ++digits;
        ++s;
    }
    if (*s == '.') {
        ++s;
        if (digits == 0) {
            while (*s == '0') {
                --digits;
                ++s;
            }
        }
        while (IsDigit(*s))
            ++s;
    }
    if (*s == 'e' || *s == 'E') {
        bool used = false;
        const int64_t e = ParseInt64(s + 1, &used);
        if (used) digits = (e > 0 && digits > INT64_MAX - e) ? INT64_MAX : digits + e;
    }
    return digits;
}

}  // namespace

int32_t ParseLong32(const char* s, bool* used) noexcept {
    const Scanned r = ScanDecimal(s);
    *used = r.used;
    if (r.negative)
        return (r.overflow || r.magnitude > uint64_t{1} << 31)
                   ? INT32_MIN
                   : static_cast<int32_t>(-static_cast<int64_t>(r.magnitude));
    return (r.overflow || r.magnitude > INT32_MAX) ? INT32_MAX : static_cast<int32_t>(r.magnitude);
}

uint32_t ParseULong32(const char* s, bool* used) noexcept {
    const Scanned r = ScanDecimal(s);
    *used = r.used;
    if (r.overflow || r.magnitude > UINT32_MAX) return UINT32_MAX;
    const auto v = static_cast<uint32_t>(r.magnitude);
    return r.negative ? 0u - v : v;
}

int64_t ParseInt64(const char* s, bool* used) noexcept {
    const Scanned r = ScanDecimal(s);
    *used = r.used;
    if (r.negative)
        return (r.overflow || r.magnitude > uint64_t{1} << 63)
                   ? INT64_MIN
                   : static_cast<int64_t>(0 - r.magnitude);
    return (r.overflow || r.magnitude > INT64_MAX) ? INT64_MAX : static_cast<int64_t>(r.magnitude);
}

uint64_t ParseUInt64(const char* s, bool* used) noexcept {
    const Scanned r = ScanDecimal(s);
    *used = r.used;
    if (r.overflow) return UINT64_MAX;
    return r.negative ? 0 - r.magnitude : r.magnitude;
}

double ParseDouble(const char* s, bool* used) noexcept {
    *used = false;
    while (IsSpace(*s))
        ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    const char* end = s + std::strlen(s);
    double v = 0;
    std::from_chars_result r{};
    bool hex = s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (hex) {
        r = std::from_chars(s + 2, end, v, std::chars_format::hex);
        // "0x" without hexadecimal digits is the number 0 followed by text.
        if (r.ec == std::errc::invalid_argument) {
            *used = true;
            return negative ? -0.0 : 0.0;
        }
    } else {
        r = std::from_chars(s, end, v, std::chars_format::general);
        if (r.ec == std::errc::invalid_argument) return 0;
    }
    *used = true;
    if (r.ec == std::errc::result_out_of_range) {
        bool big;
        if (hex) {
            const char* p = s + 2;
            while (IsDigit(*p) || (Fold(*p) >= 'a' && Fold(*p) <= 'f') || *p == '.')
                ++p;
            big = !((*p == 'p' || *p == 'P') && p[1] == '-');
        } else {
            big = DecimalMagnitude(s) > 0;
        }
        v = big ? HUGE_VAL : 0.0;
    }
    return negative ? -v : v;
}

bool IsTrueText(const char* s, uint64_t n) noexcept {
    if (n == 1) return s[0] == '1';
    return n == 4 && Fold(s[0]) == 't' && Fold(s[1]) == 'r' && Fold(s[2]) == 'u' &&
           Fold(s[3]) == 'e';
}

size_t UnitsToAscii(const unsigned char* units, uint64_t maxUnits, char* out, size_t room,
                    bool skipSpace) noexcept {
    uint64_t i = 0;
    auto unit = [units](uint64_t k) noexcept {
        return static_cast<uint16_t>(units[2 * k] | (units[2 * k + 1] << 8));
    };
    if (skipSpace)
        while (i < maxUnits && unit(i) < 128 && IsSpace(static_cast<char>(unit(i))))
            ++i;
    size_t n = 0;
    for (; i < maxUnits && n + 1 < room; ++i) {
        const uint16_t u = unit(i);
        if (u == 0) break;
        out[n++] = u < 128 ? static_cast<char>(u) : '\x7F';
    }
    out[n] = 0;
    return n;
}

size_t FormatSigned(char* out, int64_t v) noexcept {
    return static_cast<size_t>(std::to_chars(out, out + 24, v).ptr - out);
}

size_t FormatUnsigned(char* out, uint64_t v) noexcept {
    return static_cast<size_t>(std::to_chars(out, out + 24, v).ptr - out);
}

size_t FormatFloat(char* out, double v, int decimals) noexcept {
    const auto r =
        std::to_chars(out, out + kNumberTextRoom - 1, v, std::chars_format::fixed, decimals);
    size_t n = static_cast<size_t>(r.ptr - out);
    if (std::memchr(out, '.', n) != nullptr) {
        while (n > 0 && out[n - 1] == '0')
            --n;
        if (n > 0 && out[n - 1] == '.') --n;
    }
    return n;
}

blob_status NarrowUnits(const void* text, uint64_t units, char* out, uint64_t room) noexcept {
    const auto* p = static_cast<const unsigned char*>(text);
    for (uint64_t i = 0; i < units; ++i) {
        if (p[2 * i + 1] != 0) {
            out[0] = 0;
            return BLOB_STATUS_CANNOT_CONVERT;
        }
    }
    const uint64_t n = units < room ? units : room - 1;
    for (uint64_t i = 0; i < n; ++i)
        out[i] = static_cast<char>(p[2 * i]);
    out[n] = 0;
    return n < units ? BLOB_STATUS_BUFFER_TOO_SMALL : BLOB_STATUS_SUCCESS;
}

namespace {

// Appends text to a caller's buffer of `size` (> 0) bytes; what does not fit is cut and
// remembered.
class TextOut {
  public:
    TextOut(char* buffer, uint64_t size) noexcept : buffer_(buffer), size_(size) {}
    void Put(const char* text, uint64_t n) noexcept {
        if (full_) return;
        if (n >= size_ - pos_) {
            n = size_ - 1 - pos_;
            full_ = true;
        }
        std::memcpy(buffer_ + pos_, text, static_cast<size_t>(n));
        pos_ += n;
    }
    // Terminates the text, and the buffer's last byte too, as callers expect.
    blob_status Finish() noexcept {
        buffer_[pos_] = 0;
        buffer_[size_ - 1] = 0;
        return full_ ? BLOB_STATUS_BUFFER_TOO_SMALL : BLOB_STATUS_SUCCESS;
    }

  private:
    char* buffer_;
    uint64_t size_;
    uint64_t pos_ = 0;
    bool full_ = false;
};

// The text of one number of scalar type 3-12 at `p` into `out` (kNumberTextRoom bytes).
size_t NumberText(const unsigned char* p, uint32_t type, char* out) noexcept {
    switch (type) {
        case BLOB_FIELD_TYPE_INT8:
            return FormatSigned(out, static_cast<int8_t>(p[0]));
        case BLOB_FIELD_TYPE_INT16:
            return FormatSigned(out, LoadAt<int16_t>(p));
        case BLOB_FIELD_TYPE_INT32:
            return FormatSigned(out, LoadAt<int32_t>(p));
        case BLOB_FIELD_TYPE_INT64:
            return FormatSigned(out, LoadAt<int64_t>(p));
        case BLOB_FIELD_TYPE_UINT8:
            return FormatUnsigned(out, p[0]);
        case BLOB_FIELD_TYPE_UINT16:
            return FormatUnsigned(out, LoadAt<uint16_t>(p));
        case BLOB_FIELD_TYPE_UINT32:
            return FormatUnsigned(out, LoadAt<uint32_t>(p));
        case BLOB_FIELD_TYPE_UINT64:
            return FormatUnsigned(out, LoadAt<uint64_t>(p));
        case BLOB_FIELD_TYPE_FLOAT32:
            return FormatFloat(out, LoadAt<float>(p), 5);
        case BLOB_FIELD_TYPE_FLOAT64:
            return FormatFloat(out, LoadAt<double>(p), 10);
        default:
            return 0;
    }
}

}  // namespace

blob_status FormatField(const FieldView& f, char* buffer, uint64_t size) noexcept {
    TextOut out(buffer, size);
    char number[kNumberTextRoom];
    switch (f.type) {
        case BLOB_FIELD_TYPE_STRING:
            out.Put(reinterpret_cast<const char*>(f.data),
                    TextLength(reinterpret_cast<const char*>(f.data), f.size));
            break;
        case BLOB_FIELD_TYPE_BOOL:
            if (f.data[0] != 0)
                out.Put("TRUE", 4);
            else
                out.Put("FALSE", 5);
            break;
        case BLOB_FIELD_TYPE_TIMESTAMP:
            return GetBlobTimeAsStr(buffer, size, LoadAt<_blob_timestamp>(f.data), false);
        case BLOB_FIELD_TYPE_UTF16:
            return NarrowUnits(f.data, FieldUnits(f.data, f.size), buffer, size);
        default:
            if (f.type >= BLOB_FIELD_TYPE_INT8 && f.type <= BLOB_FIELD_TYPE_FLOAT64) {
                out.Put(number, NumberText(f.data, f.type, number));
            } else if (IsNumericArrayType(f.type)) {
                const uint32_t count = LoadAt<uint32_t>(f.data);
                const uint32_t element = ArrayElementSize(f.type);
                const uint32_t scalar = ElementScalarType(f.type);
                for (uint32_t i = 0; i < count; ++i) {
                    if (i != 0) out.Put(",", 1);
                    out.Put(number, NumberText(f.data + 4 + uint64_t{i} * element, scalar, number));
                }
            } else {
                buffer[0] = 0;
                return BLOB_STATUS_UNHANDLED_TYPE;
            }
            break;
    }
    return out.Finish();
}

}  // namespace TOLVEN::detail
