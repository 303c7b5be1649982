// Text helpers of the service framework.
#pragma once

namespace TOLVEN::detail {

// True when `a` and `b` are equal ignoring ASCII case.
inline bool EqualNoCase(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        const char x = *a >= 'A' && *a <= 'Z' ? static_cast<char>(*a - 'A' + 'a') : *a;
        const char y = *b >= 'A' && *b <= 'Z' ? static_cast<char>(*b - 'A' + 'a') : *b;
        if (x != y) return false;
    }
    return *a == *b;
}

}  // namespace TOLVEN::detail
