#include "platform/file.h"

#include <cerrno>
#include <cstring>

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <shlwapi.h>

namespace TOLVEN::platform {
namespace {
// 100-nanosecond intervals between 1601-01-01 and 1970-01-01.
constexpr uint64_t kEpochDelta = 116444736000000000ull;

// The errno value closest to a Windows error.
uint32_t ErrnoOf(DWORD error) noexcept {
    switch (error) {
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return ENOSPC;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
            return EACCES;
        case ERROR_INVALID_HANDLE:
            return EBADF;
        default:
            return EIO;
    }
}

HANDLE HandleOf(std::FILE* file) noexcept {
    if (file == nullptr) return INVALID_HANDLE_VALUE;
    return reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(file)));
}

OVERLAPPED At(uint64_t position) noexcept {
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(position);
    at.OffsetHigh = static_cast<DWORD>(position >> 32);
    return at;
}

// The largest piece one ReadFile or WriteFile call moves.
constexpr std::size_t kMaxPiece = 1u << 30;
}  // namespace

bool GetFileStamp(const char* path, FileStamp* out) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExA(path, GetFileExInfoStandard, &data)) return false;
    const uint64_t ticks = (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                           data.ftLastWriteTime.dwLowDateTime;
    const int64_t since1970 = static_cast<int64_t>(ticks) - static_cast<int64_t>(kEpochDelta);
    int64_t seconds = since1970 / 10000000;
    int64_t rest = since1970 % 10000000;
    if (rest < 0) {
        rest += 10000000;
        --seconds;
    }
    out->seconds = seconds;
    out->nanoseconds = static_cast<uint32_t>(rest * 100);
    out->size = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    out->fileId = 0;
    out->links = 0;
    out->regular =
        (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0;
    return true;
}

std::FILE* OpenFileShared(const char* path, const char* mode) noexcept {
    if (path == nullptr || path[0] == '\0' || mode == nullptr) return nullptr;
    // Others may read, write, delete and rename over the file while it is open, as on
    // POSIX: a save by rename must not fail because a reader is loading the file.
    const bool plus = std::strchr(mode, '+') != nullptr;
    DWORD access = 0, disposition = 0;
    int flags = _O_BINARY;
    switch (mode[0]) {
        case 'r':
            access = GENERIC_READ | (plus ? GENERIC_WRITE : 0);
            disposition = OPEN_EXISTING;
            flags |= plus ? _O_RDWR : _O_RDONLY;
            break;
        case 'w':
            access = GENERIC_WRITE | (plus ? GENERIC_READ : 0);
            disposition = CREATE_ALWAYS;
            flags |= plus ? _O_RDWR : _O_WRONLY;
            break;
        case 'a':
            access = FILE_APPEND_DATA | (plus ? GENERIC_READ : 0);
            disposition = OPEN_ALWAYS;
            flags |= _O_APPEND | (plus ? _O_RDWR : _O_WRONLY);
            break;
        default:
            return nullptr;
    }
    const HANDLE handle =
        ::CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                      disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    const int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), flags);
    if (fd < 0) {
        ::CloseHandle(handle);
        return nullptr;
    }
    std::FILE* file = ::_fdopen(fd, mode);
    if (file == nullptr) ::_close(fd);
    return file;
}

std::FILE* OpenFileDenyWrite(const char* path, bool create) noexcept {
    if (path == nullptr || path[0] == '\0') return nullptr;
    // Others may read, but not write: a second writer's open fails with a sharing
    // violation before it can empty the file.
    const HANDLE handle =
        ::CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                      create ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    const int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDWR | _O_BINARY);
    if (fd < 0) {
        ::CloseHandle(handle);
        return nullptr;
    }
    std::FILE* file = ::_fdopen(fd, create ? "w+b" : "r+b");
    if (file == nullptr) ::_close(fd);
    return file;
}

bool GetOpenFileSize(std::FILE* file, uint64_t* size) noexcept {
    const HANDLE handle = HandleOf(file);
    LARGE_INTEGER value;
    if (handle == INVALID_HANDLE_VALUE || size == nullptr || !::GetFileSizeEx(handle, &value))
        return false;
    *size = static_cast<uint64_t>(value.QuadPart);
    return true;
}

