// The background writer: one process-wide thread, "AsyncThreadPool", that does the file
// work of the library's logs and transaction files, and `asyncfile`, a file written through it.
//
// A producer takes a block from the file's pool, fills it, and queues it with one
// compare-and-swap on a ring of 100000 slots; it never enters the kernel unless the ring is
// full, and then it waits for room instead of dropping anything. The writer looks at the
// ring every 500 ms (or at once when someone waits for it) and writes what it finds, each
// run of adjacent writes to one file with one system call, so a line reaches the file at
// most about half a second after the call.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "tolven/autothread.h"
#include "tolven/blockallocator.h"
#include "tolven/detail/critical_section.h"
#include "tolven/event.h"
#include "tolven/refobj.h"

namespace TOLVEN {

class AsyncEvents;

// What a queued work item is.
enum asyncitem_kind : uint32_t {
    ASYNCITEM_WRITE = 0,     // an AsyncFileWrite
    ASYNCITEM_CALLBACK = 1,  // an AsyncCallback
};

// The header every work item begins with. Not thread-safe: an item belongs to its owner
// until queued, then to the writer until it is handed back through `events`.
struct AsyncWorkItem {
    uint32_t kind;        // an asyncitem_kind
    AsyncEvents* events;  // the owner, told when the item is done
};

// A positioned write: `length` bytes of data, which follow the record in the same block
// (see Data), go to `position` of `stream`, with `lock` held (when not null).
struct AsyncFileWrite : AsyncWorkItem {
    detail::CriticalSection* lock;
    std::FILE* stream;
    uint64_t position;
    uint32_t length;

    // The data behind the record.
    char* Data() noexcept { return reinterpret_cast<char*>(this + 1); }
    const char* Data() const noexcept { return reinterpret_cast<const char*>(this + 1); }
};
// Bytes the record takes in front of its data: a block for N bytes of data is N + 48.
inline constexpr uint32_t kAsyncWriteHeader = 48;
static_assert(sizeof(AsyncFileWrite) == kAsyncWriteHeader, "the write record takes 48 bytes");

// A call to be made on the writer's thread, in queue order with the writes. Owners derive
// from it and put their own fields behind.
struct AsyncCallback : AsyncWorkItem {};

// The owner of work items. Both operations come on the writer's thread, and hand the item
// back to the owner. Both do nothing by default.
class AsyncEvents {
  public:
    virtual ~AsyncEvents() = default;
    // A write is done: `bytesWritten` of its length reached the file; `errorNumber` is 0
    // or the errno value of what stopped it.
    virtual void AsyncEvent_ProcessWrite(AsyncFileWrite* item, uint32_t bytesWritten,
                                         uint32_t errorNumber);
    // A callback's turn has come.
    virtual void AsyncEvent_OnCallback(AsyncCallback* item);
};

// The process's writer thread and its queue. Reference-counted: GetTp and ReleaseTp pair up,
// and the last ReleaseTp stops the thread. Safe for concurrent use without external locking;
// any number of threads may enqueue.
class AsyncThreadPool : public ReferencedObj {
  public:
    // Slots of the queue.
    static constexpr uint32_t kQueueSlots = 100000;
    // Milliseconds between the writer's looks at the queue.
    static constexpr uint32_t kPollMs = 500;

    // The process's pool, made on first use, with a reference added; null when its thread
    // cannot be started.
    static AsyncThreadPool* GetTp();
    // Drops a reference taken by GetTp; null is ignored.
    static void ReleaseTp(AsyncThreadPool* pool);

    // Queue `item`; waits while the queue is full, and never fails for a valid item. False
    // only for null.
    bool Enqueue(AsyncFileWrite* item);
    bool Enqueue(AsyncCallback* item);

    // Asks the writer to look at the queue now rather than at its next round. For those who
    // wait for the writer; producers do not call it per item.
    void Wake() noexcept;
    // How many times a producer has found the queue full, over the pool's life.
    uint64_t GetBlockedEnqueues() const noexcept {
        return blockedEnqueues_.load(std::memory_order_relaxed);
    }
    // When the writer thread has ended without serving the queue (Windows ends every other
    // thread before a library's exit handlers run), serves the queue on the calling thread,
    // as far as it can, and gives true. False, doing nothing, while the writer runs.
    bool ServeIfWriterEnded();

  private:
    AsyncThreadPool();
    ~AsyncThreadPool() override;
    bool Start();

    static void WriteThread(AsyncThreadPool* pool);
    void DoAsyncThread();
    // Serves the queue until it is empty.
    void ServeQueue();
    void ServeQueueLocked();
    // Writes `first` and the writes behind it in the queue that continue it in the same
    // file, then tells their owners. Gives the item dequeued behind the run, or null.
    AsyncWorkItem* ProcessWrite(AsyncFileWrite* first);
    void ProcessCallback(AsyncCallback* item);

    bool TryEnqueue(AsyncWorkItem* item);
    bool EnqueueItem(AsyncWorkItem* item);
    AsyncWorkItem* Dequeue();

