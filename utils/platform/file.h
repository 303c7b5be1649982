// Files and paths: modification stamps, shared and exclusive opens, positioned reads and
// writes, durable writes, atomic replacement.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace TOLVEN::platform {

// What tells one version of a file from another: its modification time to the nanosecond
// where the file system keeps it (100 ns on Windows), its size and its identity.
struct FileStamp {
    int64_t seconds = 0;       // modification time, seconds since 1970-01-01 UTC
    uint32_t nanoseconds = 0;  // fraction of the second
    uint64_t size = 0;         // bytes
    uint64_t fileId = 0;       // inode or file index; 0 where the platform gives none cheaply
    uint64_t links = 0;        // hard links to the file; 0 where unknown
    bool regular = false;      // a plain file (not a directory, device or pipe)

    // True when both describe the same version of the file.
    bool Same(const FileStamp& o) const noexcept {
        return seconds == o.seconds && nanoseconds == o.nanoseconds && size == o.size &&
               fileId == o.fileId;
    }
};

// Reads the stamp of the file at `path` (following links); false when it cannot be reached.
bool GetFileStamp(const char* path, FileStamp* out) noexcept;

// Opens a file with stdio `mode`, letting others read, write, delete or rename over it
// meanwhile. Null on failure.
std::FILE* OpenFileShared(const char* path, const char* mode) noexcept;

// Opens `path` for reading and writing and keeps other writers out while it is open: no
// second open through this call succeeds on the same file, from this process or another
// (an exclusive flock on POSIX, a deny-write share mode on Windows). Without `create` the
// file must exist; with it a missing file is made and an existing one emptied, but only
// once it is held, so a file another writer holds is never touched. Null on failure.
std::FILE* OpenFileDenyWrite(const char* path, bool create) noexcept;

// The size of an open file in bytes; false when it cannot be had.
bool GetOpenFileSize(std::FILE* file, uint64_t* size) noexcept;

// Writes `size` bytes at `position` of an open file straight to the operating system,
// past the stream's buffer, which must hold nothing. `written` gets the bytes written. The
// result is 0, or the error number (errno's values; ENOSPC for a full disk) of the call
// that stopped short.
uint32_t WriteFileAt(std::FILE* file, uint64_t position, const void* data, std::size_t size,
                     std::size_t* written) noexcept;

// Reads up to `size` bytes at `position` of an open file, past the stream's buffer. `read`
// gets the bytes read, fewer at the end of the file. The result is 0 or an error number.
uint32_t ReadFileAt(std::FILE* file, uint64_t position, void* data, std::size_t size,
                    std::size_t* read) noexcept;

// For tests: WriteFileAt may write only `bytes` more bytes in all, in every file, and then
// fails as a full disk does; a negative value lifts the limit (the default).
void SetWriteSpaceForTest(int64_t bytes) noexcept;

namespace detail {
// How many of `wanted` bytes the test limit of SetWriteSpaceForTest lets through now; the
// bytes granted are taken off the limit.
std::size_t GrantWriteSpace(std::size_t wanted) noexcept;
}  // namespace detail

// Flushes stdio buffers and then the OS cache of the file to the device.
bool FlushFileToDisk(std::FILE* file) noexcept;

// Puts the data written to the file (through WriteFileAt) on the device, with what is needed
// to read it back (its size), skipping other metadata where the platform can (fdatasync).
// Touches no stdio buffer, so it may run while another thread writes the file.
bool SyncFileData(std::FILE* file) noexcept;

// Cuts or extends an open file to `size` bytes.
bool TruncateOpenFile(std::FILE* file, uint64_t size) noexcept;

// Makes a new file at `path` for reading and writing; null when it exists or cannot be made.
std::FILE* CreateNewFile(const char* path) noexcept;

// Renames `from` to `to`, replacing `to` in one step: a reader of `to` sees either the old
// file or the new one, whole.
bool RenameReplacing(const char* from, const char* to) noexcept;

// Makes the directory entry of `path` durable after a rename (fsync of the directory on
// POSIX; the rename is written through already on Windows).
bool SyncParentDirectory(const char* path) noexcept;

// Deletes a file; false when it could not be deleted.
bool RemoveFile(const char* path) noexcept;

// True when `path` is relative: not rooted and, on Windows, without a drive.
bool IsRelativePath(const char* path) noexcept;

// The separator this platform puts between a directory and a name.
char PathSeparator() noexcept;

// The absolute, link-free form of `path` into `out` (room `size`); false when it cannot be
// resolved or does not fit.
bool CanonicalPath(const char* path, char* out, std::size_t size) noexcept;

}  // namespace TOLVEN::platform
