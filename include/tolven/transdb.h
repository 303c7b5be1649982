// The transaction file: a table of blobs kept in one append-only file, a durable journal.
// Each Add appends one record with the next record number; nothing is changed or deleted in
// place. The record number is the only key, and the table keeps nothing of the file in
// memory but four numbers: every row is read from the file.
//
// File format (little-endian):
//   header, 48 bytes      u32 version (2 in files made here; 1 in older ones, whose header
//                         may also be 44 bytes long), then zeros
//   records, one behind the other, each:
//     u64 RecNum          the record's number; 1 for the first, one more for each next
//     u32 reserved        zero
//     u32 TotalSize       the whole record: 16 + payload + 4
//     payload             the blob's serialised form (GetBlobPtr)
//     u32 TotalSize       again, so the file can be walked backwards
//   A TotalSize above 1024000 or from 1 to 19 is corrupt. A TotalSize of 0 with a zero
//   number, zero reserved word and zero bytes 16-19 is a blank record: the data ends there.
//
// Open walks the whole file and checks every record. A tail of at most 20 bytes behind the
// last whole record, or a blank one, is forgotten and overwritten by the next Add. Anything
// else (a longer torn record, a bad footer) makes Open fail with CSDB_CORRUPT or
// CSDB_IO_ERROR and leaves the file exactly as it was: no record is half-accepted and none
// is dropped by guesswork. CheckTransDbFile and RepairTransDbFile (and the tolven-transdb
// tool) then show what lies behind the last whole record, and move it to a side file.
//
// What "written" means when Add returns, by mode:
//   background (the default)  the record is handed to the writer thread ("AsyncThreadPool"),
//                             which writes it within about half a second. Readers see it at
//                             once (a read waits for the writer). A process killed before the
//                             writer got to it loses it.
//   synchronous (Open's flag) the record is in the operating system: it survives the
//                             process, not a power cut.
//   sync at commit            the record is on the device (SetSyncAtCommit): the data is
//                             synced before Add returns. Appenders that arrive while a sync
//                             runs share the next one (group commit).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "tolven/asyncfile.h"
#include "tolven/blob.h"
#include "tolven/csdb.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN {

// The header in front of each record's payload. Plain value; not thread-safe.
struct _TRANSDB_ITEM_HDR {
    uint64_t RecNum;     // the record's number
    uint32_t reserved;   // zero
    uint32_t TotalSize;  // header, payload and footer
};
static_assert(sizeof(_TRANSDB_ITEM_HDR) == 16, "the record header is 16 bytes");

// The footer behind each record's payload. Plain value; not thread-safe.
struct _TRANSDB_ITEM_FTR {
    uint32_t TotalSize;  // equal to the header's
};
static_assert(sizeof(_TRANSDB_ITEM_FTR) == 4, "the record footer is 4 bytes");

// The largest TotalSize a valid record has.
inline constexpr uint32_t kTransDbMaxRecord = 1024000;
// The header size of files made here.
inline constexpr uint32_t kTransDbHeaderSize = 48;
// The version of files made here.
inline constexpr uint32_t kTransDbVersion = 2;

// A table in one append-only file. The key blob holds one field, "RecNum" (u64); index 0 is
// the only index. A context holds the record number, the record's position and the file's
// identity. Safe for concurrent use without external locking: appends are serialised by one
// lock, reads run without it and see the records that existed when they began, and Close
// waits for running reads. Open, Close and Clear must not race each other.
class TransDb : public csdb {
  public:
    // A closed table.
    TransDb();
    // Closes the file.
    ~TransDb() override;
    TransDb(const TransDb&) = delete;
    TransDb& operator=(const TransDb&) = delete;

