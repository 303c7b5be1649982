#include "platform/file.h"

#include <fcntl.h>
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

bool FlushFileToDisk(std::FILE* file) noexcept {
    if (std::fflush(file) != 0 || std::ferror(file) != 0) return false;
    int rc;
    do {
        rc = ::fsync(::fileno(file));
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
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
