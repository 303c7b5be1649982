// The transaction file: appends through the writer, reads from the file, the check on open.
#include "tolven/transdb.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "platform/file.h"
#include "platform/thread.h"
#include "tolven/blobtyped.h"
#include "tolven/logapi.h"
#include "tolven/quicklock.h"
#include "transdb/TransDbRecord.h"

namespace TOLVEN {
namespace {

constexpr const char* kLogFile = "transdb/TransDb";
constexpr const char* kKeyField = "RecNum";
// Records up to this size are built on the stack.
constexpr uint32_t kStackRecord = 8000;
constexpr uint32_t kAlternateHeaderSize = 44;
constexpr uint64_t kRecordsPerProgressLine = 1000000;
constexpr uint32_t kCloseWaitStepMs = 100;

// The key's "RecNum"; false when the key has none.
bool KeyRecNum(const _BLOB_INFO* key, uint64_t* out) {
    return key != nullptr && GetByNameU64(key, kKeyField, out) == BLOB_STATUS_SUCCESS;
}

// Empties `key` and gives it `recNum`.
void SetKey(_BLOB_INFO* key, uint64_t recNum) {
    if (key == nullptr) return;
    (void)Clear(key);
    (void)AddU64(key, kKeyField, recNum);
}

void ClearBlob(_BLOB_INFO* blob) {
    if (blob != nullptr) (void)Clear(blob);
}

// Holds a read slot for a scope.
class ReadScope {
  public:
    explicit ReadScope(std::atomic<uint32_t>* readers) noexcept : readers_(readers) {}
    ~ReadScope() {
        if (readers_ != nullptr) readers_->fetch_sub(1, std::memory_order_acq_rel);
    }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

