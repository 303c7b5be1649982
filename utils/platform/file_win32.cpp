#include "platform/file.h"

#include <windows.h>
#include <io.h>
#include <share.h>
#include <shlwapi.h>

namespace TOLVEN::platform {
namespace {
// 100-nanosecond intervals between 1601-01-01 and 1970-01-01.
constexpr uint64_t kEpochDelta = 116444736000000000ull;
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
    if (path == nullptr || path[0] == '\0') return nullptr;
    return ::_fsopen(path, mode, _SH_DENYNO);
}

bool FlushFileToDisk(std::FILE* file) noexcept {
    if (std::fflush(file) != 0 || std::ferror(file) != 0) return false;
    const intptr_t handle = ::_get_osfhandle(::_fileno(file));
    if (handle == -1) return false;
    return ::FlushFileBuffers(reinterpret_cast<HANDLE>(handle)) != 0;
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
