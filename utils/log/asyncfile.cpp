// A file written through the writer thread, and its accounting.
#include <cinttypes>

#include "platform/file.h"
#include "tolven/asyncfile.h"
#include "tolven/logapi.h"
#include "tolven/quicklock.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {
namespace {

constexpr uint64_t kBlocksPerAllocation = 1000;
constexpr uint64_t kCompactSeconds = 10;
constexpr uint64_t kReservationFactor = 2;
// How long a waiter sleeps before it looks whether the writer is still there.
constexpr uint32_t kWriterCheckMs = 1000;

}  // namespace

asyncfile::asyncfile()
    : pool_(AsyncThreadPool::GetTp()), blocks_("AsyncFile"), accountLock_(4000), fileLock_(4000) {}

asyncfile::~asyncfile() {
    Close();
    AsyncThreadPool::ReleaseTp(pool_);
}

bool asyncfile::Open(const char* path, uint32_t bufferSize, int64_t maxBlocks) {
    Close();
    if (path == nullptr || path[0] == '\0' || bufferSize == 0) return false;
    if (pool_ == nullptr) pool_ = AsyncThreadPool::GetTp();
    if (pool_ == nullptr) return false;
    {
        HouseLockGuard guard(fileLock_);
        bufferSize_ = bufferSize;
        const uint64_t limit =
            maxBlocks < 0 ? kBlockAllocNoLimit : static_cast<uint64_t>(maxBlocks);
        std::FILE* stream = nullptr;
        uint64_t size = 0;
        if (blocks_.Init(bufferSize + uint64_t{kAsyncWriteHeader}, kBlocksPerAllocation, limit,
                         true, kCompactSeconds, kReservationFactor) == blockalloc_success) {
            stream = platform::OpenFileDenyWrite(path, false);
            if (stream == nullptr) stream = platform::OpenFileDenyWrite(path, true);
        }
        if (stream != nullptr && !platform::GetOpenFileSize(stream, &size)) {
            (void)std::fclose(stream);
            stream = nullptr;
        }
        if (stream != nullptr) {
            try {
                path_.assign(path);
            } catch (...) {
                (void)std::fclose(stream);
                stream = nullptr;
            }
        }
        if (stream != nullptr) {
            HouseLockGuard account(accountLock_);
            writtenSize_.store(size, std::memory_order_relaxed);
            endPosition_.store(size, std::memory_order_relaxed);
            stream_.store(stream, std::memory_order_release);
            return true;
        }
    }
    Close();
    return false;
}

void asyncfile::Close() {
    WaitPending(kInfinite);
    ReportWriteFailure();
    {
        HouseLockGuard guard(fileLock_);
        std::FILE* stream = stream_.exchange(nullptr, std::memory_order_acq_rel);
        if (stream != nullptr) {
            (void)std::fflush(stream);
            (void)std::fclose(stream);
        }
        (void)blocks_.Term();
        bufferSize_ = 0;
        path_.clear();
    }
    HouseLockGuard account(accountLock_);
    writtenSize_.store(0, std::memory_order_relaxed);
    endPosition_.store(0, std::memory_order_relaxed);
    pendingOperations_.store(0, std::memory_order_relaxed);
    queuedWrites_ = doneWrites_ = lowestWaitTarget_ = 0;
    maxPendingOperations_.store(0, std::memory_order_relaxed);
    failedSize_.store(0, std::memory_order_relaxed);
    failing_ = false;
    failedSinceFlush_ = false;
    failureToReport_.store(false, std::memory_order_relaxed);
}

AsyncFileWrite* asyncfile::NewWrite() {
    std::FILE* stream = stream_.load(std::memory_order_acquire);
    if (stream == nullptr) return nullptr;
    auto* item = static_cast<AsyncFileWrite*>(blocks_.GetBlock());
    if (item == nullptr) return nullptr;
    item->kind = ASYNCITEM_WRITE;
    item->events = this;
    item->lock = &fileLock_;
    item->stream = stream;
    item->position = 0;
    item->length = 0;
    return item;
}