  private:
    std::atomic<uint32_t>* readers_;
};

}  // namespace

TransDb::TransDb() : lock_(4000) {
    Init();
}

TransDb::~TransDb() {
    CloseImpl(true);
}

void TransDb::Init() {
    accepting_ = true;
    writePosition_ = 0;
    lastRecordPosition_ = 0;
    lastRecNum_ = 0;
    recordCount_ = 0;
    synchronous_ = false;
    fileName_.clear();
    fileVersion_ = 0;
    headerSize_ = kTransDbHeaderSize;
    syncedPosition_.store(0, std::memory_order_relaxed);
    appendedEnd_.store(0, std::memory_order_relaxed);
    syncBroken_.store(false, std::memory_order_relaxed);
    syncCount_.store(0, std::memory_order_relaxed);
}

void TransDb::CloseImpl(bool releaseLock) {
    detail::EnterHouse(lock_);
    accepting_ = false;
    lock_.Leave();
    while (readers_.load(std::memory_order_acquire) != 0)
        platform::SleepMs(kCloseWaitStepMs);
    // A sync that runs finishes before the file goes, and no other starts until it is gone.
    std::unique_lock<std::mutex> sync(syncMutex_);
    syncDone_.wait(sync, [this] { return !syncing_; });
    detail::EnterHouse(lock_);
    file_.Close();
    Init();
    sync.unlock();
    syncDone_.notify_all();
    if (releaseLock) lock_.Leave();
}

csdb_status TransDb::Open(const char* path, uint64_t, bool synchronous, uint32_t bufferSize,
                          uint32_t maxBlocks, double, bool tryAlternateHeader) {
    CloseImpl(false);
    const int64_t blocks = maxBlocks == 0 || maxBlocks == 0xFFFFFFFFu ? -1 : int64_t{maxBlocks};
    if (path == nullptr || !file_.Open(path, bufferSize, blocks)) {
        CloseImpl(true);
        return CSDB_IO_ERROR;
    }
    TOLVEN_LOG(LOGGER_NORMAL, kLogFile, "TOLVEN::TransDb::Open", "Successfully opened file %s",
               path);
    const uint64_t size = file_.GetWrittenSize();
    uint32_t version = 0;
    if (size > 0) {
        unsigned char bytes[4];
        uint32_t got = 0;
        if (!file_.ReadAt(0, bytes, 4, &got) || got != 4) {
            CloseImpl(true);
            return CSDB_IO_ERROR;
        }
        version = detail::LoadU32(bytes);
    }
    if (version > kTransDbVersion) {
        CloseImpl(true);
        return CSDB_BAD_VERSION;
    }
    headerSize_ = kTransDbHeaderSize;
    const bool needsHeader = version == 0;
    fileVersion_ = needsHeader ? kTransDbVersion : version;
    // The records are checked before a header is written, so that a file refused is a file
    // unchanged.
    csdb_status st = ValidateFile();
    if (st != CSDB_SUCCESS && tryAlternateHeader && fileVersion_ < 2) {
        headerSize_ = kAlternateHeaderSize;
        st = ValidateFile();
    }
    if (st == CSDB_SUCCESS && needsHeader) {
        unsigned char header[kTransDbHeaderSize] = {};
        const uint32_t v = kTransDbVersion;
        std::memcpy(header, &v, sizeof(v));
        if (synchronous) {
            uint32_t written = 0;
            if (!file_.WriteNow(0, header, sizeof(header), &written)) st = CSDB_IO_ERROR;
        } else {
            for (uint32_t done = 0; done < sizeof(header) && st == CSDB_SUCCESS;) {
                AsyncFileWrite* item = file_.NewWrite();
                if (item == nullptr) {
                    st = CSDB_IO_ERROR;
                    break;
                }
                const uint32_t left = static_cast<uint32_t>(sizeof(header)) - done;
                const uint32_t piece = left < bufferSize ? left : bufferSize;
                std::memcpy(item->Data(), header + done, piece);
                item->position = done;
                item->length = piece;
                if (!file_.Write(item)) st = CSDB_IO_ERROR;
                done += piece;
            }
        }
    }
    if (st != CSDB_SUCCESS) {
        CloseImpl(true);
        return st;
    }
    try {
        fileName_.assign(path);
    } catch (...) {
        CloseImpl(true);
        return CSDB_OUT_OF_MEMORY;
    }
    synchronous_ = synchronous;
    syncedPosition_.store(writePosition_, std::memory_order_relaxed);
    appendedEnd_.store(writePosition_, std::memory_order_relaxed);
    lock_.Leave();
    return CSDB_SUCCESS;
}

csdb_status TransDb::ValidateFile() {
    uint64_t position = headerSize_;
    const uint64_t size = file_.GetWrittenSize();
    uint64_t count = 0;
    uint64_t last = 0;
    uint64_t lastPosition = 0;
    csdb_status st = CSDB_END;
    while (position + detail::kTransDbOverhead < size) {
        uint64_t recNum = 0;
        uint32_t totalSize = 0;
        st = ReadUserRecord(position, detail::kTransDbNoLimit, nullptr, &recNum, &totalSize);
        if (st != CSDB_SUCCESS) break;
        if (recNum > last) last = recNum;
        if (++count % kRecordsPerProgressLine == 0)
            TOLVEN_LOG(LOGGER_NORMAL, kLogFile, "TOLVEN::TransDb::ValidateFile",
                       "   %u million TransDb records validated so far...",
                       static_cast<unsigned>(count / kRecordsPerProgressLine));
        lastPosition = position;
        position += totalSize;
    }
    if (st != CSDB_SUCCESS && st != CSDB_END) {
        writePosition_ = lastRecordPosition_ = lastRecNum_ = recordCount_ = 0;
        return st;
    }
    writePosition_ = position;
    lastRecordPosition_ = lastPosition;
    lastRecNum_ = last;
    recordCount_ = count;
    return CSDB_SUCCESS;
}

csdb_status TransDb::ReadUserRecord(uint64_t position, uint64_t limit, _BLOB_INFO* outBlob,
                                    uint64_t* outRecNum, uint32_t* outTotalSize) {
    *outRecNum = 0;
    *outTotalSize = 0;
    auto read = [this](uint64_t at, void* buffer, uint32_t size, uint32_t* got) {
        return file_.ReadAt(at, buffer, size, got);
    };
    unsigned char buf[detail::kTransDbFirstRead];
    uint32_t got = 0;
    _TRANSDB_ITEM_HDR hdr;
    csdb_status st = detail::ProbeRecord(read, position, limit, buf, &got, &hdr);
    if (st != CSDB_SUCCESS) return st;
    if (outBlob != nullptr) {
        const unsigned char* record = buf;
        std::unique_ptr<unsigned char[]> whole;
        if (hdr.TotalSize > got) {
            whole.reset(new (std::nothrow) unsigned char[hdr.TotalSize]);
            if (!whole) return CSDB_OUT_OF_MEMORY;
            uint32_t wholeGot = 0;
            if (!file_.ReadAt(position, whole.get(), hdr.TotalSize, &wholeGot) ||
                wholeGot != hdr.TotalSize)
                return CSDB_IO_ERROR;
            _TRANSDB_ITEM_HDR again;
            if (detail::CheckRecordHeader(whole.get(), wholeGot, &again) != CSDB_SUCCESS ||
                again.TotalSize != hdr.TotalSize ||
                detail::LoadU32(whole.get() + hdr.TotalSize - 4) != hdr.TotalSize)
                return CSDB_CORRUPT;
            hdr = again;
            record = whole.get();
        }
        _BLOB_INFO* temp = nullptr;
        const blob_status bs =
            CreateBlob(&temp, record + sizeof(_TRANSDB_ITEM_HDR),
                       hdr.TotalSize - detail::kTransDbOverhead, true, BLOB_CREATE_DEFAULT);
        if (bs != BLOB_STATUS_SUCCESS)
            return bs == BLOB_STATUS_OUT_OF_MEMORY ? CSDB_OUT_OF_MEMORY : CSDB_CORRUPT;
        st = SwapBlobs(outBlob, temp) == BLOB_STATUS_SUCCESS ? CSDB_SUCCESS : CSDB_OUT_OF_MEMORY;
        (void)ReleaseBlob(&temp);
        if (st != CSDB_SUCCESS) return st;
    }
    *outRecNum = hdr.RecNum;
    *outTotalSize = hdr.TotalSize;
    return CSDB_SUCCESS;
}

bool TransDb::AquireRead(ReadView* view) {
    HouseLockGuard guard(lock_);
    if (!accepting_ || !file_.IsOpen()) return false;
    view->count = recordCount_;
    view->writePosition = writePosition_;
    view->lastPosition = lastRecordPosition_;
    readers_.fetch_add(1, std::memory_order_acq_rel);
    return true;
}

void TransDb::ReleaseRead() noexcept {
    readers_.fetch_sub(1, std::memory_order_acq_rel);
}

bool TransDb::IsValid(const csdb_context* ctx, uint64_t writePosition, uint64_t count) const {
    if (ctx == nullptr) return false;
    uint64_t identity;
    std::memcpy(&identity, &ctx->indexNumber, sizeof(identity));
    return identity == reinterpret_cast<uintptr_t>(&file_) && ctx->reserved >= headerSize_ &&
           writePosition >= ctx->reserved + detail::kTransDbOverhead && count >= ctx->node &&
           ctx->node != 0;
}

bool TransDb::IsValid(const csdb_context* ctx) {
    HouseLockGuard guard(lock_);
    return IsValid(ctx, writePosition_, recordCount_);
}

bool TransDb::IsItemValid(uint64_t position, uint64_t recNum, uint64_t limit) {
    uint64_t found = 0;
    uint32_t totalSize = 0;
    return ReadUserRecord(position, limit, nullptr, &found, &totalSize) == CSDB_SUCCESS &&
           found == recNum;
}

void TransDb::FillContext(csdb_context* ctx, uint64_t recNum, uint64_t position) const noexcept {
    if (ctx == nullptr) return;
    ctx->node = recNum;
    ctx->reserved = position;
    const uint64_t identity = reinterpret_cast<uintptr_t>(&file_);
    std::memcpy(&ctx->indexNumber, &identity, sizeof(identity));
}

csdb_status TransDb::Bound(uint64_t limit, uint64_t recNum, bool strictlyAbove, uint64_t* outRecNum,
                           uint64_t* outPosition, _BLOB_INFO* outBlob) {
    *outRecNum = 0;
    *outPosition = 0;
    uint64_t position = headerSize_;
    if (position + detail::kTransDbOverhead >= limit) return CSDB_NOT_FOUND;
    auto read = [this](uint64_t at, void* buffer, uint32_t size, uint32_t* got) {
        return file_.ReadAt(at, buffer, size, got);
    };
    unsigned char buf[detail::kTransDbFirstRead];
    for (;;) {
        uint32_t got = 0;
        _TRANSDB_ITEM_HDR hdr;
        if (detail::ProbeRecord(read, position, limit, buf, &got, &hdr) != CSDB_SUCCESS)
            return CSDB_NOT_FOUND;
        *outRecNum = hdr.RecNum;
        if (strictlyAbove ? hdr.RecNum > recNum : hdr.RecNum >= recNum) {
            *outPosition = position;
            uint32_t totalSize = 0;
            return ReadUserRecord(position, limit, outBlob, outRecNum, &totalSize);
        }
        position += hdr.TotalSize;
        *outPosition = position;
        if (position + detail::kTransDbOverhead >= limit) return CSDB_SUCCESS;
    }
}

csdb_status TransDb::lower_bound(uint64_t limit, uint64_t recNum, uint64_t* outRecNum,
                                 uint64_t* outPosition, _BLOB_INFO* outBlob) {
    return Bound(limit, recNum, false, outRecNum, outPosition, outBlob);
}

csdb_status TransDb::upper_bound(uint64_t limit, uint64_t recNum, uint64_t* outRecNum,
                                 uint64_t* outPosition, _BLOB_INFO* outBlob) {
    return Bound(limit, recNum, true, outRecNum, outPosition, outBlob);
}

csdb_status TransDb::Begin(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                           csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    if (key == nullptr && ctx == nullptr) return CSDB_BAD_ARGUMENT;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) {
        ClearBlob(key);
        ClearBlob(row);
        return CSDB_END;
    }
    uint64_t recNum = 0, position = 0;
    const csdb_status st = lower_bound(view.writePosition, 0, &recNum, &position, row);
    if (st != CSDB_SUCCESS) return st;
    SetKey(key, recNum);
    FillContext(ctx, recNum, position);
    return CSDB_SUCCESS;
}

