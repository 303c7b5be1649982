// The process's standard output as a console, with colours where it is a terminal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TOLVEN::platform {

// What was found about standard output. Plain value; not thread-safe.
struct ConsoleOutput {
    bool terminal = false;    // a terminal or console window, which shows colours
    uint16_t attributes = 0;  // the console's own text attributes (Windows)
};

// Looks at standard output; false when the process has none.
bool OpenConsoleOutput(ConsoleOutput* out) noexcept;

// Writes `length` bytes of `text` to standard output. On a terminal, `colour` 1, 2 or 3
// (bright red, green, yellow) colours the text and the console's colours are put back
// after it; 0, or output that is no terminal, writes the bytes alone (ANSI sequences on
// POSIX terminals, text attributes on Windows consoles). True when every byte went out.
bool WriteConsoleText(const ConsoleOutput& console, const char* text, size_t length,
                      uint32_t colour) noexcept;

}  // namespace TOLVEN::platform
