#include <io.h>

#include <cstdio>

#include "platform/console.h"
#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

// Standard output as the C runtime has it now (it follows a redirection of descriptor 1),
// else the process's standard handle.
HANDLE StdOut() {
    const int fd = ::_fileno(stdout);  // negative in a process without a console
    HANDLE handle = fd >= 0 ? reinterpret_cast<HANDLE>(::_get_osfhandle(fd)) : nullptr;
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr)
        handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
    return handle == INVALID_HANDLE_VALUE ? nullptr : handle;
}

// Writes through WriteConsoleA on a console and WriteFile elsewhere (a file or a pipe).
bool WriteAll(HANDLE handle, bool console, const char* text, size_t length) {
    while (length > 0) {
        const DWORD chunk = length > 0x10000 ? 0x10000 : static_cast<DWORD>(length);
        DWORD written = 0;
        const BOOL ok = console ? ::WriteConsoleA(handle, text, chunk, &written, nullptr)
                                : ::WriteFile(handle, text, chunk, &written, nullptr);
        if (!ok || written == 0) return false;
        text += written;
        length -= written;
    }
    return true;
}

}  // namespace

bool OpenConsoleOutput(ConsoleOutput* out) noexcept {
    const HANDLE handle = StdOut();
    if (handle == nullptr) return false;
    CONSOLE_SCREEN_BUFFER_INFO info;
    out->terminal = ::GetConsoleScreenBufferInfo(handle, &info) != 0;
    out->attributes = out->terminal ? info.wAttributes : 0;
    return true;
}

bool WriteConsoleText(const ConsoleOutput& console, const char* text, size_t length,
                      uint32_t colour) noexcept {
    static const WORD kAttributes[] = {0, 12, 10, 14};
    const HANDLE handle = StdOut();
    if (handle == nullptr) return false;
    const bool coloured =
        console.terminal && colour >= 1 && colour <= 3 && kAttributes[colour] != console.attributes;
    if (coloured) (void)::SetConsoleTextAttribute(handle, kAttributes[colour]);
    const bool ok = WriteAll(handle, console.terminal, text, length);
    if (coloured) (void)::SetConsoleTextAttribute(handle, console.attributes);
    return ok;
}

}  // namespace TOLVEN::platform
