#include "log/LogFormat.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

namespace TOLVEN::detail {
namespace {

// Output into a bounded buffer that keeps counting past its end.
class Sink {
  public:
    Sink(char* out, size_t capacity)
        : out_(out), capacity_(capacity), room_(capacity == 0 ? 0 : capacity - 1) {}

    void Put(const char* text, size_t n) {
        if (pos_ + n <= room_) {
            char* to = out_ + pos_;
            // Most pieces are a few bytes: fixed-size moves, overlapping where needed, beat
            // a call to the library for those.
            if (n >= 8 && n <= 16) {
                std::memcpy(to, text, 8);
                std::memcpy(to + n - 8, text + n - 8, 8);
            } else if (n >= 4 && n < 8) {
                std::memcpy(to, text, 4);
                std::memcpy(to + n - 4, text + n - 4, 4);
            } else if (n < 4) {
                if (n > 0) to[0] = text[0];
                if (n > 1) to[1] = text[1];
                if (n > 2) to[2] = text[2];
            } else {
                std::memcpy(to, text, n);
            }
        } else if (pos_ < room_) {
            std::memcpy(out_ + pos_, text, room_ - pos_);
        }
        pos_ += n;
    }
    void Put(char c) {
        if (pos_ < room_) out_[pos_] = c;
        ++pos_;
    }
    void Fill(char c, size_t n) {
        if (n == 0) return;
        if (pos_ < room_) {
            const size_t take = n < room_ - pos_ ? n : room_ - pos_;
            std::memset(out_ + pos_, c, take);
        }
        pos_ += n;
    }
    // Room left for a writer that adds its own NUL, and where it goes.
    char* Cursor() const { return pos_ < room_ ? out_ + pos_ : nullptr; }
    size_t Left() const { return pos_ < room_ ? room_ - pos_ + 1 : 0; }
    void Advance(size_t n) { pos_ += n; }
    void Terminate() {
        if (out_ != nullptr && capacity_ > 0) out_[pos_ < room_ ? pos_ : room_] = '\0';
    }
    size_t Length() const { return pos_; }