uint32_t WriteFileAt(std::FILE* file, uint64_t position, const void* data, std::size_t size,
                     std::size_t* written) noexcept {
    *written = 0;
    const HANDLE handle = HandleOf(file);
    if (handle == INVALID_HANDLE_VALUE) return EBADF;
    const auto* bytes = static_cast<const char*>(data);
    while (*written < size) {
        std::size_t want = detail::GrantWriteSpace(size - *written);
        if (want == 0) return ENOSPC;
        if (want > kMaxPiece) want = kMaxPiece;
        OVERLAPPED at = At(position + *written);
        DWORD n = 0;
        if (!::WriteFile(handle, bytes + *written, static_cast<DWORD>(want), &n, &at)) {
            *written += n;
            return ErrnoOf(::GetLastError());
        }
        if (n == 0) return EIO;
        *written += n;
    }
    return 0;
}

uint32_t ReadFileAt(std::FILE* file, uint64_t position, void* data, std::size_t size,
                    std::size_t* read) noexcept {
    *read = 0;
    const HANDLE handle = HandleOf(file);
    if (handle == INVALID_HANDLE_VALUE) return EBADF;
    auto* bytes = static_cast<char*>(data);
    while (*read < size) {
        const std::size_t want = size - *read < kMaxPiece ? size - *read : kMaxPiece;
        OVERLAPPED at = At(position + *read);
        DWORD n = 0;
        if (!::ReadFile(handle, bytes + *read, static_cast<DWORD>(want), &n, &at)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_HANDLE_EOF) break;
            return ErrnoOf(error);
        }
        if (n == 0) break;  // the end of the file
        *read += n;
    }
    return 0;
}

bool FlushFileToDisk(std::FILE* file) noexcept {
    if (std::fflush(file) != 0 || std::ferror(file) != 0) return false;
    const intptr_t handle = ::_get_osfhandle(::_fileno(file));
    if (handle == -1) return false;
    return ::FlushFileBuffers(reinterpret_cast<HANDLE>(handle)) != 0;
}

bool SyncFileData(std::FILE* file) noexcept {
    const HANDLE handle = HandleOf(file);
    return handle != INVALID_HANDLE_VALUE && ::FlushFileBuffers(handle) != 0;
}

bool TruncateOpenFile(std::FILE* file, uint64_t size) noexcept {
    const HANDLE handle = HandleOf(file);
    if (handle == INVALID_HANDLE_VALUE) return false;
    FILE_END_OF_FILE_INFO info;
    info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    return ::SetFileInformationByHandle(handle, FileEndOfFileInfo, &info, sizeof(info)) != 0;
}

std::FILE* CreateNewFile(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return nullptr;
    const HANDLE handle = ::CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                        nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    const int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDWR | _O_BINARY);
    if (fd < 0) {
        ::CloseHandle(handle);
        return nullptr;
    }
    std::FILE* file = ::_fdopen(fd, "w+b");
    if (file == nullptr) ::_close(fd);
    return file;
}

bool RenameReplacing(const char* from, const char* to) noexcept {
    return ::MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

bool SyncParentDirectory(const char*) noexcept {
    // MOVEFILE_WRITE_THROUGH returns only once the rename is on the disk.
    return true;
}

bool RemoveFile(const char* path) noexcept {
    return ::DeleteFileA(path) != 0;
}

bool IsRelativePath(const char* path) noexcept {
    return path == nullptr || ::PathIsRelativeA(path) != FALSE;
}

char PathSeparator() noexcept {
    return '\\';
}

bool CanonicalPath(const char* path, char* out, std::size_t size) noexcept {
    if (size == 0 || size > 0x7FFFFFFF) return false;
    const DWORD n = ::GetFullPathNameA(path, static_cast<DWORD>(size), out, nullptr);
    return n != 0 && n < size;
}

}  // namespace TOLVEN::platform
