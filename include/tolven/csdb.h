// The table contract: csdb, the statuses every table reports and the cursor a caller keeps
// between calls. Rows and keys travel as blobs, so a client can read any table without
// knowing its row type.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolven/blob.h"

namespace TOLVEN {

// Results of the table operations; callers compare against the numbers.
enum [[nodiscard]] csdb_status : uint32_t{
    CSDB_SUCCESS = 0,            // done
    CSDB_NOT_FOUND = 1,          // no such key, a stale context, or a bound search found nothing
    CSDB_BUFFER_TOO_SMALL = 3,   // an output buffer is too small
    CSDB_END = 5,                // no further row, or the table is empty
    CSDB_BEGIN = 6,              // no row before this one
    CSDB_NO_SUCH_INDEX = 7,      // the index number is not in use
    CSDB_OUT_OF_MEMORY = 8,      // allocation failed
    CSDB_CONVERT_FAILED = 10,    // a blob could not become a row or key, or no such direction
    CSDB_NOT_OPEN = 11,          // the table has no index yet, or the file is closed
    CSDB_BAD_ARGUMENT = 13,      // a required pointer is null, or a key has the wrong size
    CSDB_DUPLICATE_KEY = 14,     // a unique index holds the key, or the index number is taken
    CSDB_NOT_INDEXED = 15,       // an erase touched no index
    CSDB_IO_ERROR = 19,          // a file operation failed
    CSDB_CORRUPT = 20,           // a record failed its checks
    CSDB_NOT_SUPPORTED = 21,     // the table type has no such operation
    CSDB_BAD_VERSION = 22,       // the file's version is newer than this system writes
    CSDB_NOT_LOCK_OWNER = 24,    // a record lock is not held by this thread
    CSDB_TOO_MANY_INDEXES = 27,  // more than 16 indexes
    CSDB_KEY_NULL = 29,          // the row has no key for this index and stays out of it
    CSDB_NULLABLE_FIRST_INDEX = 32,  // index 0 must not be nullable
    CSDB_RECORD_LOCK_HELD = 33,      // the caller holds a record lock in the table it wants whole
};

// A cursor: three 64-bit words, all zero when it points nowhere. The table that filled it
// gives it its meaning; the in-memory engine keeps the index node, a word that stays 0, and
// the index number and the node's generation. It may go stale at any time; tables detect
// that. Plain value; not thread-safe.
struct csdb_context {
    uint64_t node = 0;         // the index node (engine) or record number (file)
    uint64_t reserved = 0;     // 0 in the engine; the file position in the file table
    uint32_t indexNumber = 0;  // the index the context belongs to
    uint32_t generation = 0;   // the node's generation when the context was filled
};
static_assert(sizeof(csdb_context) == 24, "a context is three 64-bit words");

// The abstract table. Every operation takes and gives blobs; `index` names an index by
// number, `ctx` is the caller's cursor (may be null where a cursor is not needed). Key
// arguments marked in/out are read, and on success refilled with the found row's key.
// Implementations state their own thread-safety; the engine's tables are safe for
// concurrent use without external locking.
class csdb {
  public:
    // Destroys the table and its rows.
    virtual ~csdb() = default;
    // The row whose key equals `key` in `index`.
    virtual csdb_status FindExact(unsigned int index, const _BLOB_INFO* key, _BLOB_INFO* row,
                                  csdb_context* ctx) = 0;
    // The first row of `index`, with its key.
    virtual csdb_status Begin(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                              csdb_context* ctx) = 0;
    // The last row of `index`, with its key.
    virtual csdb_status End(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                            csdb_context* ctx) = 0;
    // The first row at or after `key`.
    virtual csdb_status GetFirst(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                 csdb_context* ctx) = 0;
    // The row after the context's, or after `key` when the context is stale.
    virtual csdb_status GetNext(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                csdb_context* ctx) = 0;
    // The row before the context's, or before `key` when the context is stale.
    virtual csdb_status GetPrev(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                csdb_context* ctx) = 0;
    // The last row at or before `key`.
    virtual csdb_status GetLast(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                csdb_context* ctx) = 0;
    // A row near `key`, where the table supports it.
    virtual csdb_status GetApprox(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                                  csdb_context* ctx) = 0;
    // Adds a row given as a blob.
    virtual csdb_status Add(const _BLOB_INFO* row, csdb_context* ctx) = 0;
    // Deletes every row whose key in `index` equals `key`.
    virtual csdb_status DeleteAll(unsigned int index, const _BLOB_INFO* key, csdb_context* ctx) = 0;
    // Deletes the context's row.
    virtual csdb_status DeleteItem(csdb_context* ctx) = 0;
    // Replaces the row found by `key` in `index` with `row`.
    virtual csdb_status Update(unsigned int index, const _BLOB_INFO* key, const _BLOB_INFO* row,
                               csdb_context* ctx) = 0;
    // Indexes in use.
    virtual size_t NumIndexes() = 0;
    // Rows in the table.
    virtual size_t Count() = 0;
    // Removes every row.
    virtual csdb_status Clear() = 0;
    // Room for a table-specific operation; CSDB_NOT_SUPPORTED unless a table overrides it.
    virtual csdb_status Extension1(void* argument) {
        (void)argument;
        return CSDB_NOT_SUPPORTED;
    }
    // Room for a table-specific operation; CSDB_NOT_SUPPORTED unless a table overrides it.
    virtual csdb_status Extension2(void* argument) {
        (void)argument;
        return CSDB_NOT_SUPPORTED;
    }
    // Room for a table-specific notification; does nothing unless a table overrides it.
    virtual void Extension3(void* argument) { (void)argument; }
};

}  // namespace TOLVEN
