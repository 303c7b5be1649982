// Files and paths: modification stamps, shared opens, durable writes, atomic replacement.
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

// Flushes stdio buffers and then the OS cache of the file to the device.
bool FlushFileToDisk(std::FILE* file) noexcept;

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
