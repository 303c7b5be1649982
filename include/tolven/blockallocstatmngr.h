// The process-wide registry of live block allocators, and the memory file "%s_memory.ini"
// that keeps, per allocator name, the figures an allocator ends with.
#pragma once

#include <cstdint>
#include <map>

#include "tolven/blockallocator.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN {

class IniConfigReader;
class UtilError;

// Every block allocator enters itself here on construction and leaves on destruction. The
// manager lists their statistics in address order and keeps the memory file: one section
// per allocator name, with `StartingBlocks` read at registration (an operator may put it
// there) and `FinalBlocks` written at deregistration.
//
// Safe for concurrent use without external locking: every member runs under the manager's
// critical section, taken in the house pattern. Lock order: the manager before an
// allocator; an allocator must not call in here while it holds its own lock.
class BlockAllocatorStatMngr {
  public:
    // The instance, built on first use.
    static BlockAllocatorStatMngr& Get();
    // A new process-wide allocator id: 1 first, then one more each call.
    static uint64_t GetNewInstanceId();

    // Registers `allocator`. With `startingBlocks`, first opens the default memory file if
    // none is open, and stores the allocator's `StartingBlocks` there (0 when missing or
    // unreadable). Always true.
    bool AddAllocator(StatManagedBlockAllocator* allocator, uint64_t* startingBlocks);
    // Deregisters `allocator`, writing its `FinalBlocks` when its block size is not 0.
    void RemoveAllocator(StatManagedBlockAllocator* allocator);
    // Points the memory file at `file`, or with null at "<application>_memory.ini" in the
    // working directory unless a file is open already. False, with the text in `error` (may
    // be null) and in the log, when the file cannot be read.
    bool SetAllocatorFile(const char* file, UtilError* error);

    // The record of the allocator with id `id`; false, with `stats` blank, when none has it.
    static bool GetStats(_BLOCK_ALLOC_STATS& stats, uint64_t id);
    // Fills up to `*count` records in address order and stores in `*count` how many were
    // filled; false only for a null `count`.
    static bool GetStats(_BLOCK_ALLOC_STATS* stats, uint64_t* count);
    // How many allocators are registered.
    static uint64_t NumStats();

    BlockAllocatorStatMngr(const BlockAllocatorStatMngr&) = delete;
    BlockAllocatorStatMngr& operator=(const BlockAllocatorStatMngr&) = delete;

  private:
    BlockAllocatorStatMngr();
    ~BlockAllocatorStatMngr();
    bool SetAllocatorFileLocked(const char* file, UtilError* error);

    detail::CriticalSection cs_;
    std::map<StatManagedBlockAllocator*, int> allocators_;
    IniConfigReader* reader_;
};

}  // namespace TOLVEN
