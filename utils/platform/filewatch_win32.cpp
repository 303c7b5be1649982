// Windows gives no notification that can stand in for a look at the file: directory change
// notifications report a new last-write time only when the cache writes the file back, and
// may come long after the write. Every watch is refused, and readers look at the file
// (GetFileAttributesExA) on each access.
#include "platform/filewatch.h"

namespace TOLVEN::platform {

FileWatch* AddFileWatch(const char*) noexcept {
    return nullptr;
}

void ReleaseFileWatch(FileWatch*) noexcept {}

void RearmFileWatch(FileWatch*) noexcept {}

bool PumpFileWatches(uint32_t) noexcept {
    return false;
}

void InterruptFileWatches() noexcept {}

}  // namespace TOLVEN::platform

namespace TOLVEN::platform {

bool FileWatchesLive() noexcept {
    return false;
}

}  // namespace TOLVEN::platform
