// The Log DB: the process's table of open log files.
#include "tolven/logdb.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "tolven/blobtyped.h"

namespace TOLVEN {
namespace {

// Built on first use under a spin word; never destroyed at exit, since log files close
// from exit handlers and static destructors.
constinit detail::mkdb_accessor<LogDb> g_logDb;

LogDb* MakeLogDb() {
    auto* table = new LogDb;
    auto* index = new LogDbIndex0;
    if (table->AddIndex(index, 0, true) != CSDB_SUCCESS) {
        delete index;
        delete table;
        return nullptr;
    }
    return table;
}

LogDb& Table() {
    LogDb* table = g_logDb.Get(&MakeLogDb);
    if (table == nullptr) throw std::bad_alloc();
    return *table;
}

char Fold(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

int LogDbIndex0Traits::Compare(const _LOGDB_KEY0& a, const _LOGDB_KEY0& b) {
    const char* x = a.LogFileName != nullptr ? a.LogFileName : "";
    const char* y = b.LogFileName != nullptr ? b.LogFileName : "";
    for (;; ++x, ++y) {
        const unsigned char cx = static_cast<unsigned char>(Fold(*x));
        const unsigned char cy = static_cast<unsigned char>(Fold(*y));
        if (cx != cy) return cx < cy ? -1 : 1;
        if (cx == 0) return 0;
    }
}

bool LogDbIndex0Traits::KeyToBlob(const _LOGDB_KEY0& key, _BLOB_INFO* blob) {
    const char* name = key.LogFileName != nullptr ? key.LogFileName : "";
    return AddStr(blob, "LogFileName", name, strnlen(name, kLogFilePathSize - 1)) ==
           BLOB_STATUS_SUCCESS;
}

bool LogDbIndex0Traits::BlobToKey(const _BLOB_INFO* blob, _LOGDB_KEY0* key) {
    const char* name = nullptr;
    if (GetPtrByNameStr(blob, "LogFileName", &name) != BLOB_STATUS_SUCCESS || name == nullptr)
        return false;
    key->LogFileName = name;
    return true;
}

bool LogDbDataBlobConvert::RowToBlob(const _LOGDB_ENTRY& row, _BLOB_INFO* blob) {
    if (AddStr(blob, "LogFileName", row.LogFileName,
               strnlen(row.LogFileName, kLogFilePathSize - 1)) != BLOB_STATUS_SUCCESS)
        return false;
    if (row.file == nullptr) return true;
    const asyncfile& file = row.file->GetFile();
    return AddU64(blob, "FileSize", file.GetWrittenSize()) == BLOB_STATUS_SUCCESS &&
           AddU64(blob, "FileSizePending", file.GetEndPosition()) == BLOB_STATUS_SUCCESS &&
           AddU32(blob, "PendingOperations", file.GetPendingOperations()) == BLOB_STATUS_SUCCESS &&
           AddU32(blob, "MaxPendingOperations", file.GetMaxPendingOperations()) ==
               BLOB_STATUS_SUCCESS;
}

const LogDb& GetLogDb() {
    return Table();
}

bool ForceLogDbCleanup() {
    (void)g_logDb.Destroy([](LogDb*) { return true; }, [](LogDb* table) { delete table; });
    return true;
}

bool LogAddFile(const char* path, simplelogfile* file, bool add) {
    try {
        LogDb& table = Table();
        _LOGDB_ENTRY row{};
        if (path != nullptr)
            std::memcpy(row.LogFileName, path, strnlen(path, kLogFilePathSize - 1));
        row.file = file;
        const _LOGDB_KEY0 key{row.LogFileName};
        csdb_context ctx;
        const bool found = table.FindRow(0, &key, sizeof key, nullptr, &ctx, false) == CSDB_SUCCESS;
        if (add) {
            if (found) return true;
            mkdb_add_request<_LOGDB_ENTRY> request;
            request.row = &row;
            return table.AddRow(request, false) == CSDB_SUCCESS;
        }
        return found && table.DeleteItem(&ctx) == CSDB_SUCCESS;
    } catch (...) {
        // Out of memory: the table goes without this file.
        return false;
    }
}

}  // namespace TOLVEN
