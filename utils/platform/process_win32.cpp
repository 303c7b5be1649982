#include "platform/process.h"

#include "platform/win32_api.h"
#include <psapi.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(_MSC_VER)
#include <intrin.h>
#elif defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace TOLVEN::platform {
namespace {

int Anchor() {
    return 0;
}

// True if `text` contains `word`, ignoring ASCII case.
bool ContainsFolded(const std::string& text, const char* word) {
    const size_t n = std::strlen(word);
    if (text.size() < n) return false;
    for (size_t i = 0; i + n <= text.size(); ++i) {
        if (_strnicmp(text.c_str() + i, word, n) == 0) return true;
    }
    return false;
}

// Appends `argument` to a command line, quoted so that the C runtime's parser
// (CommandLineToArgvW's rules) gives it back unchanged.
void AppendQuoted(std::string& line, const std::string& argument) {
    if (!line.empty()) line += ' ';
    if (!argument.empty() && argument.find_first_of(" \t\n\v\"") == std::string::npos) {
        line += argument;
        return;
    }
    line += '"';
    size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        // Backslashes are literal unless a quote follows them: then each one is doubled,
        // and the quote escaped.
        line.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
        backslashes = 0;
        line += c;
    }
    // Before the closing quote every backslash is doubled.
    line.append(backslashes * 2, '\\');
    line += '"';
}

}  // namespace

uint32_t CurrentProcessId() noexcept {
    return static_cast<uint32_t>(::GetCurrentProcessId());
}

bool GetOwnExecutablePath(std::string& path) {
    char buffer[MAX_PATH * 4];
    const DWORD n = ::GetModuleFileNameA(nullptr, buffer, sizeof buffer);
    if (n == 0 || n >= sizeof buffer) return false;
    path.assign(buffer, n);
    return true;
}

bool GetOwnModuleBaseName(std::string& name) {
    char buffer[MAX_PATH];
    const DWORD n = ::GetModuleBaseNameA(::GetCurrentProcess(), nullptr, buffer, sizeof buffer);
    if (n == 0) return false;
    name.assign(buffer, n);
    return true;
}

bool GetLibraryModulePath(std::string& path) {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCSTR>(&Anchor), &module)) {
        return false;
    }
    char buffer[MAX_PATH * 4];
    const DWORD n = ::GetModuleFileNameA(module, buffer, sizeof buffer);
    if (n == 0 || n >= sizeof buffer) return false;
    path.assign(buffer, n);
    return true;
}

bool StdinIsTerminal() noexcept {
    return ::_isatty(::_fileno(stdin)) != 0;
}

bool SetEnvironmentValue(const char* name, const char* value) {
    if (name == nullptr || name[0] == '\0') return false;
    // The C runtime's copy and the process's block both change (an empty value removes
    // the variable), so getenv and started programs see the same.
    return ::_putenv_s(name, value != nullptr ? value : "") == 0;
}

bool RunProgram(const std::string& path, const std::vector<std::string>& arguments, int* exitCode) {
    if (exitCode != nullptr) *exitCode = -1;
    std::string line;
    AppendQuoted(line, path);
    for (const std::string& argument : arguments)
        AppendQuoted(line, argument);
    std::vector<char> mutableLine(line.begin(), line.end());
    mutableLine.push_back('\0');
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    // Handles are inherited so that the program writes to the same output as this one.
    if (!::CreateProcessA(path.c_str(), mutableLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                          nullptr, &startup, &process)) {
        return false;
    }
    ::CloseHandle(process.hThread);
    DWORD code = 0;
    if (::WaitForSingleObject(process.hProcess, INFINITE) == WAIT_OBJECT_0 &&
        ::GetExitCodeProcess(process.hProcess, &code) && exitCode != nullptr) {
        *exitCode = static_cast<int>(code);
    }
    ::CloseHandle(process.hProcess);
    return true;
}

void FatalExitProcess(int code) noexcept {
    ::FatalExit(code);
    ::ExitProcess(static_cast<UINT>(code));
}

uint32_t ProcessorCount() noexcept {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    return info.dwNumberOfProcessors > 0 ? static_cast<uint32_t>(info.dwNumberOfProcessors) : 1u;
}

bool ProcessAffinityCount(uint32_t* count) noexcept {
    if (count == nullptr) return false;
    DWORD_PTR processMask = 0, systemMask = 0;
    if (!::GetProcessAffinityMask(::GetCurrentProcess(), &processMask, &systemMask)) {
        return false;
    }
    uint64_t mask = static_cast<uint64_t>(processMask);
    uint32_t bits = 0;
    for (; mask != 0; mask &= mask - 1)
        ++bits;
    *count = bits;
    return true;
}

bool CpuidVendorEcx(uint32_t* ecx) noexcept {
    if (ecx == nullptr) return false;
#if defined(_MSC_VER)
    int regs[4] = {};
    __cpuid(regs, 0);
    *ecx = static_cast<uint32_t>(regs[2]);
    return true;
#elif defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(0, &a, &b, &c, &d) == 0) return false;
    *ecx = c;
    return true;
#else
    return false;
#endif
}

std::string VersionModuleFileName(const std::string& name) {
    if (ContainsFolded(name, ".exe") || ContainsFolded(name, ".dll")) return name;
    return name + "64.dll";
}

bool ReadFileVersionBlock(const std::string& file, std::vector<uint8_t>& block) {
    block.clear();
    if (file.empty()) return false;
    DWORD handle = 0;
    const DWORD size = ::GetFileVersionInfoSizeA(file.c_str(), &handle);
    if (size == 0) return false;
    block.resize(size);
    if (!::GetFileVersionInfoA(file.c_str(), 0, size, block.data())) {
        block.clear();
        return false;
    }
    return true;
}

bool QueryVersionValue(const uint8_t* block, size_t size, const char* subBlock, const void** value,
                       uint32_t* length) {
    if (block == nullptr || size == 0 || subBlock == nullptr || value == nullptr ||
        length == nullptr) {
        return false;
    }
    LPVOID found = nullptr;
    UINT foundLength = 0;
    if (!::VerQueryValueA(block, subBlock, &found, &foundLength) || found == nullptr) {
        return false;
    }
    const auto* at = static_cast<const uint8_t*>(found);
    if (at < block || at >= block + size) return false;
    *value = found;
    // String values come back as a count of characters; the reader bounds the text by it.
    *length = static_cast<uint32_t>(foundLength);
    return true;
}

}  // namespace TOLVEN::platform