    // The ring. Indexes only grow; a slot is the index modulo the ring's size.
    std::unique_ptr<std::atomic<AsyncWorkItem*>[]> slots_;
    alignas(64) std::atomic<uint64_t> writeIndex_{0};
    alignas(64) std::atomic<uint64_t> readIndex_{0};
    alignas(64) std::atomic<uint64_t> blockedEnqueues_{0};
    bool singleProcessor_ = false;
    Event wake_{true};
    std::atomic<bool> writerEnded_{false};
    detail::CriticalSection serveLock_;
    std::unique_ptr<char[]> staging_;
    auto_thread thread_;
};

// A file written through the writer thread, with the accounting of how far the disk lags
// behind the caller. A second asyncfile (in this process or another) cannot open a file
// that one holds open.
//
// Write, WaitPending, Flush, ReadAt, WriteNow and the accessors are safe for concurrent
// use; the caller serialises its own Writes (it gives each its position) and must not
// race Open or Close with anything else. The calls that wait for the writer (WaitPending,
// Flush, ReadAt, WriteNow, Close) must not come from the writer's own thread. Lock order:
// the file lock and the accounting lock are never held together.
class asyncfile : public AsyncEvents {
  public:
    // A closed file, holding a reference on the writer.
    asyncfile();
    // Closes the file, then drops the reference.
    ~asyncfile() override;
    asyncfile(const asyncfile&) = delete;
    asyncfile& operator=(const asyncfile&) = delete;

    // Opens `path` (made when missing) for writing at its end, with a pool of blocks of
    // `bufferSize` data bytes, at most `maxBlocks` of them (-1: no limit). False when the
    // file cannot be opened, is held by another writer, or the pool cannot be set up.
    bool Open(const char* path, uint32_t bufferSize, int64_t maxBlocks);
    // Waits for pending writes, then closes; the sizes and counters go back to 0.
    void Close();
    // True while open.
    bool IsOpen() const noexcept { return stream_.load(std::memory_order_acquire) != nullptr; }

    // A block for a write of up to GetBufferSize() bytes, its record filled but for
    // `position` and `length`; null when closed or when the pool is exhausted.
    AsyncFileWrite* NewWrite();
    // Gives back a block from NewWrite that is not written after all.
    void FreeWrite(AsyncFileWrite* item);
    // Accounts for `item` and queues it; the block belongs to the writer from here. False
    // (the block given back) when the file is not open.
    bool Write(AsyncFileWrite* item);

    // Waits until every write queued so far is done, or `timeoutMs` (kInfinite: no limit).
    void WaitPending(uint32_t timeoutMs);
    // Waits for every pending write. True when the file is open and every write since the
    // last Flush reached the file.
    bool Flush();
    // Waits for every pending write, then puts the file's data on the device. True when the
    // file is open, the sync succeeded and every write since the last Flush or SyncData
    // reached the file. Runs outside the file lock, so the writer goes on meanwhile; the
    // caller keeps Close away.
    bool SyncData();
    // Reads up to `size` bytes at `position` after the pending writes are done. `outRead`
    // gets the count (0 past the end). False on a read error or when closed.
    bool ReadAt(uint64_t position, void* buffer, uint32_t size, uint32_t* outRead);
    // Writes at once, on the calling thread, after the pending writes are done. False
    // unless all `size` bytes were written.
    bool WriteNow(uint64_t position, const void* buffer, uint32_t size, uint32_t* outWritten);

    // The highest end offset handed to the writer.
    uint64_t GetEndPosition() const noexcept {
        return endPosition_.load(std::memory_order_relaxed);
    }
    // The highest end offset the writer has confirmed.
    uint64_t GetWrittenSize() const noexcept {
        return writtenSize_.load(std::memory_order_relaxed);
    }
    // Writes queued and not yet done.
    uint32_t GetPendingOperations() const noexcept {
        return pendingOperations_.load(std::memory_order_relaxed);
    }
    // The highest number of pending writes seen since Open.
    uint32_t GetMaxPendingOperations() const noexcept {
        return maxPendingOperations_.load(std::memory_order_relaxed);
    }
    // Bytes the writer could not write since Open (a full disk, for instance).
    uint64_t GetFailedSize() const noexcept { return failedSize_.load(std::memory_order_relaxed); }
    // The data bytes of one block.
    uint32_t GetBufferSize() const noexcept { return bufferSize_; }

    void AsyncEvent_ProcessWrite(AsyncFileWrite* item, uint32_t bytesWritten,
                                 uint32_t errorNumber) override;

  private:
    // Logs the first failed write of a run of failures, on the caller's thread.
    void ReportWriteFailure();

    AsyncThreadPool* pool_;
    BlockAllocator blocks_;
    uint32_t bufferSize_ = 0;
    std::string path_;
    mutable detail::CriticalSection accountLock_;
    std::atomic<uint64_t> writtenSize_{0};
    std::atomic<uint64_t> endPosition_{0};
    std::atomic<uint32_t> pendingOperations_{0};
    std::atomic<uint32_t> maxPendingOperations_{0};
    uint32_t flushWaiters_ = 0;
    uint64_t queuedWrites_ = 0;      // writes queued since Open
    uint64_t doneWrites_ = 0;        // writes the writer has done since Open
    uint64_t lowestWaitTarget_ = 0;  // the lowest doneWrites_ a waiter waits for
    std::atomic<uint64_t> failedSize_{0};
    bool failing_ = false;           // the last write failed
    bool failedSinceFlush_ = false;  // some write failed since the last Flush
    uint32_t failureError_ = 0;      // the first failure of the run, to report
    uint64_t failurePosition_ = 0;
    std::atomic<bool> failureToReport_{false};
    mutable detail::CriticalSection fileLock_;
    std::atomic<std::FILE*> stream_{nullptr};
    Event drained_{true};
};

}  // namespace TOLVEN