csdb_status TransDb::End(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row, csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    if (key == nullptr && ctx == nullptr) return CSDB_BAD_ARGUMENT;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) {
        ClearBlob(key);
        ClearBlob(row);
        return CSDB_END;
    }
    uint64_t recNum = 0;
    uint32_t totalSize = 0;
    const csdb_status st =
        ReadUserRecord(view.lastPosition, view.writePosition, row, &recNum, &totalSize);
    if (st != CSDB_SUCCESS) return st;
    SetKey(key, recNum);
    FillContext(ctx, recNum, view.lastPosition);
    return CSDB_SUCCESS;
}

csdb_status TransDb::GetFirst(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                              csdb_context* ctx) {
    return ReadFromBound(false, index, key, row, ctx);
}

csdb_status TransDb::GetLast(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                             csdb_context* ctx) {
    return ReadFromBound(true, index, key, row, ctx);
}

csdb_status TransDb::ReadFromBound(bool upper, unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                   csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    if (key == nullptr) return CSDB_BAD_ARGUMENT;
    uint64_t wanted = 0;
    if (!KeyRecNum(key, &wanted)) return CSDB_CONVERT_FAILED;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    uint64_t recNum = 0, position = 0;
    ClearBlob(row);
    const csdb_status st = upper ? upper_bound(view.writePosition, wanted, &recNum, &position, row)
                                 : lower_bound(view.writePosition, wanted, &recNum, &position, row);
    if (st != CSDB_SUCCESS) return st;
    SetKey(key, recNum);
    FillContext(ctx, recNum, position);
    return CSDB_SUCCESS;
}

