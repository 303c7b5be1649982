// Process-wide helpers: command line options, the application's name, tokenising, the
// release assertion and processor counts.
//
// The application name is the base name of the process's executable with no extension:
// GetModuleBaseNameA of the process less ".exe" on Windows, the last part of the path of
// /proc/self/exe on Linux (ELF executables carry no extension, so nothing is cut there).
#pragma once

#include <cstdint>

namespace TOLVEN {

// Reads one option from a word list that it eats as it goes. argv[0] is the current word
// and argc counts what is left the way main's argc counts the program name too: a word is
// read only while argc is at least 2, so the final word is never taken. *value is cleared.
// With `c` the word's second character: when "c:" occurs in `spec` the option takes a value,
// joined on ("-a1", one word consumed) or the next word ("-a 1", two consumed); otherwise
// when `c` occurs in `spec` the option is a flag (one word consumed). Gives the option
// character, or -1 when the word is not an option of `spec`. Works on its arguments alone.
int GetOpt(int& argc, char**& argv, const char* spec, const char** value);

namespace OS {

// Sets the name GetApplicationName gives, in a test application only (IsTestApplication);
// otherwise gives false and changes nothing. Null clears it. Not thread-safe: meant for
// start-up.
bool ForceApplicationName(const char* name);

// Copies the application name, cut to `size` (terminator included) and at a first ".exe"
// in any case. A forced name wins. Gives false, with an empty buffer, when the name cannot
// be had; false also for a null buffer or a size of 0.
bool GetApplicationName(char* buffer, uint64_t size);

// True when the process's executable name contains "unittest_", ignoring case.
bool IsTestApplication();

// Splits `text` at any of `delimiters` like the C library's strtok, with one state per
// thread; a null `text` continues the calling thread's current text.
char* strtok(char* text, const char* delimiters);

// The same with the caller's own `state`; a null `text` continues from *state. Gives null
// when no token is left, or when `delimiters` or `state` is null.
char* strtok_reentrant(char* text, const char* delimiters, char** state);

}  // namespace OS

// The outcomes of a release assertion.
enum release_assert_action : int32_t {
    release_assert_abort = 0,   // end the process at once
    release_assert_retry = 1,   // _CSReleaseAssert gives 1 so that the caller can break
    release_assert_ignore = 2,  // _CSReleaseAssert gives 0 and the program goes on
};

// Decides the outcome of one release assertion. `text` is the full text that was written to
// the assertion file. Called on the asserting thread.
using ReleaseAssertHandler = release_assert_action (*)(const char* text, void* context);

// Installs the handler that decides what a release assertion does; null installs the
// default. Gives the handler it replaces, null when that was the default, and, if
// `previousContext` is not null, its context; so passing back what it gave restores the
// earlier state. (A program cannot recognise the default by comparing with
// &DefaultReleaseAssertHandler: on Windows its address of a library function is not the
// library's.) Safe for concurrent use without external locking.
ReleaseAssertHandler SetReleaseAssertHandler(ReleaseAssertHandler handler, void* context,
                                             void** previousContext = nullptr);

// The default handler: aborts when standard input is not a terminal; otherwise shows the
// text on standard error and asks "Abort, Retry or Ignore? [a/r/i] " until it gets an answer
// (end of input aborts).
release_assert_action DefaultReleaseAssertHandler(const char* text, void* context);

// A release assertion. Formats the message (2047 bytes at most), appends
// "PID=%u File=%s Line=%i Module=%s\nText=%s\n" (cut to 2047 bytes) to "%s_assert.txt" (the
// application name) in the current directory, the same bytes on every platform ("\n" line
// ends on Windows too), then asks the handler: abort ends the process with exit code -1,
// retry gives 1, ignore gives 0.
int _CSReleaseAssert(const char* file, int line, const char* module, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

// The number of logical processors of the machine.
unsigned int CPUID_GetProcessorCount();

// The number of processors in the process's affinity mask; the machine's count when the
// mask cannot be had or is empty.
unsigned int CPUID_GetAvailableProcessorCount();

// True when the processor's vendor text is Intel's (cpuid leaf 0, ECX "ntel"). The feature
// bit itself is not read; false on processors without cpuid.
bool CPUID_IsSupported_cmpxchg16b();

}  // namespace TOLVEN
