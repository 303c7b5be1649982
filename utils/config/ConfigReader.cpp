#include "tolven/configreader.h"

namespace TOLVEN {

namespace {

inline unsigned char FoldAscii(unsigned char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

// True if `word` occurs in `text`, ignoring ASCII case.
bool ContainsFolded(const char* text, const char* word) noexcept {
    for (const char* start = text; *start != '\0'; ++start) {
        const char* t = start;
        const char* w = word;
        while (*w != '\0' && *t != '\0' &&
               FoldAscii(static_cast<unsigned char>(*t)) ==
                   FoldAscii(static_cast<unsigned char>(*w))) {
            ++t;
            ++w;
        }
        if (*w == '\0') return true;
        if (*t == '\0') return false;
    }
    return false;
}

}  // namespace

ConfigReader::~ConfigReader() = default;

configreader_status ConfigReader::ReadBOOL(const char* section, const char* item, int* value) {
    if (value == nullptr) return configreader_invalid_parameter;
    bool local = false;
    const configreader_status status = ReadBool(section, item, &local);
    if (status == configreader_success) *value = local ? 1 : 0;
    return status;
}

configreader_status ConfigReader::WriteBOOL(const char* section, const char* item, int value) {
    // A strict sign test: negative values are written as false.
    return WriteBool(section, item, value > 0);
}

bool IsConfigFieldProtected(const char* name) {
    if (name == nullptr || name[0] == '\0') return false;
    return ContainsFolded(name, "Password") || ContainsFolded(name, "Pwd");
}

namespace detail {

int CompareConfigNames(const char* a, const char* b) noexcept {
    const auto* x = reinterpret_cast<const unsigned char*>(a);
    const auto* y = reinterpret_cast<const unsigned char*>(b);
    for (;; ++x, ++y) {
        const unsigned char cx = FoldAscii(*x);
        const unsigned char cy = FoldAscii(*y);
        if (cx != cy) return cx < cy ? -1 : 1;
        if (cx == '\0') return 0;
    }
}

bool ParseConfigUINT(const char* text, unsigned int* value) noexcept {
    unsigned int result = 0;
    bool used = false;
    if (text != nullptr) {
        const char* p = text;
        while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
            ++p;
        bool negative = false;
        if (*p == '+' || *p == '-') {
            negative = (*p == '-');
            ++p;
        }
        uint64_t number = 0;
        bool overflow = false;
        for (; *p >= '0' && *p <= '9'; ++p) {
            used = true;
            if (!overflow) {
                number = number * 10 + static_cast<uint64_t>(*p - '0');
                if (number > 0xFFFFFFFFull) overflow = true;
            }
        }
        if (used) {
            if (overflow) {
                result = 0xFFFFFFFFu;
            } else {
                result = static_cast<unsigned int>(number);
                if (negative) result = 0u - result;
            }
        }
    }
    if (value != nullptr) *value = result;
    return used;
}

}  // namespace detail

}  // namespace TOLVEN
