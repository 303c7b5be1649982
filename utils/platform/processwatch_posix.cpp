// Liveness from /proc/<pid>/stat (state and start time) and watches over pidfds.
#include "platform/processwatch.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace TOLVEN::platform {
namespace {

constexpr uint64_t kExitingFlag = 0x4;  // PF_EXITING: the task is on its way out

// The state letter and start time of `pid` from its stat line; false when it is gone. A
// process already ending reads as state 'X': a robust mutex it held is given up while its
// exit runs, before it turns into a zombie.
bool ReadStat(uint64_t pid, char* state, uint64_t* start) noexcept {
    if (pid == 0 || pid > 0x7FFFFFFF) return false;
    char path[64];
    (void)std::snprintf(path, sizeof(path), "/proc/%llu/stat",
                        static_cast<unsigned long long>(pid));
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char text[1024];
    const ssize_t n = ::read(fd, text, sizeof(text) - 1);
    ::close(fd);
    if (n <= 0) return false;
    text[n] = '\0';
    // The command name may hold anything, ')' included: the fields start after the last one.
    const char* p = std::strrchr(text, ')');
    if (p == nullptr || p[1] != ' ') return false;
    p += 2;
    *state = *p;
    // Field 3 is the state, field 9 the flags and field 22 the start time.
    for (int field = 3; field < 22; ++field) {
        p = std::strchr(p, ' ');
        if (p == nullptr) return false;
        ++p;
        if (field + 1 == 9 && (std::strtoull(p, nullptr, 10) & kExitingFlag) != 0) *state = 'X';
    }
    *start = std::strtoull(p, nullptr, 10);
    return true;
}

}  // namespace

bool ProcessStartStamp(uint64_t pid, uint32_t* stamp) noexcept {
    char state = 0;
    uint64_t start = 0;
    if (!ReadStat(pid, &state, &start) || state == 'Z' || state == 'X') return false;
    *stamp = static_cast<uint32_t>(start);
    return true;
}

bool ProcessIsAlive(uint64_t pid, uint32_t stamp) noexcept {
    char state = 0;
    uint64_t start = 0;
    if (!ReadStat(pid, &state, &start)) {
        // No /proc entry readable: fall back on the signal test.
        if (pid == 0 || pid > 0x7FFFFFFF) return false;
        return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
    }
    if (state == 'Z' || state == 'X') return false;
    return stamp == 0 || static_cast<uint32_t>(start) == stamp;
}

uint64_t OpenProcessWatch(uint64_t pid) noexcept {
    if (pid == 0 || pid > 0x7FFFFFFF) return 0;
    const long fd = ::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0);
    if (fd < 0) return 0;
    (void)::fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
    return static_cast<uint64_t>(fd) + 1;
}

bool ProcessWatchRunning(uint64_t watch) noexcept {
    if (watch == 0) return false;
    pollfd p{static_cast<int>(watch - 1), POLLIN, 0};
    int n;
    do {
        n = ::poll(&p, 1, 0);
    } while (n < 0 && errno == EINTR);
    // A pidfd becomes readable when its process ends.
    return n == 0;
}

void CloseProcessWatch(uint64_t watch) noexcept {
    if (watch != 0) ::close(static_cast<int>(watch - 1));
}

}  // namespace TOLVEN::platform
