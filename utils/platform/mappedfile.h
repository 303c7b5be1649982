// Files mapped into memory: open with a share mode, size, map, flush and close.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TOLVEN::platform {

// Share-mode bits as callers pass them: others may read, others may write.
inline constexpr uint32_t kShareRead = 0x1;
inline constexpr uint32_t kShareWrite = 0x2;

// The handle of a file opened for mapping; kNoMapFile when none.
inline constexpr uint64_t kNoMapFile = ~uint64_t{0};

// Opens `path` for reading, or for reading and writing with `writable`. Without
// `createNew` the file must exist; with it, it must not and is made empty. Unless
// `shareMode` has kShareWrite the open keeps others out while it lasts: a writable open, or
// one without kShareRead, admits no other open through this call (from this or another
// process); a read-only open with kShareRead admits other such opens. kNoMapFile on
// failure, with the error in LastMapFileError.
uint64_t OpenMapFile(const char* path, bool writable, uint32_t shareMode, bool createNew) noexcept;

// The size of an open file in bytes; false on failure.
bool GetMapFileSize(uint64_t file, uint64_t* size) noexcept;

// Sets the length of an open writable file: a longer file reads as zeros behind the old end.
bool SetMapFileSize(uint64_t file, uint64_t size) noexcept;

// Writes `size` bytes at `position`; false unless all were written.
bool WriteMapFile(uint64_t file, uint64_t position, const void* data, std::size_t size) noexcept;

// Maps the first `size` bytes of an open file, which must be at least that long; the
// mapping follows the file and the file the mapping. `mapping` gets what UnmapFileView
// needs besides the view. Null on failure, with `failedStep` (may be null) 1 when no mapping
// of the file could be made (a file too short among the causes) and 2 when the mapping
// could not be viewed.
void* MapFileView(uint64_t file, uint64_t size, bool writable, uint64_t* mapping,
                  int* failedStep) noexcept;

// Unmaps a view of MapFileView.
bool UnmapFileView(void* view, uint64_t size, uint64_t mapping) noexcept;

// Writes the changed pages of a view to the file, waiting until they are written.
bool FlushFileView(void* view, uint64_t size) noexcept;

// Writes the file's cached data to the device.
bool FlushMapFile(uint64_t file) noexcept;

// Closes a file of OpenMapFile; its hold on the file ends with it.
void CloseMapFile(uint64_t file) noexcept;

// The error code of the last failing call of this header on the calling thread (errno on
// POSIX, GetLastError on Windows).
uint32_t LastMapFileError() noexcept;

}  // namespace TOLVEN::platform