csdb_status TransDb::GetNext(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                             csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    uint64_t wanted = 0;
    const bool haveKey = key != nullptr;
    if (haveKey && !KeyRecNum(key, &wanted)) return CSDB_CONVERT_FAILED;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) return CSDB_END;
    uint64_t recNum = 0, position = 0;
    csdb_status st;
    if (IsValid(ctx, view.writePosition, view.count) && [&] {
            uint32_t totalSize = 0;
            if (ReadUserRecord(ctx->reserved, view.writePosition, nullptr, &recNum, &totalSize) !=
                    CSDB_SUCCESS ||
                recNum != ctx->node)
                return false;
            position = ctx->reserved + totalSize;
            return true;
        }()) {
        uint32_t totalSize = 0;
        st = ReadUserRecord(position, view.writePosition, row, &recNum, &totalSize);
    } else {
        if (!haveKey) return CSDB_BAD_ARGUMENT;
        st = lower_bound(view.writePosition, wanted, &recNum, &position, row);
    }
    if (st != CSDB_SUCCESS) return st;
    SetKey(key, recNum);
    FillContext(ctx, recNum, position);
    return CSDB_SUCCESS;
}

csdb_status TransDb::GetPrev(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                             csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    uint64_t wanted = 0;
    const bool haveKey = key != nullptr;
    if (haveKey && !KeyRecNum(key, &wanted)) return CSDB_CONVERT_FAILED;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) return CSDB_END;
    uint64_t recNum = 0, position = 0;
    csdb_status st;
    if (IsValid(ctx, view.writePosition, view.count)) {
        const uint64_t at = ctx->reserved;
        if (at <= headerSize_ || at - 4 <= headerSize_) return CSDB_BEGIN;
        unsigned char footer[4];
        uint32_t got = 0;
        if (!file_.ReadAt(at - 4, footer, 4, &got) || got != 4) return CSDB_IO_ERROR;
        const uint32_t previous = detail::LoadU32(footer);
        if (previous < detail::kTransDbOverhead || previous > at - headerSize_) return CSDB_CORRUPT;
        position = at - previous;
        uint32_t totalSize = 0;
        st = ReadUserRecord(position, view.writePosition, row, &recNum, &totalSize);
        if (st == CSDB_SUCCESS && totalSize != previous) st = CSDB_CORRUPT;
    } else {
        if (!haveKey) return CSDB_BAD_ARGUMENT;
        st = upper_bound(view.writePosition, wanted, &recNum, &position, row);
    }
    if (st != CSDB_SUCCESS) return st;
    SetKey(key, recNum);
    FillContext(ctx, recNum, position);
    return CSDB_SUCCESS;
}

