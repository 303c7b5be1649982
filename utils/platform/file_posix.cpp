#include "platform/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace TOLVEN::platform {

bool GetFileStamp(const char* path, FileStamp* out) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    struct stat st;
    if (::stat(path, &st) != 0) return false;
    out->seconds = static_cast<int64_t>(st.st_mtim.tv_sec);
    out->nanoseconds = static_cast<uint32_t>(st.st_mtim.tv_nsec);
    out->size = static_cast<uint64_t>(st.st_size);
    out->fileId = static_cast<uint64_t>(st.st_ino);
    out->links = static_cast<uint64_t>(st.st_nlink);
    out->regular = S_ISREG(st.st_mode);
    return true;
}

std::FILE* OpenFileShared(const char* path, const char* mode) noexcept {
    // POSIX opens never lock others out.
    if (path == nullptr || path[0] == '\0') return nullptr;
    return std::fopen(path, mode);
}

std::FILE* OpenFileDenyWrite(const char* path, bool create) noexcept {
    if (path == nullptr || path[0] == '\0') return nullptr;
    // No O_TRUNC here: the file is emptied only once the lock says nobody else writes it.
    const int fd = ::open(path, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
    if (fd < 0) return nullptr;
    // flock, unlike fcntl locks, is held by the open file: a second open in this same
    // process conflicts as one in another process does.
    int rc;
    do {
        rc = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0 || (create && ::ftruncate(fd, 0) != 0)) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return nullptr;
    }
    std::FILE* file = ::fdopen(fd, create ? "w+b" : "r+b");
    if (file == nullptr) ::close(fd);
    return file;
}

bool GetOpenFileSize(std::FILE* file, uint64_t* size) noexcept {
    struct stat st;
    if (file == nullptr || size == nullptr || ::fstat(::fileno(file), &st) != 0) return false;
    *size = static_cast<uint64_t>(st.st_size);
    return true;
}

uint32_t WriteFileAt(std::FILE* file, uint64_t position, const void* data, std::size_t size,
                     std::size_t* written) noexcept {
    *written = 0;
    if (file == nullptr) return EBADF;
    const int fd = ::fileno(file);
    const auto* bytes = static_cast<const char*>(data);
    while (*written < size) {
        const std::size_t want = detail::GrantWriteSpace(size - *written);
        if (want == 0) return ENOSPC;
        const ssize_t n =
            ::pwrite(fd, bytes + *written, want, static_cast<off_t>(position + *written));
        if (n < 0) {
            if (errno == EINTR) continue;
            return static_cast<uint32_t>(errno);
        }
        if (n == 0) return EIO;
        *written += static_cast<std::size_t>(n);
    }
    return 0;
}

uint32_t ReadFileAt(std::FILE* file, uint64_t position, void* data, std::size_t size,
                    std::size_t* read) noexcept {
    *read = 0;
    if (file == nullptr) return EBADF;
    const int fd = ::fileno(file);
    auto* bytes = static_cast<char*>(data);
    while (*read < size) {
        const ssize_t n =
            ::pread(fd, bytes + *read, size - *read, static_cast<off_t>(position + *read));
        if (n < 0) {
            if (errno == EINTR) continue;
            return static_cast<uint32_t>(errno);
        }
        if (n == 0) break;  // the end of the file
        *read += static_cast<std::size_t>(n);
    }
    return 0;
}

bool FlushFileToDisk(std::FILE* file) noexcept {
    if (std::fflush(file) != 0 || std::ferror(file) != 0) return false;
    int rc;
    do {
        rc = ::fsync(::fileno(file));
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool SyncFileData(std::FILE* file) noexcept {
    if (file == nullptr) return false;
    int rc;
    do {
        rc = ::fdatasync(::fileno(file));
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool TruncateOpenFile(std::FILE* file, uint64_t size) noexcept {
    if (file == nullptr) return false;
    int rc;
    do {
        rc = ::ftruncate(::fileno(file), static_cast<off_t>(size));
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

std::FILE* CreateNewFile(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return nullptr;
    const int fd = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    std::FILE* file = ::fdopen(fd, "w+b");
    if (file == nullptr) ::close(fd);
    return file;
}

bool RenameReplacing(const char* from, const char* to) noexcept {
    return ::rename(from, to) == 0;
}

bool SyncParentDirectory(const char* path) noexcept {
    const char* slash = std::strrchr(path, '/');
    std::string dir;
    if (slash == nullptr)
        dir.push_back('.');
    else if (slash == path)
        dir.push_back('/');
    else
        dir.append(path, static_cast<std::size_t>(slash - path));
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    int rc;
    do {
        rc = ::fsync(fd);
    } while (rc != 0 && errno == EINTR);
    ::close(fd);
    return rc == 0;
}

bool RemoveFile(const char* path) noexcept {
    return ::unlink(path) == 0;
}

bool IsRelativePath(const char* path) noexcept {
    return path == nullptr || path[0] != '/';
}

char PathSeparator() noexcept {
    return '/';
}

bool CanonicalPath(const char* path, char* out, std::size_t size) noexcept {
    char* resolved = ::realpath(path, nullptr);
    if (resolved == nullptr) return false;
    const std::size_t len = std::strlen(resolved);
    const bool fits = len < size;
    if (fits) std::memcpy(out, resolved, len + 1);
    std::free(resolved);
    return fits;
}

}  // namespace TOLVEN::platform
