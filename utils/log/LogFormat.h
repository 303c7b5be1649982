// The bounded printf-style formatter of log messages.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace TOLVEN::detail {

// Formats like vsnprintf: writes at most `capacity` - 1 characters and a NUL (when
// `capacity` is not 0) and returns the length the whole text would have, or a negative
// number on an encoding error. Integers, characters and strings are converted here, which
// is several times faster than the C library; floating point and the rare conversions go
// to the C library one at a time, and anything this code does not recognise (positional
// arguments, a cut-off directive) sends the whole format to vsnprintf. "%n" writes
// nothing. Besides the standard length modifiers, "I64", "I32" and "I" are understood.
// Safe for concurrent use: it keeps no state.
int FormatText(char* out, size_t capacity, const char* format, va_list args);

}  // namespace TOLVEN::detail