csdb_status TransDb::FindExact(unsigned int index, const _BLOB_INFO* key, _BLOB_INFO* row,
                               csdb_context* ctx) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    if (key == nullptr) return CSDB_BAD_ARGUMENT;
    uint64_t wanted = 0;
    if (!KeyRecNum(key, &wanted)) return CSDB_CONVERT_FAILED;
    _BLOB_INFO* temp = nullptr;
    if (row == nullptr) {
        if (CreateBlob(&temp) != BLOB_STATUS_SUCCESS) return CSDB_OUT_OF_MEMORY;
        row = temp;
    }
    struct TempGuard {
        _BLOB_INFO** blob;
        ~TempGuard() {
            if (*blob != nullptr) (void)ReleaseBlob(blob);
        }
    } tempGuard{&temp};
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) return CSDB_END;
    uint64_t recNum = 0;
    if (IsValid(ctx, view.writePosition, view.count) && ctx->node == wanted) {
        uint32_t totalSize = 0;
        if (ReadUserRecord(ctx->reserved, view.writePosition, row, &recNum, &totalSize) ==
                CSDB_SUCCESS &&
            recNum == wanted)
            return CSDB_SUCCESS;
    }
    uint64_t position = 0;
    const csdb_status st = lower_bound(view.writePosition, wanted, &recNum, &position, row);
    if (st != CSDB_SUCCESS) return st;
    if (recNum != wanted) {
        ClearBlob(row);
        return CSDB_NOT_FOUND;
    }
    FillContext(ctx, recNum, position);
    return CSDB_SUCCESS;
}

csdb_status TransDb::FindExact(unsigned int index, csdb_context* ctx, _BLOB_INFO* key,
                               _BLOB_INFO* row) {
    if (index != 0) return CSDB_NO_SUCH_INDEX;
    ReadView view;
    if (!AquireRead(&view)) return CSDB_NOT_OPEN;
    ReadScope scope(&readers_);
    if (view.count == 0) return CSDB_NOT_FOUND;
    if (!IsValid(ctx, view.writePosition, view.count)) return CSDB_BAD_ARGUMENT;
    ClearBlob(key);
    uint64_t recNum = 0;
    uint32_t totalSize = 0;
    const csdb_status st =
        ReadUserRecord(ctx->reserved, view.writePosition, row, &recNum, &totalSize);
    if (st != CSDB_SUCCESS) return st;
    if (recNum != ctx->node) return CSDB_CORRUPT;
    SetKey(key, recNum);
    return CSDB_SUCCESS;
}