    // Opens (or makes) the file at `path`, checks every record and readies the next
    // number. `synchronous` writes on the caller's thread instead of through the writer;
    // `bufferSize` is the writer's block (records are cut into pieces of this size) and
    // `maxBlocks` its limit (0 or 0xFFFFFFFF: none). `tryAlternateHeader` lets a version-1
    // file with a 44-byte header open. `unused1` and `unused2` have no effect.
    csdb_status Open(const char* path, uint64_t unused1, bool synchronous, uint32_t bufferSize,
                     uint32_t maxBlocks, double unused2, bool tryAlternateHeader);
    // Waits for running reads and pending writes, then closes. CSDB_SUCCESS also when closed.
    csdb_status Close();
    // True while a file is open.
    bool IsOpen();
    // Waits for pending writes; the file keeps its length (a forgotten tail is overwritten
    // as records come). CSDB_IO_ERROR when closed.
    csdb_status Truncate();
    // The path into `buffer`; *size is room in, the name's length out.
    csdb_status GetFileName(char* buffer, size_t* size);
    // Bytes of the file the writer has confirmed.
    uint64_t GetCurrFileSize();
    // Where the next record goes.
    uint64_t GetCurrWritePosition();
    // The highest number of writes that were waiting for the writer at once.
    uint32_t GetMaxPendingOperationsReached();
    // With `on`, Add returns only once its record is on the device (see the file comment).
    // Off by default; kept across Open, Close and Clear.
    void SetSyncAtCommit(bool on) noexcept;
    // The number of device syncs made since Open (a group commit makes one for many Adds).
    uint64_t GetSyncCount() const noexcept { return syncCount_.load(std::memory_order_relaxed); }

    // The row at the record the context points to, which must hold ctx's number; `key`,
    // when given, gets "RecNum".
    csdb_status FindExact(unsigned int index, csdb_context* ctx, _BLOB_INFO* key, _BLOB_INFO* row);

