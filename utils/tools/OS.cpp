#include <cstring>
#include <string>

#include "platform/process.h"
#include "tolven/osutils.h"

namespace TOLVEN {
namespace {

// The forced application name; empty when none. Set at start-up, so not guarded.
char g_forcedName[260] = {};

thread_local char* t_strtokState = nullptr;

char FoldAscii(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// The position of the first occurrence of `word` in `text`, ignoring ASCII case; null if none.
char* FindFolded(char* text, const char* word) noexcept {
    const size_t n = std::strlen(word);
    for (char* start = text; *start != '\0'; ++start) {
        size_t i = 0;
        while (i < n && start[i] != '\0' && FoldAscii(start[i]) == FoldAscii(word[i]))
            ++i;
        if (i == n) return start;
    }
    return nullptr;
}

void CopyTruncated(const char* text, char* buffer, uint64_t size) noexcept {
    const size_t length = std::strlen(text);
    const size_t n =
        static_cast<uint64_t>(length) < size - 1 ? length : static_cast<size_t>(size - 1);
    std::memcpy(buffer, text, n);
    buffer[n] = '\0';
}

}  // namespace

namespace OS {

bool ForceApplicationName(const char* name) {
    if (!IsTestApplication()) return false;
    if (name == nullptr) {
        g_forcedName[0] = '\0';
    } else {
        CopyTruncated(name, g_forcedName, sizeof g_forcedName);
    }
    return true;
}

bool GetApplicationName(char* buffer, uint64_t size) {
    if (buffer == nullptr || size == 0) return false;
    if (g_forcedName[0] != '\0') {
        CopyTruncated(g_forcedName, buffer, size);
    } else {
        std::string name;
        if (!platform::GetOwnModuleBaseName(name)) {
            buffer[0] = '\0';
            return false;
        }
        CopyTruncated(name.c_str(), buffer, size);
    }
    if (char* extension = FindFolded(buffer, ".exe")) *extension = '\0';
    return true;
}

bool IsTestApplication() {
    std::string name;
    if (!platform::GetOwnModuleBaseName(name)) return false;
    return FindFolded(name.data(), "unittest_") != nullptr;
}

char* strtok(char* text, const char* delimiters) {
    return strtok_reentrant(text, delimiters, &t_strtokState);
}

char* strtok_reentrant(char* text, const char* delimiters, char** state) {
    if (delimiters == nullptr || state == nullptr) return nullptr;
    char* start = text != nullptr ? text : *state;
    if (start == nullptr) return nullptr;
    start += std::strspn(start, delimiters);
    if (*start == '\0') {
        *state = start;
        return nullptr;
    }
    char* end = start + std::strcspn(start, delimiters);
    if (*end != '\0') {
        *end = '\0';
        *state = end + 1;
    } else {
        *state = end;
    }
    return start;
}

}  // namespace OS

}  // namespace TOLVEN