csdb_status TransDb::WriteRecord(const unsigned char* bytes, uint32_t size) {
    if (synchronous_) {
        uint32_t written = 0;
        return file_.WriteNow(writePosition_, bytes, size, &written) ? CSDB_SUCCESS : CSDB_IO_ERROR;
    }
    const uint32_t pieceSize = file_.GetBufferSize();
    for (uint32_t done = 0; done < size;) {
        AsyncFileWrite* item = file_.NewWrite();
        if (item == nullptr) {
            // The writer's pool is at its limit: make room by waiting for it once.
            file_.WaitPending(kInfinite);
            item = file_.NewWrite();
            if (item == nullptr) return CSDB_IO_ERROR;
        }
        const uint32_t left = size - done;
        const uint32_t piece = left < pieceSize ? left : pieceSize;
        std::memcpy(item->Data(), bytes + done, piece);
        item->position = writePosition_ + done;
        item->length = piece;
        if (!file_.Write(item)) return CSDB_IO_ERROR;
        done += piece;
    }
    return CSDB_SUCCESS;
}

csdb_status TransDb::Add(const _BLOB_INFO* row, csdb_context* ctx) {
    if (ctx != nullptr) *ctx = csdb_context{};
    if (row == nullptr) return CSDB_BAD_ARGUMENT;
    unsigned char* image = nullptr;
    uint64_t length = 0;
    if (GetBlobPtr(row, &image, &length) != BLOB_STATUS_SUCCESS || image == nullptr ||
        length == 0 || GetNumFields(row) == 0)
        return CSDB_CONVERT_FAILED;
    if (length > 0xFFFFFFFFull - detail::kTransDbOverhead) return CSDB_CONVERT_FAILED;
    const uint32_t totalSize = static_cast<uint32_t>(length) + detail::kTransDbOverhead;

    unsigned char stackRecord[kStackRecord];
    std::unique_ptr<unsigned char[]> heapRecord;
    unsigned char* record = stackRecord;
    if (totalSize > kStackRecord) {
        heapRecord.reset(new (std::nothrow) unsigned char[totalSize]);
        if (!heapRecord) return CSDB_OUT_OF_MEMORY;
        record = heapRecord.get();
    }
    _TRANSDB_ITEM_HDR hdr{0, 0, totalSize};
    std::memcpy(record + sizeof(hdr), image, length);
    std::memcpy(record + totalSize - 4, &totalSize, 4);

    uint64_t end;
    {
        HouseLockGuard guard(lock_);
        if (!accepting_ || !file_.IsOpen()) return CSDB_NOT_OPEN;
        hdr.RecNum = lastRecNum_ + 1;
        std::memcpy(record, &hdr, sizeof(hdr));
        const csdb_status st = WriteRecord(record, totalSize);
        if (st != CSDB_SUCCESS) return st;
        FillContext(ctx, hdr.RecNum, writePosition_);
        lastRecordPosition_ = writePosition_;
        writePosition_ += totalSize;
        end = writePosition_;
        appendedEnd_.store(end, std::memory_order_release);
        ++lastRecNum_;
        ++recordCount_;
    }
    if (syncAtCommit_.load(std::memory_order_relaxed)) return SyncUpTo(end);
    return CSDB_SUCCESS;
}

