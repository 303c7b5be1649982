// The process, its files and its processors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace TOLVEN::platform {

// The OS id of the process.
uint32_t CurrentProcessId() noexcept;

// The full path of the process's executable (GetModuleFileNameA of the process,
// /proc/self/exe). False when it cannot be had.
bool GetOwnExecutablePath(std::string& path);

// The base name of the process's executable (GetModuleBaseNameA, the last part of
// /proc/self/exe). False when it cannot be had.
bool GetOwnModuleBaseName(std::string& name);

// The full path of the module that holds this library's code (GetModuleHandleExA from an
// address, dladdr). False when it cannot be had.
bool GetLibraryModulePath(std::string& path);

// True when standard input is a terminal.
bool StdinIsTerminal() noexcept;

// Sets the environment variable `name` of the process to `value`, or removes it when `value`
// is null; programs started afterwards inherit it. Not thread-safe (the environment is
// process-wide). False when it cannot be set.
bool SetEnvironmentValue(const char* name, const char* value);

// Starts the program at `path` with `arguments` (not counting the program's own name, and
// passed to it unchanged, whatever spaces or quotes they hold) and waits for it to end.
// `exitCode` gets its exit code, or -1 when it did not exit normally. False when it could not
// be started.
bool RunProgram(const std::string& path, const std::vector<std::string>& arguments, int* exitCode);

// Ends the process at once with `code`, running no clean-up.
[[noreturn]] void FatalExitProcess(int code) noexcept;

// The number of logical processors of the machine (at least 1).
uint32_t ProcessorCount() noexcept;

// The number of processors the process may run on; false when the mask cannot be had.
bool ProcessAffinityCount(uint32_t* count) noexcept;

// ECX of cpuid leaf 0 (the third word of the vendor text); false without cpuid.
bool CpuidVendorEcx(uint32_t* ecx) noexcept;

// The file name a version record is read from for `name`: a name that does not name a
// module file gets the platform's library form ("%s64.dll" on Windows, "lib%s.so" on ELF).
std::string VersionModuleFileName(const std::string& name);

// Reads the raw version block of a module file (GetFileVersionInfoA, or the descriptor of
// the ELF version note). On ELF a base name of a library loaded in the process is looked up
// among the loaded objects first. False when the file has no record.
bool ReadFileVersionBlock(const std::string& file, std::vector<uint8_t>& block);

// Finds `subBlock` in a raw version block as VerQueryValueA does: "\\" for the fixed record,
// "\\VarFileInfo\\Translation" for the language and code page words, and
// "\\StringFileInfo\\llllcccc\\Name" for a string. `length` gets the size in bytes of the
// fixed record or the translation, and of a string including its terminator.
bool QueryVersionValue(const uint8_t* block, size_t size, const char* subBlock, const void** value,
                       uint32_t* length);

}  // namespace TOLVEN::platform
