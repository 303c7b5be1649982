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

bool ListDirectoryFiles(const char* directory, std::vector<std::string>& names) {
    names.clear();
    if (directory == nullptr || directory[0] == '\0') return false;
    std::string pattern(directory);
    pattern += "\\*";
    WIN32_FIND_DATAA found;
    const HANDLE search = ::FindFirstFileA(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
    do {
        if ((found.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0)
            names.emplace_back(found.cFileName);
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
    return true;
}

}  // namespace TOLVEN::platform