csdb_status TransDb::SyncUpTo(uint64_t end) {
    if (syncedPosition_.load(std::memory_order_acquire) >= end &&
        !syncBroken_.load(std::memory_order_relaxed))
        return CSDB_SUCCESS;
    std::unique_lock<std::mutex> lock(syncMutex_);
    // One thread syncs at a time; the others wait for it together, and each leaves as soon
    // as a sync has covered its record. Whoever is still not covered leads the next one.
    for (;;) {
        if (syncBroken_.load(std::memory_order_relaxed)) return CSDB_IO_ERROR;
        if (syncedPosition_.load(std::memory_order_acquire) >= end) return CSDB_SUCCESS;
        if (!syncing_) break;
        syncDone_.wait(lock);
    }
    syncing_ = true;
    lock.unlock();
    // Appenders a moment behind this one join its sync.
    platform::YieldThread();
    // Everything appended so far is queued: one sync covers it all.
    const uint64_t target = appendedEnd_.load(std::memory_order_acquire);
    const bool ok = file_.SyncData();
    lock.lock();
    syncing_ = false;
    if (ok) {
        syncCount_.fetch_add(1, std::memory_order_relaxed);
        syncedPosition_.store(target, std::memory_order_release);
    } else {
        // Some record may be missing from the device; no later Add can promise otherwise.
        syncBroken_.store(true, std::memory_order_relaxed);
    }
    syncDone_.notify_all();
    return ok ? CSDB_SUCCESS : CSDB_IO_ERROR;
}

void TransDb::SetSyncAtCommit(bool on) noexcept {
    syncAtCommit_.store(on, std::memory_order_relaxed);
}

csdb_status TransDb::Close() {
    CloseImpl(true);
    return CSDB_SUCCESS;
}

bool TransDb::IsOpen() {
    HouseLockGuard guard(lock_);
    return file_.IsOpen();
}

csdb_status TransDb::Truncate() {
    HouseLockGuard guard(lock_);
    if (!file_.IsOpen()) {
        TOLVEN_LOG(LOGGER_ERROR, kLogFile, "TOLVEN::TransDb::Truncate",
                   "Error truncating file <%s>", fileName_.c_str());
        return CSDB_IO_ERROR;
    }
    if (file_.GetEndPosition() > writePosition_) file_.WaitPending(kInfinite);
    return CSDB_SUCCESS;
}

csdb_status TransDb::GetFileName(char* buffer, size_t* size) {
    if (buffer == nullptr || size == nullptr) return CSDB_BAD_ARGUMENT;
    HouseLockGuard guard(lock_);
    if (fileName_.empty()) {
        if (*size > 0) buffer[0] = '\0';
        *size = 0;
        return CSDB_NOT_OPEN;
    }
    const size_t room = *size;
    *size = fileName_.size();
    if (room <= fileName_.size()) {
        if (room > 0) buffer[0] = '\0';
        return CSDB_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, fileName_.c_str(), fileName_.size() + 1);
    return CSDB_SUCCESS;
}

uint64_t TransDb::GetCurrFileSize() {
    return file_.GetWrittenSize();
}

uint64_t TransDb::GetCurrWritePosition() {
    HouseLockGuard guard(lock_);
    return writePosition_;
}

uint32_t TransDb::GetMaxPendingOperationsReached() {
    return file_.GetMaxPendingOperations();
}

size_t TransDb::NumIndexes() {
    return 1;
}

size_t TransDb::Count() {
    HouseLockGuard guard(lock_);
    return static_cast<size_t>(recordCount_);
}

csdb_status TransDb::Clear() {
    std::string name;
    bool synchronous;
    {
        HouseLockGuard guard(lock_);
        if (fileName_.empty()) return CSDB_NOT_OPEN;
        name = fileName_;
        synchronous = synchronous_;
    }
    CloseImpl(true);
    (void)platform::RemoveFile(name.c_str());
    return Open(name.c_str(), 0, synchronous, 2048, 0xFFFFFFFFu, 0.1, false);
}

csdb_status TransDb::GetApprox(unsigned int, _BLOB_INFO*, _BLOB_INFO*, csdb_context*) {
    return CSDB_NOT_SUPPORTED;
}

csdb_status TransDb::DeleteAll(unsigned int, const _BLOB_INFO*, csdb_context*) {
    return CSDB_NOT_SUPPORTED;
}

csdb_status TransDb::DeleteItem(csdb_context*) {
    return CSDB_NOT_SUPPORTED;
}

csdb_status TransDb::Update(unsigned int, const _BLOB_INFO*, const _BLOB_INFO*, csdb_context*) {
    return CSDB_NOT_SUPPORTED;
}

}  // namespace TOLVEN
