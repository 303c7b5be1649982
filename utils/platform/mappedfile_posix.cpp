#include "platform/mappedfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace TOLVEN::platform {
namespace {
thread_local uint32_t t_lastError = 0;

bool Fail() noexcept {
    t_lastError = static_cast<uint32_t>(errno);
    return false;
}

int Fd(uint64_t file) noexcept {
    return static_cast<int>(file);
}
}  // namespace

uint64_t OpenMapFile(const char* path, bool writable, uint32_t shareMode, bool createNew) noexcept {
    if (path == nullptr || path[0] == '\0') {
        t_lastError = ENOENT;
        return kNoMapFile;
    }
    int flags = (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    if (createNew) flags |= O_CREAT | O_EXCL;
    int fd;
    do {
        fd = ::open(path, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        Fail();
        return kNoMapFile;
    }
    // flock belongs to the open file, so a second open in this process conflicts as one in
    // another process does, and a killed holder lets go with its last descriptor.
    if ((shareMode & kShareWrite) == 0) {
        const int mode = (!writable && (shareMode & kShareRead) != 0) ? LOCK_SH : LOCK_EX;
        int rc;
        do {
            rc = ::flock(fd, mode | LOCK_NB);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            Fail();
            ::close(fd);
            return kNoMapFile;
        }
    }
    return static_cast<uint64_t>(fd);
}

bool GetMapFileSize(uint64_t file, uint64_t* size) noexcept {
    struct stat st;
    if (::fstat(Fd(file), &st) != 0) return Fail();
    *size = static_cast<uint64_t>(st.st_size);
    return true;
}

bool SetMapFileSize(uint64_t file, uint64_t size) noexcept {
    int rc;
    do {
        rc = ::ftruncate(Fd(file), static_cast<off_t>(size));
    } while (rc != 0 && errno == EINTR);
    return rc == 0 || Fail();
}

bool WriteMapFile(uint64_t file, uint64_t position, const void* data, std::size_t size) noexcept {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::pwrite(Fd(file), at, size, static_cast<off_t>(position));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return Fail();
        }
        at += n;
        position += static_cast<uint64_t>(n);
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

void* MapFileView(uint64_t file, uint64_t size, bool writable, uint64_t* mapping,
                  int* failedStep) noexcept {
    *mapping = 0;
    int ignored = 0;
    int& step = failedStep != nullptr ? *failedStep : ignored;
    step = 1;
    // A view over bytes the file does not have would fault when touched: refuse it here.
    uint64_t length = 0;
    if (!GetMapFileSize(file, &length)) return nullptr;
    if (length < size || size == 0) {
        t_lastError = EINVAL;
        return nullptr;
    }
    void* view = ::mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                        Fd(file), 0);
    if (view == MAP_FAILED) {
        step = 2;
        Fail();
        return nullptr;
    }
    return view;
}

bool UnmapFileView(void* view, uint64_t size, uint64_t) noexcept {
    return ::munmap(view, size) == 0 || Fail();
}

bool FlushFileView(void* view, uint64_t size) noexcept {
    return ::msync(view, size, MS_SYNC) == 0 || Fail();
}

bool FlushMapFile(uint64_t file) noexcept {
    return ::fsync(Fd(file)) == 0 || Fail();
}

void CloseMapFile(uint64_t file) noexcept {
    if (file != kNoMapFile) ::close(Fd(file));
}

uint32_t LastMapFileError() noexcept {
    return t_lastError;
}

}  // namespace TOLVEN::platform