void asyncfile::FreeWrite(AsyncFileWrite* item) {
    if (item != nullptr) (void)blocks_.ReleaseBlock(item);
}

bool asyncfile::Write(AsyncFileWrite* item) {
    if (item == nullptr) return false;
    if (!IsOpen()) {
        FreeWrite(item);
        return false;
    }
    if (failureToReport_.load(std::memory_order_relaxed)) ReportWriteFailure();
    {
        HouseLockGuard account(accountLock_);
        const uint64_t end = item->position + item->length;
        if (end > endPosition_.load(std::memory_order_relaxed))
            endPosition_.store(end, std::memory_order_relaxed);
        const uint32_t pending = pendingOperations_.load(std::memory_order_relaxed) + 1;
        pendingOperations_.store(pending, std::memory_order_relaxed);
        ++queuedWrites_;
        if (pending > maxPendingOperations_.load(std::memory_order_relaxed))
            maxPendingOperations_.store(pending, std::memory_order_relaxed);
    }
    return pool_->Enqueue(item);
}

void asyncfile::AsyncEvent_ProcessWrite(AsyncFileWrite* item, uint32_t bytesWritten,
                                        uint32_t errorNumber) {
    const uint64_t position = item->position;
    const uint64_t end = position + bytesWritten;
    const uint32_t missing = item->length - bytesWritten;
    (void)blocks_.ReleaseBlock(item);
    HouseLockGuard account(accountLock_);
    // A write that put nothing in the file confirms nothing: the written size stays, and
    // the gap to the end position shows what the disk refused.
    if (bytesWritten != 0 && end > writtenSize_.load(std::memory_order_relaxed))
        writtenSize_.store(end, std::memory_order_relaxed);
    if (missing != 0) {
        failedSize_.store(failedSize_.load(std::memory_order_relaxed) + missing,
                          std::memory_order_relaxed);
        failedSinceFlush_ = true;
        if (!failing_) {
            // Reported once per run of failures, by the next caller: this thread must not
            // wait for room in the log, whose thread may be waiting for this one.
            failing_ = true;
            failureError_ = errorNumber;
            failurePosition_ = position + bytesWritten;
            failureToReport_.store(true, std::memory_order_relaxed);
        }
    } else {
        failing_ = false;
    }
    const uint32_t pending = pendingOperations_.load(std::memory_order_relaxed) - 1;
    pendingOperations_.store(pending, std::memory_order_relaxed);
    ++doneWrites_;
    // Set under the lock: a waiter cannot see its writes done, return and destroy the file
    // while the event is still being set. A waiter waits for the writes queued before it,
    // not for the queue to run empty, which it may never do while others keep writing.
    if (flushWaiters_ > 0 && (pending == 0 || doneWrites_ >= lowestWaitTarget_))
        (void)drained_.Set();
}

void asyncfile::WaitPending(uint32_t timeoutMs) {
    uint64_t target;
    {
        HouseLockGuard account(accountLock_);
        if (pendingOperations_.load(std::memory_order_relaxed) == 0) return;
        target = queuedWrites_;
        if (flushWaiters_++ == 0 || target < lowestWaitTarget_) lowestWaitTarget_ = target;
    }
    pool_->Wake();
    const uint64_t start = GetTickCount64Ms();
    for (;;) {
        uint32_t slice = kWriterCheckMs;
        if (timeoutMs != kInfinite) {
            const uint64_t gone = GetTickCount64Ms() - start;
            const uint64_t left = gone >= timeoutMs ? 0 : timeoutMs - gone;
            if (left < slice) slice = static_cast<uint32_t>(left);
        }
        const event_status st = WaitForEvent(&drained_, slice);
        {
            HouseLockGuard account(accountLock_);
            if (doneWrites_ >= target) {
                // The event is auto-reset: pass the signal on to the next waiter.
                if (--flushWaiters_ > 0)
                    (void)drained_.Set();
                else
                    drained_.Reset();
                return;
            }
            if (st != event_success && timeoutMs != kInfinite &&
                GetTickCount64Ms() - start >= timeoutMs) {
                --flushWaiters_;
                return;
            }
        }
        if (st != event_success && pool_->ServeIfWriterEnded()) {
            // No writer any more: what could be served is served, the rest never will be.
            HouseLockGuard account(accountLock_);
            if (doneWrites_ < target) {
                --flushWaiters_;
                return;
            }
        }
    }
}