    // The table contract. Begin and End need `key` or `ctx`; GetFirst, GetLast and
    // FindExact need a key with "RecNum". GetFirst and GetLast search forwards from the
    // start of the file (at or above, strictly above the number); a number beyond the last
    // record answers CSDB_SUCCESS with the last number and no row. GetNext and GetPrev move
    // from a usable context in one or two reads; without one they search by the key.
    csdb_status FindExact(unsigned int index, const _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override;
    csdb_status Begin(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                      csdb_context* ctx) override;
    csdb_status End(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                    csdb_context* ctx) override;
    csdb_status GetFirst(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                         csdb_context* ctx) override;
    csdb_status GetNext(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override;
    csdb_status GetPrev(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override;
    csdb_status GetLast(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override;
    // Appends `row` as the next record; `ctx`, when given, points to it.
    csdb_status Add(const _BLOB_INFO* row, csdb_context* ctx) override;
    // Always 1.
    size_t NumIndexes() override;
    // Records in the file.
    size_t Count() override;
    // Deletes the file and opens it anew, empty.
    csdb_status Clear() override;
    // Records are never changed: these give CSDB_NOT_SUPPORTED.
    csdb_status GetApprox(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override;
    csdb_status DeleteAll(unsigned int index, const _BLOB_INFO* key, csdb_context* ctx) override;
    csdb_status DeleteItem(csdb_context* ctx) override;
    csdb_status Update(unsigned int index, const _BLOB_INFO* key, const _BLOB_INFO* row,
                       csdb_context* ctx) override;

  private:
    struct ReadView {
        uint64_t count;
        uint64_t writePosition;
        uint64_t lastPosition;
    };

    void Init();
    void CloseImpl(bool releaseLock);
    csdb_status ValidateFile();
    csdb_status ReadUserRecord(uint64_t position, uint64_t limit, _BLOB_INFO* outBlob,
                               uint64_t* outRecNum, uint32_t* outTotalSize);
    bool AquireRead(ReadView* view);
    void ReleaseRead() noexcept;
    bool IsItemValid(uint64_t position, uint64_t recNum, uint64_t limit);
    bool IsValid(const csdb_context* ctx);
    bool IsValid(const csdb_context* ctx, uint64_t writePosition, uint64_t count) const;
    // GetFirst and GetLast: the record found by lower_bound or upper_bound from the key.
    csdb_status ReadFromBound(bool upper, unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                              csdb_context* ctx);
    csdb_status lower_bound(uint64_t limit, uint64_t recNum, uint64_t* outRecNum,
                            uint64_t* outPosition, _BLOB_INFO* outBlob);
    csdb_status upper_bound(uint64_t limit, uint64_t recNum, uint64_t* outRecNum,
                            uint64_t* outPosition, _BLOB_INFO* outBlob);
    csdb_status Bound(uint64_t limit, uint64_t recNum, bool strictlyAbove, uint64_t* outRecNum,
                      uint64_t* outPosition, _BLOB_INFO* outBlob);
    csdb_status WriteRecord(const unsigned char* bytes, uint32_t size);
    csdb_status SyncUpTo(uint64_t end);
    void FillContext(csdb_context* ctx, uint64_t recNum, uint64_t position) const noexcept;

    std::atomic<uint32_t> readers_{0};
    detail::CriticalSection lock_;
    bool accepting_ = true;
    uint64_t writePosition_ = 0;
    uint64_t lastRecordPosition_ = 0;
    uint64_t lastRecNum_ = 0;
    uint64_t recordCount_ = 0;
    bool synchronous_ = false;
    std::string fileName_;
    asyncfile file_;
    uint32_t fileVersion_ = 0;
    uint32_t headerSize_ = kTransDbHeaderSize;

    // Sync at commit: the end of the data known to be on the device, the end of the data
    // handed out, and the one thread that syncs for the others (`syncing_`, guarded by
    // `syncMutex_`, which is taken before `lock_` when both are held, never after it). The
    // sync waits for the device, far longer than any hot-path lock is held, so its waiters
    // sleep on a condition variable.
    std::atomic<bool> syncAtCommit_{false};
    std::atomic<uint64_t> syncedPosition_{0};
    std::atomic<uint64_t> appendedEnd_{0};
    std::atomic<uint64_t> syncCount_{0};
    std::atomic<bool> syncBroken_{false};
    std::mutex syncMutex_;
    std::condition_variable syncDone_;
    bool syncing_ = false;
};

// What a walk of a transaction file found. Plain value; not thread-safe.
struct TransDbFileReport {
    uint64_t fileSize = 0;            // bytes in the file
    uint32_t version = 0;             // the version field (0 for a file shorter than 4 bytes)
    uint32_t headerSize = 0;          // 48, or 44 for an older version-1 file
    uint64_t records = 0;             // whole records from the header on
    uint64_t firstRecNum = 0;         // the first record's number (0: none)
    uint64_t lastRecNum = 0;          // the last whole record's number (0: none)
    uint64_t lastRecordPosition = 0;  // where the last whole record begins (0: none)
    uint64_t dataEnd = 0;             // the end of the last whole record, or of the header
    uint64_t tailBytes = 0;           // bytes behind dataEnd
    bool numbersInOrder = true;       // every number one above the one before, from 1
    csdb_status stop = CSDB_SUCCESS;  // why the walk stopped: CSDB_END (end of data, or a blank
                                      // record), CSDB_CORRUPT, CSDB_IO_ERROR
    csdb_status openStatus = CSDB_SUCCESS;  // what Open (with tryAlternateHeader) gives
};

// Called for each whole record of a walk; false stops the walk.
using TransDbRecordVisitor = bool (*)(void* user, uint64_t recNum, uint64_t position,
                                      uint32_t totalSize);

// Walks the file at `path` without changing it and fills `report`. CSDB_SUCCESS when the
// file could be read (whatever it holds), CSDB_IO_ERROR when not, CSDB_BAD_VERSION for a
// version above 2. `visit`, when given, sees each whole record. Thread-safe.
csdb_status CheckTransDbFile(const char* path, TransDbFileReport* report,
                             TransDbRecordVisitor visit = nullptr, void* user = nullptr);

// Moves what lies behind the last whole record out of the file, so that it opens: those
// bytes go to a new side file "<path>.<YYYYMMDD-HHMMSS>.tail" (with "-2", "-3"... when
// taken), which is synced to the device, and only then is the file cut at the last whole
// record. The file followed by the side file is the file as it was. `sideFile` (room
// `sideFileSize`, may be null) gets the side file's path, or is emptied when nothing had to
// move. Refused while another writer holds the file (CSDB_IO_ERROR) and for a newer
// version (CSDB_BAD_VERSION), changing nothing. Thread-safe.
csdb_status RepairTransDbFile(const char* path, TransDbFileReport* report, char* sideFile,
                              size_t sideFileSize);

}  // namespace TOLVEN
