// The latency tracker: callers record how long a keyed item has taken at named points of
// the code; the thread "LatencyTracker" writes the records to a text file.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "tolven/autothread.h"
#include "tolven/blobtime.h"
#include "tolven/detail/critical_section.h"
#include "tolven/exslots.h"
#include "tolven/fastblockallocator.h"
#include "tolven/snapshottimer.h"

namespace TOLVEN {

// A caller fills a pooled record and links it to a queue under a short lock; every 250 ms
// the writer thread takes the whole queue and appends one line per record to the file:
//   "hh:mm:ss, <key>, <file>, <line>, <function>, <label>, <milliseconds>" and CR LF.
// The key is copied (cut at 63 characters); label, file and function are kept by address
// and must outlive the queue (literals). Records queued before Term reach the file.
//
// Safe for concurrent use without external locking for AddLatencyStats, SetThreadKey and
// GetCurrentLatency. SetKey writes the process-wide key without a lock: set it while no
// thread reads it. Init and Term must not run alongside the other calls.
class LatencyTracker {
  public:
    // A key and the start it is measured from. Not thread-safe.
    struct LatencyKey {
        const char* key = nullptr;
        SnapshotTimer start;
    };

    // The process's tracker, built on first use.
    static LatencyTracker& Get();

    LatencyTracker();
    // Term.
    ~LatencyTracker();
    LatencyTracker(const LatencyTracker&) = delete;
    LatencyTracker& operator=(const LatencyTracker&) = delete;

    // Opens `path` for appending and starts the writer; false, and left unusable, when the
    // file cannot be opened or the thread not started. Enables the checks on success.
    bool Init(const char* path);
    // Disables the checks, stops the writer after it wrote what was queued, and closes the
    // file.
    void Term();

    // The flag callers test before they record; the tracker itself does not look at it.
    bool LatencyChecksEnabled() const { return enabled_.load(std::memory_order_relaxed) > 0; }
    // Sets the flag.
    void SetLatencyChecksEnabled(bool enabled) {
        enabled_.store(enabled ? 1 : 0, std::memory_order_relaxed);
    }

    // Sets the process-wide key and its start (a performance-counter reading).
    void SetKey(const char* key, uint64_t startCounter);
    // Sets the calling thread's key and its start; a null key lets the process-wide one
    // apply again.
    void SetThreadKey(const char* key, uint64_t startCounter);
    // Queues a record for `key` measured from `startCounter`; a null key does nothing.
    void AddLatencyStats(const char* key, uint64_t startCounter, const char* const label,
                         const char* const file, int line, const char* function);
    // Queues a record for the current key: the thread's, else the process-wide one; with
    // no key at all nothing is queued.
    void AddLatencyStats(const char* const label, const char* const file, int line,
                         const char* const function);
    // Milliseconds since the current key's start; 0 with no key.
    double GetCurrentLatency();

  private:
    struct Record;

    LatencyKey* GetKey();
    void Queue(const char* key, const SnapshotTimer& start, const char* label, const char* file,
               int line, const char* function);
    void WriteThread();
    static void CleanupTls(void* tracker);

    std::atomic<int32_t> enabled_;
    FastBlockAllocator pool_;
    std::FILE* out_;
    SlotDetails slot_;
    LatencyKey processKey_;
    detail::CriticalSection cs_;
    Record* head_;
    Record* tail_;
    auto_thread writer_;
};

}  // namespace TOLVEN
