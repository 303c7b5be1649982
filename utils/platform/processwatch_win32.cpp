#include "platform/processwatch.h"

#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

uint32_t StampOf(HANDLE process) noexcept {
    FILETIME created, exited, kernel, user;
    if (!::GetProcessTimes(process, &created, &exited, &kernel, &user)) return 0;
    const uint64_t ticks =
        (static_cast<uint64_t>(created.dwHighDateTime) << 32) | created.dwLowDateTime;
    // Milliseconds: fine enough to tell two processes of one id apart.
    return static_cast<uint32_t>(ticks / 10000);
}

}  // namespace

bool ProcessStartStamp(uint64_t pid, uint32_t* stamp) noexcept {
    if (pid == 0 || pid > 0xFFFFFFFFu) return false;
    HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE,
                                   static_cast<DWORD>(pid));
    if (process == nullptr) return false;
    const bool running = ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    *stamp = StampOf(process);
    ::CloseHandle(process);
    return running;
}

bool ProcessIsAlive(uint64_t pid, uint32_t stamp) noexcept {
    if (pid == 0 || pid > 0xFFFFFFFFu) return false;
    HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE,
                                   static_cast<DWORD>(pid));
    if (process == nullptr) return ::GetLastError() == ERROR_ACCESS_DENIED;
    bool alive = ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    if (alive && stamp != 0) alive = StampOf(process) == stamp;
    ::CloseHandle(process);
    return alive;
}

uint64_t OpenProcessWatch(uint64_t pid) noexcept {
    if (pid > 0xFFFFFFFFu) return 0;
    HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    return reinterpret_cast<uint64_t>(process);
}

bool ProcessWatchRunning(uint64_t watch) noexcept {
    if (watch == 0) return false;
    return ::WaitForSingleObject(reinterpret_cast<HANDLE>(watch), 0) == WAIT_TIMEOUT;
}

void CloseProcessWatch(uint64_t watch) noexcept {
    if (watch != 0) ::CloseHandle(reinterpret_cast<HANDLE>(watch));
}

}  // namespace TOLVEN::platform
