// The console sinks: the plain console, the console that holds its lines during a prompt,
// and the silent debugger-output sink; and the console writer they share.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/console.h"
#include "tolven/logsinks.h"

namespace TOLVEN {
namespace {

console_color ColorOf(uint32_t level) {
    if (level == LOGGER_WARN) return CONSOLE_COLOR_YELLOW;
    if (level == LOGGER_ERROR) return CONSOLE_COLOR_RED;
    return CONSOLE_COLOR_DEFAULT;
}

// The fraction of a stamp: nine digits of nanoseconds, the first five of them kept.
void Fraction(const _blob_timestamp& t, char (&out)[16]) {
    (void)std::snprintf(out, sizeof out, "%.9i", static_cast<int>(t.nanoseconds));
    out[5] = '\0';
}

// Renders one console line into `buffer` (kLineSize bytes): the stamp, for WARN and ERROR
// the level's name when `named`, the text and a line end. An overflow keeps 4095 bytes.
uint32_t RenderLine(const _LOGGER_CB_DATA* d, bool named, char* buffer, size_t size) {
    char fraction[16];
    Fraction(d->timestamp, fraction);
    const _blob_timestamp& t = d->timestamp;
    int n;
    if (named && (d->level == LOGGER_WARN || d->level == LOGGER_ERROR)) {
        n = std::snprintf(buffer, size, "(%-2.2i:%-2.2i:%-2.2i.%s) %s: %s\r\n", t.hour, t.minute,
                          t.second, fraction, LoggerLevelName(d->level), d->text);
    } else {
        n = std::snprintf(buffer, size, "(%-2.2i:%-2.2i:%-2.2i.%s) %s\r\n", t.hour, t.minute,
                          t.second, fraction, d->text);
    }
    if (n < 0) {
        buffer[0] = '\0';
        return 0;
    }
    if (static_cast<size_t>(n) >= size) {
        buffer[size - 1] = '\0';
        return static_cast<uint32_t>(size - 1);
    }
    return static_cast<uint32_t>(n);
}

// Standard output as found by the first call that could look at it.
struct ConsoleState {
    QuickLock lock;
    bool open = false;
    platform::ConsoleOutput output;
};

ConsoleState& Console() {
    static ConsoleState* state = new ConsoleState;  // used from exit-time logging too
    return *state;
}

}  // namespace

bool WriteConsoleLine(const char* text, console_color color) {
    if (text == nullptr) return false;
    ConsoleState& c = Console();
    QuickLockGuard guard(c.lock);
    if (!c.open) {
        // A failure is tried again at the next call.
        if (!platform::OpenConsoleOutput(&c.output)) return false;
        c.open = true;
    }
    return platform::WriteConsoleText(c.output, text, std::strlen(text), color);
}

// ---- ConsoleLogger -------------------------------------------------------------------------

ConsoleLogger::ConsoleLogger(bool init) {
    if (init) (void)SinkEvents(true);
}

ConsoleLogger::~ConsoleLogger() {
    (void)SinkEvents(false);
}

void ConsoleLogger::OnItemLogged(_LOGGER_CB_DATA* const data) {
    char line[BufferedConsoleLogger::kLineSize];
    (void)RenderLine(data, false, line, sizeof line);
    (void)WriteConsoleLine(line, ColorOf(data->level));
}

// ---- BufferedConsoleLogger -----------------------------------------------------------------

BufferedConsoleLogger::BufferedConsoleLogger() : lines_(new Line[kCapacity]) {}

BufferedConsoleLogger::~BufferedConsoleLogger() {
    Stop();
    delete[] lines_;
}

void BufferedConsoleLogger::StartHolding() {
    QuickLockGuard guard(lock_);
    holding_ = true;
}

void BufferedConsoleLogger::FlushHeld() {
    QuickLockGuard guard(lock_);
    if (!holding_) return;
    if (first_ >= 0) {
        for (int i = first_;; i = (i + 1) % static_cast<int>(kCapacity)) {
            (void)WriteConsoleLine(lines_[i].text, static_cast<console_color>(lines_[i].color));
            if (i == last_) break;
        }
    }
    first_ = last_ = -1;
    holding_ = false;
}

void BufferedConsoleLogger::Stop() {
    (void)SinkEvents(false);
    QuickLockGuard guard(lock_);
    holding_ = false;
    first_ = last_ = -1;
}

void BufferedConsoleLogger::OnItemLogged(_LOGGER_CB_DATA* const data) {
    const console_color color = ColorOf(data->level);
    QuickLockGuard guard(lock_);
    if (!holding_) {
        char line[kLineSize];
        (void)RenderLine(data, true, line, sizeof line);
        (void)WriteConsoleLine(line, color);
        return;
    }
    // The next place in the ring; a full ring gives up its oldest line.
    if (last_ < 0) {
        first_ = last_ = 0;
    } else {
        last_ = (last_ + 1) % static_cast<int>(kCapacity);
        if (last_ == first_) first_ = (first_ + 1) % static_cast<int>(kCapacity);
    }
    Line& held = lines_[last_];
    held.level = data->level;
    held.color = color;
    held.length = RenderLine(data, true, held.text, sizeof held.text);
}

// ---- OdsLogger -----------------------------------------------------------------------------

OdsLogger::~OdsLogger() {
    (void)SinkEvents(false);
}

void OdsLogger::OnItemLogged(_LOGGER_CB_DATA* const data) {
    // The line is built as for the console; there is no debugger channel to hand it to.
    char line[BufferedConsoleLogger::kLineSize];
    (void)RenderLine(data, true, line, sizeof line);
}

}  // namespace TOLVEN