  private:
    char* out_;
    size_t capacity_;
    size_t room_;
    size_t pos_ = 0;
};

struct Directive {
    bool plain = true;  // no flag, width or precision
    bool left = false, plus = false, space = false, alt = false, zero = false;
    int width = 0;
    int precision = -1;
};

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes the decimal digits of `v` backwards from `end`; returns where they start.
char* Digits(uint32_t v, char* end) {
    char* p = end;
    while (v >= 100) {
        const unsigned pair = (v % 100) * 2;
        v /= 100;
        *--p = kDigitPairs[pair + 1];
        *--p = kDigitPairs[pair];
    }
    if (v >= 10) {
        *--p = kDigitPairs[v * 2 + 1];
        *--p = kDigitPairs[v * 2];
    } else {
        *--p = static_cast<char>('0' + v);
    }
    return p;
}

// Writes the digits of `v` in `base` backwards from `end`; returns where they start.
char* Digits(uint64_t v, unsigned base, bool upper, char* end) {
    char* p = end;
    if (base == 10) {
        while (v >= 100) {
            const unsigned pair = static_cast<unsigned>(v % 100) * 2;
            v /= 100;
            *--p = kDigitPairs[pair + 1];
            *--p = kDigitPairs[pair];
        }
        if (v >= 10) {
            const unsigned pair = static_cast<unsigned>(v) * 2;
            *--p = kDigitPairs[pair + 1];
            *--p = kDigitPairs[pair];
        } else {
            *--p = static_cast<char>('0' + v);
        }
        return p;
    }
    const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    const unsigned shift = base == 16 ? 4 : 3;
    do {
        *--p = set[v & (base - 1)];
        v >>= shift;
    } while (v != 0);
    return p;
}

void PutInteger(Sink& sink, const Directive& s, uint64_t magnitude, bool negative,
                char conversion) {
    if (s.plain && conversion != 'o' && conversion != 'x' && conversion != 'X') {
        // No flag, width or precision: the sign and the digits.
        char buffer[24];
        char* end = buffer + sizeof(buffer);
        char* digits = Digits(magnitude, 10, false, end);
        if (negative) *--digits = '-';
        sink.Put(digits, static_cast<size_t>(end - digits));
        return;
    }
    const bool isSigned = conversion == 'd' || conversion == 'i';
    const unsigned base = conversion == 'o'                          ? 8
                          : (conversion == 'x' || conversion == 'X') ? 16
                                                                     : 10;
    char buffer[32];
    char* end = buffer + sizeof(buffer);
    char* digits = end;
    if (!(magnitude == 0 && s.precision == 0))
        digits = Digits(magnitude, base, conversion == 'X', end);
    size_t count = static_cast<size_t>(end - digits);

    char sign = 0;
    if (isSigned) {
        if (negative)
            sign = '-';
        else if (s.plus)
            sign = '+';
        else if (s.space)
            sign = ' ';
    }
    const char* prefix = "";
    size_t prefixLength = 0;
    if (s.alt && base == 16 && magnitude != 0) {
        prefix = conversion == 'X' ? "0X" : "0x";
        prefixLength = 2;
    }
    size_t precisionZeros = s.precision > 0 && static_cast<size_t>(s.precision) > count
                                ? static_cast<size_t>(s.precision) - count
                                : 0;
    // "#o" makes sure that the text begins with a 0.
    if (s.alt && base == 8 && precisionZeros == 0 && (count == 0 || *digits != '0'))
        precisionZeros = 1;

    const size_t body = (sign != 0 ? 1 : 0) + prefixLength + precisionZeros + count;
    const size_t width = s.width > 0 ? static_cast<size_t>(s.width) : 0;
    const size_t pad = width > body ? width - body : 0;
    const bool zeroPad = s.zero && !s.left && s.precision < 0;
    if (!s.left && !zeroPad) sink.Fill(' ', pad);
    if (sign != 0) sink.Put(sign);
    sink.Put(prefix, prefixLength);
    if (zeroPad) sink.Fill('0', pad);
    sink.Fill('0', precisionZeros);
    sink.Put(digits, count);
    if (s.left) sink.Fill(' ', pad);
}

void PutText(Sink& sink, const Directive& s, const char* text, size_t length) {
    const size_t width = s.width > 0 ? static_cast<size_t>(s.width) : 0;
    const size_t pad = width > length ? width - length : 0;
    if (!s.left) sink.Fill(' ', pad);
    sink.Put(text, length);
    if (s.left) sink.Fill(' ', pad);
}

// Builds "%<flags><width>.<precision><length><conversion>" with the numbers resolved.
void BuildDirective(char* out, size_t room, const Directive& s, const char* length,
                    char conversion) {
    char flags[8];
    size_t f = 0;
    if (s.left) flags[f++] = '-';
    if (s.plus) flags[f++] = '+';
    if (s.space) flags[f++] = ' ';
    if (s.alt) flags[f++] = '#';
    if (s.zero) flags[f++] = '0';
    flags[f] = '\0';
    if (s.precision >= 0)
        std::snprintf(out, room, "%%%s%d.%d%s%c", flags, s.width, s.precision, length, conversion);
    else
        std::snprintf(out, room, "%%%s%d%s%c", flags, s.width, length, conversion);
}

// Formats one value through the C library, straight into the sink.
template <class T>
void PutThroughLibrary(Sink& sink, const Directive& s, const char* length, char conversion,
                       T value) {
    char directive[64];
    BuildDirective(directive, sizeof(directive), s, length, conversion);
    const int n = std::snprintf(sink.Cursor(), sink.Left(), directive, value);
    if (n > 0) sink.Advance(static_cast<size_t>(n));
}

enum class Length { none, hh, h, l, ll, j, z, t, L, i32, i64, iptr };

}  // namespace

int FormatText(char* out, size_t capacity, const char* format, va_list args) {
    va_list original;
    va_copy(original, args);
    Sink sink(out, capacity);
    const char* p = format;
    bool giveUp = false;
    while (*p != '\0' && !giveUp) {
        if (*p != '%') {
            const char* start = p;
            while (*p != '\0' && *p != '%')
                ++p;
            sink.Put(start, static_cast<size_t>(p - start));
            continue;
        }
        ++p;  // past '%'
        // The usual directives, without flags, width or precision, go straight out.
        if (*p == 'd' || *p == 'i') {
            const int v = va_arg(args, int);
            char buffer[16];
            char* end = buffer + sizeof(buffer);
            char* digits =
                Digits(v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v), end);
            if (v < 0) *--digits = '-';
            sink.Put(digits, static_cast<size_t>(end - digits));
            ++p;
            continue;
        }
        if (*p == 'u') {
            char buffer[16];
            char* end = buffer + sizeof(buffer);
            char* digits = Digits(va_arg(args, unsigned int), end);
            sink.Put(digits, static_cast<size_t>(end - digits));
            ++p;
            continue;
        }
        if (*p == 's') {
            const char* text = va_arg(args, const char*);
            if (text == nullptr) text = "(null)";
            sink.Put(text, std::strlen(text));
            ++p;
            continue;
        }
        Directive s;
        for (;; ++p) {
            if (*p == '-')
                s.left = true;
            else if (*p == '+')
                s.plus = true;
            else if (*p == ' ')
                s.space = true;
            else if (*p == '#')
                s.alt = true;
            else if (*p == '0')
                s.zero = true;
            else
                break;
        }
        if (*p == '*') {
            const int w = va_arg(args, int);
            if (w < 0) {
                s.left = true;
                s.width = w == INT_MIN ? INT_MAX : -w;
            } else {
                s.width = w;
            }
            ++p;
        } else {
            while (*p >= '0' && *p <= '9') {
                if (s.width > 100000000) {
                    giveUp = true;
                    break;
                }
                s.width = s.width * 10 + (*p++ - '0');
            }
        }
        if (*p == '$') giveUp = true;  // positional arguments
        if (*p == '.') {
            ++p;
            s.precision = 0;
            if (*p == '*') {
                const int pr = va_arg(args, int);
                s.precision = pr < 0 ? -1 : pr;
                ++p;
            } else {
                while (*p >= '0' && *p <= '9') {
                    if (s.precision > 100000000) {
                        giveUp = true;
                        break;
                    }
                    s.precision = s.precision * 10 + (*p++ - '0');
                }
            }
        }
        if (giveUp) break;
        s.plain =
            !(s.left || s.plus || s.space || s.alt || s.zero) && s.width == 0 && s.precision < 0;

        Length length = Length::none;
        switch (*p) {
            case 'h':
                if (p[1] == 'h') {
                    length = Length::hh;
                    p += 2;
                } else {
                    length = Length::h;
                    ++p;
                }
                break;
            case 'l':
                if (p[1] == 'l') {
                    length = Length::ll;
                    p += 2;
                } else {
                    length = Length::l;
                    ++p;
                }
                break;
            case 'q':
                length = Length::ll;
                ++p;
                break;
            case 'j':
                length = Length::j;
                ++p;
                break;
            case 'z':
                length = Length::z;
                ++p;
                break;
            case 't':
                length = Length::t;
                ++p;
                break;
            case 'L':
                length = Length::L;
                ++p;
                break;
            case 'I':
                if (p[1] == '6' && p[2] == '4') {
                    length = Length::i64;
                    p += 3;
                } else if (p[1] == '3' && p[2] == '2') {
                    length = Length::i32;
                    p += 3;
                } else {
                    length = Length::iptr;
                    ++p;
                }
                break;
            default:
                break;
        }

        const char conversion = *p;
        if (conversion == '\0') {
            giveUp = true;
            break;
        }
        ++p;
        switch (conversion) {
            case 'd':
            case 'i': {
                int64_t v;
                switch (length) {
                    case Length::hh:
                        v = static_cast<signed char>(va_arg(args, int));
                        break;
                    case Length::h:
                        v = static_cast<short>(va_arg(args, int));
                        break;
                    case Length::l:
                        v = va_arg(args, long);
                        break;
                    case Length::ll:
                    case Length::L:
                        v = va_arg(args, long long);
                        break;
                    case Length::j:
                        v = va_arg(args, intmax_t);
                        break;
                    case Length::z:
                    case Length::t:
                    case Length::iptr:
                        v = va_arg(args, ptrdiff_t);
                        break;
                    case Length::i64:
                        v = va_arg(args, int64_t);
                        break;
                    case Length::i32:
                    case Length::none:
                    default:
                        v = va_arg(args, int);
                        break;
                }
                const bool negative = v < 0;
                const uint64_t magnitude =
                    negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
                PutInteger(sink, s, magnitude, negative, conversion);
                break;
            }
            case 'u':
            case 'o':
            case 'x':
            case 'X': {
                uint64_t v;
                switch (length) {
                    case Length::hh:
                        v = static_cast<unsigned char>(va_arg(args, unsigned int));
                        break;
                    case Length::h:
                        v = static_cast<unsigned short>(va_arg(args, unsigned int));
                        break;
                    case Length::l:
                        v = va_arg(args, unsigned long);
                        break;
                    case Length::ll:
                    case Length::L:
                        v = va_arg(args, unsigned long long);
                        break;
                    case Length::j:
                        v = va_arg(args, uintmax_t);
                        break;
                    case Length::z:
                    case Length::t:
                    case Length::iptr:
                        v = va_arg(args, size_t);
                        break;
                    case Length::i64:
                        v = va_arg(args, uint64_t);
                        break;
                    case Length::i32:
                    case Length::none:
                    default:
                        v = va_arg(args, unsigned int);
                        break;
                }
                PutInteger(sink, s, v, false, conversion);
                break;
            }
            case 'c':
                if (length == Length::l) {
                    PutThroughLibrary(sink, s, "l", 'c',
                                      static_cast<wint_t>(va_arg(args, unsigned int)));
                } else {
                    const char c = static_cast<char>(va_arg(args, int));
                    PutText(sink, s, &c, 1);
                }
                break;
            case 's':
                if (length == Length::l) {
                    PutThroughLibrary(sink, s, "l", 's', va_arg(args, const wchar_t*));
                } else {
                    const char* text = va_arg(args, const char*);
                    if (text == nullptr) text = s.precision >= 0 && s.precision < 6 ? "" : "(null)";
                    size_t n;
                    if (s.precision >= 0) {
                        const void* nul = std::memchr(text, '\0', static_cast<size_t>(s.precision));
                        n = nul != nullptr
                                ? static_cast<size_t>(static_cast<const char*>(nul) - text)
                                : static_cast<size_t>(s.precision);
                    } else {
                        n = std::strlen(text);
                    }
                    PutText(sink, s, text, n);
                }
                break;
            case '%':
                sink.Put('%');
                break;
            case 'n':
                // Writing through the argument list is refused; the pointer is skipped.
                (void)va_arg(args, void*);
                break;
            case 'p':
                PutThroughLibrary(sink, s, "", 'p', va_arg(args, void*));
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (length == Length::L)
                    PutThroughLibrary(sink, s, "L", conversion, va_arg(args, long double));
                else
                    PutThroughLibrary(sink, s, "", conversion, va_arg(args, double));
                break;
            default:
                giveUp = true;
                break;
        }
    }
    int result;
    if (giveUp) {
        result = std::vsnprintf(out, capacity, format, original);
    } else {
        sink.Terminate();
        result = sink.Length() > static_cast<size_t>(INT_MAX) ? INT_MAX
                                                              : static_cast<int>(sink.Length());
    }
    va_end(original);
    return result;
}

}  // namespace TOLVEN::detail
