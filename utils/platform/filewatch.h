// Change notification for single files, so that a reader can skip looking at an unchanged
// file on every access.
//
// A watch covers one path. Its generation grows whenever the OS reports anything that may
// have changed the file: a write, a truncation, a rename or deletion in its directory, a
// change of its links, a lost event. A watch that can no longer be trusted is marked broken
// for good, and its user must then look at the file itself each time. The events are
// applied by whoever runs PumpFileWatches, normally one thread of the process.
#pragma once

#include <atomic>
#include <cstdint>

namespace TOLVEN::platform {

// One watched path, shared by all its users. Safe for concurrent use without external
// locking.
struct FileWatch {
    std::atomic<uint64_t> generation{0};  // grows on every event that may change the file
    std::atomic<bool> broken{false};      // set once when events can no longer be relied on
};

// Starts watching `path`, or joins the existing watch of that path. Null when the platform
// cannot report every change of it: a relative path, a path through a symbolic link, a
// file with more than one link, a file system that does not notify (network, FUSE), or no
// OS support.
FileWatch* AddFileWatch(const char* path) noexcept;

// Gives up one user's share of a watch; the last one removes it.
void ReleaseFileWatch(FileWatch* watch) noexcept;

// Watches the file that is now at the watch's path (after a replacement by rename).
// Marks the watch broken when that file cannot be watched reliably.
void RearmFileWatch(FileWatch* watch) noexcept;

// Waits up to `timeoutMs` (0xFFFFFFFF: no limit) for OS events and applies them. False
// when this platform has no change notification, so there is nothing to pump.
bool PumpFileWatches(uint32_t timeoutMs) noexcept;

// Makes a PumpFileWatches that is waiting return early.
void InterruptFileWatches() noexcept;

// False once events stopped being applied: in a child made by fork, where the pumping
// thread does not exist, or after the OS refused to deliver events. Watches must then not
// be relied on.
bool FileWatchesLive() noexcept;

}  // namespace TOLVEN::platform