bool asyncfile::Flush() {
    WaitPending(kInfinite);
    ReportWriteFailure();
    bool ok;
    {
        HouseLockGuard guard(fileLock_);
        std::FILE* stream = stream_.load(std::memory_order_relaxed);
        ok = stream != nullptr && std::fflush(stream) == 0;
    }
    HouseLockGuard account(accountLock_);
    ok = ok && !failedSinceFlush_;
    failedSinceFlush_ = false;
    return ok;
}

bool asyncfile::SyncData() {
    WaitPending(kInfinite);
    ReportWriteFailure();
    std::FILE* stream = stream_.load(std::memory_order_acquire);
    bool ok = stream != nullptr && platform::SyncFileData(stream);
    HouseLockGuard account(accountLock_);
    ok = ok && !failedSinceFlush_;
    failedSinceFlush_ = false;
    return ok;
}

bool asyncfile::ReadAt(uint64_t position, void* buffer, uint32_t size, uint32_t* outRead) {
    if (outRead == nullptr) return false;
    *outRead = 0;
    if (buffer == nullptr && size != 0) return false;
    {
        HouseLockGuard account(accountLock_);
        if (position > endPosition_.load(std::memory_order_relaxed)) return true;
    }
    WaitPending(kInfinite);
    HouseLockGuard guard(fileLock_);
    std::FILE* stream = stream_.load(std::memory_order_relaxed);
    if (stream == nullptr) return false;
    size_t read = 0;
    const uint32_t error = platform::ReadFileAt(stream, position, buffer, size, &read);
    *outRead = static_cast<uint32_t>(read);
    return error == 0;
}

bool asyncfile::WriteNow(uint64_t position, const void* buffer, uint32_t size,
                         uint32_t* outWritten) {
    if (outWritten != nullptr) *outWritten = 0;
    if (buffer == nullptr && size != 0) return false;
    WaitPending(kInfinite);
    size_t written = 0;
    uint32_t error;
    {
        HouseLockGuard guard(fileLock_);
        std::FILE* stream = stream_.load(std::memory_order_relaxed);
        if (stream == nullptr) return false;
        error = platform::WriteFileAt(stream, position, buffer, size, &written);
    }
    if (outWritten != nullptr) *outWritten = static_cast<uint32_t>(written);
    if (error != 0 || written != size) return false;
    const uint64_t end = position + size;
    HouseLockGuard account(accountLock_);
    if (end > endPosition_.load(std::memory_order_relaxed))
        endPosition_.store(end, std::memory_order_relaxed);
    if (end > writtenSize_.load(std::memory_order_relaxed))
        writtenSize_.store(end, std::memory_order_relaxed);
    return true;
}

void asyncfile::ReportWriteFailure() {
    if (!failureToReport_.exchange(false, std::memory_order_relaxed)) return;
    uint32_t error;
    uint64_t position;
    {
        HouseLockGuard account(accountLock_);
        error = failureError_;
        position = failurePosition_;
    }
    std::string path;
    {
        HouseLockGuard guard(fileLock_);
        path = path_;
    }
    TOLVEN_LOG(LOGGER_ERROR, "asyncfile", "TOLVEN::asyncfile::Write",
               "Cannot write to file <%s> at offset %" PRIu64
               ", error %u; later failures are counted until a write succeeds",
               path.c_str(), position, error);
}

}  // namespace TOLVEN
