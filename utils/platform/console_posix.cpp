#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/console.h"

namespace TOLVEN::platform {

bool OpenConsoleOutput(ConsoleOutput* out) noexcept {
    errno = 0;
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    // EBADF: no standard output at all; anything else is a file or a pipe.
    if (!terminal && errno == EBADF) return false;
    out->terminal = terminal;
    out->attributes = 0;
    return true;
}

bool WriteConsoleText(const ConsoleOutput& console, const char* text, size_t length,
                      uint32_t colour) noexcept {
    static const char* const kColours[] = {nullptr, "\x1b[91m", "\x1b[92m", "\x1b[93m"};
    static const char kReset[] = "\x1b[0m";
    const bool coloured = console.terminal && colour >= 1 && colour <= 3;
    // One gathered write, so that the colour, the text and the reset stay together.
    iovec parts[3];
    int count = 0;
    size_t total = 0;
    auto add = [&](const char* p, size_t n) {
        parts[count].iov_base = const_cast<char*>(p);
        parts[count].iov_len = n;
        ++count;
        total += n;
    };
    if (coloured) add(kColours[colour], std::strlen(kColours[colour]));
    add(text, length);
    if (coloured) add(kReset, sizeof kReset - 1);
    size_t written = 0;
    int first = 0;
    while (written < total) {
        const ssize_t n = ::writev(STDOUT_FILENO, parts + first, count - first);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        written += static_cast<size_t>(n);
        // Skip what went out, for a write that stopped part-way.
        size_t done = static_cast<size_t>(n);
        while (first < count && done >= parts[first].iov_len) {
            done -= parts[first].iov_len;
            ++first;
        }
        if (first < count) {
            parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + done;
            parts[first].iov_len -= done;
        }
    }
    return true;
}

}  // namespace TOLVEN::platform
