#include <cstdarg>
#include <cstdio>

#include "platform/process.h"
#include "tolven/osutils.h"
#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

// The installed handler and its context, guarded by their lock. Null stands for the default
// handler, so that callers never need its address: on Windows a program's address of a
// library function is that of its import stub, which no pointer from the library equals.
struct HandlerSlot {
    QuickLock lock;
    ReleaseAssertHandler handler = nullptr;
    void* context = nullptr;
};

HandlerSlot& Slot() {
    static HandlerSlot slot;
    return slot;
}

}  // namespace

ReleaseAssertHandler SetReleaseAssertHandler(ReleaseAssertHandler handler, void* context,
                                             void** previousContext) {
    HandlerSlot& slot = Slot();
    QuickLockGuard guard(slot.lock);
    const ReleaseAssertHandler previous = slot.handler;
    if (previousContext != nullptr) *previousContext = slot.context;
    slot.handler = handler;
    slot.context = handler != nullptr ? context : nullptr;
    return previous;
}

release_assert_action DefaultReleaseAssertHandler(const char* text, void*) {
    // With nobody to ask, a failed release assertion ends the process.
    if (!platform::StdinIsTerminal()) return release_assert_abort;
    std::fprintf(stderr, "Release Assert\n%s", text != nullptr ? text : "");
    for (;;) {
        std::fputs("Abort, Retry or Ignore? [a/r/i] ", stderr);
        std::fflush(stderr);
        char answer[64];
        if (std::fgets(answer, sizeof answer, stdin) == nullptr) return release_assert_abort;
        switch (answer[0]) {
            case 'a':
            case 'A':
                return release_assert_abort;
            case 'r':
            case 'R':
                return release_assert_retry;
            case 'i':
            case 'I':
                return release_assert_ignore;
            default:
                break;
        }
    }
}

int _CSReleaseAssert(const char* file, int line, const char* module, const char* format, ...) {
    char message[2047];
    message[0] = '\0';
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(message, sizeof message, format, args);
        va_end(args);
    }
    // The record is cut at the buffer's end by design; the length is not needed.
    char text[2048];
    if (std::snprintf(text, sizeof text, "PID=%u File=%s Line=%i Module=%s\nText=%s\n",
                      static_cast<unsigned>(platform::CurrentProcessId()),
                      file != nullptr ? file : "", line, module != nullptr ? module : "",
                      message) < 0)
        text[0] = '\0';

    // An application name that cannot be had leaves the file name "_assert.txt".
    char application[260];
    (void)OS::GetApplicationName(application, sizeof application);
    char fileName[280];
    std::snprintf(fileName, sizeof fileName, "%s_assert.txt", application);
    // Binary, so that the record holds the same bytes on every platform: text mode would
    // write each "\n" as "\r\n" on Windows.
    if (std::FILE* out = std::fopen(fileName, "a+b")) {
        std::fputs(text, out);
        std::fclose(out);
    }

    ReleaseAssertHandler handler;
    void* context;
    {
        HandlerSlot& slot = Slot();
        QuickLockGuard guard(slot.lock);
        handler = slot.handler;
        context = slot.context;
    }
    if (handler == nullptr) handler = &DefaultReleaseAssertHandler;
    switch (handler(text, context)) {
        case release_assert_retry:
            return 1;
        case release_assert_ignore:
            return 0;
        case release_assert_abort:
        default:
            platform::FatalExitProcess(-1);
    }
}

}  // namespace TOLVEN
