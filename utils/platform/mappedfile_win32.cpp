#include "platform/mappedfile.h"

#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {
thread_local uint32_t t_lastError = 0;

bool Fail() noexcept {
    t_lastError = static_cast<uint32_t>(::GetLastError());
    return false;
}

HANDLE H(uint64_t file) noexcept {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(file));
}
}  // namespace

uint64_t OpenMapFile(const char* path, bool writable, uint32_t shareMode, bool createNew) noexcept {
    const DWORD access = GENERIC_READ | (writable ? GENERIC_WRITE : 0);
    DWORD share = 0;
    if ((shareMode & kShareWrite) != 0)
        share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    else if (!writable && (shareMode & kShareRead) != 0)
        share = FILE_SHARE_READ;
    const HANDLE h =
        ::CreateFileA(path, access, share, nullptr, createNew ? CREATE_NEW : OPEN_EXISTING,
                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        Fail();
        return kNoMapFile;
    }
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h));
}

bool GetMapFileSize(uint64_t file, uint64_t* size) noexcept {
    LARGE_INTEGER s;
    if (!::GetFileSizeEx(H(file), &s)) return Fail();
    *size = static_cast<uint64_t>(s.QuadPart);
    return true;
}

bool SetMapFileSize(uint64_t file, uint64_t size) noexcept {
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(size);
    if (!::SetFilePointerEx(H(file), at, nullptr, FILE_BEGIN)) return Fail();
    return ::SetEndOfFile(H(file)) != 0 || Fail();
}

bool WriteMapFile(uint64_t file, uint64_t position, const void* data, std::size_t size) noexcept {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        OVERLAPPED o{};
        o.Offset = static_cast<DWORD>(position);
        o.OffsetHigh = static_cast<DWORD>(position >> 32);
        const DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
        DWORD written = 0;
        if (!::WriteFile(H(file), at, chunk, &written, &o) || written == 0) return Fail();
        at += written;
        position += written;
        size -= written;
    }
    return true;
}

void* MapFileView(uint64_t file, uint64_t size, bool writable, uint64_t* mapping,
                  int* failedStep) noexcept {
    *mapping = 0;
    int ignored = 0;
    int& step = failedStep != nullptr ? *failedStep : ignored;
    step = 1;
    uint64_t length = 0;
    if (!GetMapFileSize(file, &length)) return nullptr;
    if (length < size || size == 0) {
        t_lastError = ERROR_FILE_INVALID;
        return nullptr;
    }
    const HANDLE m =
        ::CreateFileMappingA(H(file), nullptr, writable ? PAGE_READWRITE : PAGE_READONLY,
                             static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), nullptr);
    if (m == nullptr) {
        Fail();
        return nullptr;
    }
    void* view = ::MapViewOfFile(m, writable ? FILE_MAP_ALL_ACCESS : FILE_MAP_READ, 0, 0,
                                 static_cast<SIZE_T>(size));
    if (view == nullptr) {
        step = 2;
        Fail();
        ::CloseHandle(m);
        return nullptr;
    }
    *mapping = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(m));
    return view;
}

bool UnmapFileView(void* view, uint64_t, uint64_t mapping) noexcept {
    const bool ok = ::UnmapViewOfFile(view) != 0 || Fail();
    if (mapping != 0) ::CloseHandle(H(mapping));
    return ok;
}

bool FlushFileView(void* view, uint64_t size) noexcept {
    return ::FlushViewOfFile(view, static_cast<SIZE_T>(size)) != 0 || Fail();
}

bool FlushMapFile(uint64_t file) noexcept {
    return ::FlushFileBuffers(H(file)) != 0 || Fail();
}

void CloseMapFile(uint64_t file) noexcept {
    if (file != kNoMapFile) ::CloseHandle(H(file));
}

uint32_t LastMapFileError() noexcept {
    return t_lastError;
}

}  // namespace TOLVEN::platform
