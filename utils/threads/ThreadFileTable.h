// The machine-wide table of the thread file each process uses.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TOLVEN::platform {
struct NamedMutex;
}

namespace TOLVEN::detail {

// 64 records of 272 bytes in named shared memory: the process id (8 bytes, 0 for a free
// record), the path of its thread file (260 bytes, NUL-terminated) and 4 bytes that hold the
// low 32 bits of the process's start stamp, so that a reused id is not taken for the process
// that wrote the record. A named mutex "<name>_mutex" guards it; records are copied in and
// out whole under it. A process that ended while holding the mutex may have left one record
// half-written: the next holder drops the records of every process that no longer runs.
// Safe for concurrent use without external locking.
class ThreadFileTable {
  public:
    static constexpr uint32_t kRecords = 64;
    static constexpr uint32_t kRecordSize = 272;
    static constexpr uint32_t kPathRoom = 260;

    // Names the table; nothing is opened until the first use.
    explicit ThreadFileTable(std::string name);
    // Clears this process's record, then unmaps and closes everything.
    ~ThreadFileTable();
    ThreadFileTable(const ThreadFileTable&) = delete;
    ThreadFileTable& operator=(const ThreadFileTable&) = delete;

    // Writes this process's record with `path` (cut to 259 characters) into the first record
    // that is free, this process's, or left by a process that no longer runs. False when no
    // record is such, or when the table cannot be opened.
    bool Record(const char* path);
    // Clears the first record of this process.
    void Clear();
    // Copies the used records as (process id, path); false when the table cannot be opened.
    bool List(std::vector<std::pair<uint64_t, std::string>>& out);

  private:
    struct Raw;
    bool Open();
    bool Lock();
    void Unlock();

    std::string name_;
    platform::NamedMutex* mutex_ = nullptr;
    uint64_t mapping_ = 0;
    unsigned char* view_ = nullptr;
    uint64_t size_ = 0;
    uint64_t pid_ = 0;
    uint32_t stamp_ = 0;
    bool opened_ = false;
};

}  // namespace TOLVEN::detail
