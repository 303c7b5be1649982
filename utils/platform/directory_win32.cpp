#include "platform/directory.h"

#include "platform/win32_api.h"

namespace TOLVEN::platform {

bool MakeDirectory(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    if (::CreateDirectoryA(path, nullptr)) return true;
    if (::GetLastError() != ERROR_ALREADY_EXISTS) return false;
    const DWORD attributes = ::GetFileAttributesA(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool ChangeCurrentDirectory(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    return ::SetCurrentDirectoryA(path) != 0;
}

bool CurrentDirectory(std::string& path) {
    const DWORD needed = ::GetCurrentDirectoryA(0, nullptr);
    if (needed == 0) return false;
    std::string buffer(needed, '\0');
    const DWORD length = ::GetCurrentDirectoryA(needed, buffer.data());
    if (length == 0 || length >= needed) return false;
    buffer.resize(length);
    path.swap(buffer);
    return true;
}

}  // namespace TOLVEN::platform
