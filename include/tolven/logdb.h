// The Log DB: the table of the log files open in the process, with the write figures of
// each, so that an operator can see how far the disk lags behind the callers.
//
// A simplelogfile enters its path after each open and leaves before each close
// (LogAddFile, simplelogfile.h), so the table always names the files in use. Rows are read
// as blobs through the csdb contract on index 0: "LogFileName" (string), and for a row with
// a file "FileSize" and "FileSizePending" (u64), "PendingOperations" and
// "MaxPendingOperations" (u32). The key's blob form is "LogFileName", compared without
// regard to ASCII case.
#pragma once

#include <cstdint>

#include "tolven/mkdbimpl.h"
#include "tolven/simplelogfile.h"

namespace TOLVEN {

// A row: the file's path and the file (not owned; valid as long as the row). Plain value.
struct _LOGDB_ENTRY {
    char LogFileName[kLogFilePathSize];
    simplelogfile* file;
};

// The key of index 0: the row's path, by address.
struct _LOGDB_KEY0 {
    const char* LogFileName;
};

// Index 0: paths compared without regard to ASCII case; several rows may share one.
struct LogDbIndex0Traits {
    using key_type = _LOGDB_KEY0;
    static void MakeKey(const _LOGDB_ENTRY& row, _LOGDB_KEY0* key) {
        key->LogFileName = row.LogFileName;
    }
    static int Compare(const _LOGDB_KEY0& a, const _LOGDB_KEY0& b);
    static bool KeyToBlob(const _LOGDB_KEY0& key, _BLOB_INFO* blob);
    // The key points into `blob`, which must outlive the search.
    static bool BlobToKey(const _BLOB_INFO* blob, _LOGDB_KEY0* key);
};

// A row's blob form, with the figures of its file read at the time of the call.
struct LogDbDataBlobConvert {
    bool RowToBlob(const _LOGDB_ENTRY& row, _BLOB_INFO* blob);
};

using LogDbLock = ReadWriteLock_pw;
using LogDb =
    multikeydb<_LOGDB_ENTRY, LogDbDataBlobConvert, LogDbLock,
               fast_allocator<_LOGDB_ENTRY, 50, true>, multikeydb_policy<_LOGDB_ENTRY, 1, 0, 0, 16>,
               _empty_record_locker<LogDbLock>>;
using LogDbIndex0 = treeindex<true, _LOGDB_KEY0, _LOGDB_ENTRY, LogDbIndex0Traits,
                              fast_allocator<_LOGDB_ENTRY, 100, true>, NotNullable>;

// The process's Log DB, built on first use. The table is safe for concurrent use without
// external locking; its csdb read operations are not const members, so a reader takes
// const_cast<LogDb&>(GetLogDb()).
const LogDb& GetLogDb();

// Destroys the Log DB whatever it holds; the next GetLogDb builds an empty one. Always true.
bool ForceLogDbCleanup();

}  // namespace TOLVEN
