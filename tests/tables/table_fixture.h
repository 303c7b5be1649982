// Rows, keys and converters shared by the table tests: a row with a unique 64-bit id, a
// name that several rows may share, and a group number.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "tolven/blob.h"
#include "tolven/blobtyped.h"
#include "tolven/mkdbimpl.h"

namespace tabletest {

using TOLVEN::_BLOB_INFO;

struct Row {
    uint64_t id;
    char name[16];
    uint32_t group;
    uint64_t value;
};

inline Row MakeRow(uint64_t id, const char* name, uint32_t group = 0, uint64_t value = 0) {
    Row row{};
    row.id = id;
    std::snprintf(row.name, sizeof row.name, "%s", name);
    row.group = group;
    row.value = value;
    return row;
}

struct Name {
    char text[16];
};

// A UINT64 field into and out of a blob, through the typed field calls.
inline bool PutU64(_BLOB_INFO* blob, const char* field, uint64_t value) {
    return TOLVEN::AddU64(blob, field, value) == TOLVEN::BLOB_STATUS_SUCCESS;
}
inline bool TakeU64(const _BLOB_INFO* blob, const char* field, uint64_t* value) {
    return TOLVEN::GetByNameU64(blob, field, value) == TOLVEN::BLOB_STATUS_SUCCESS;
}

struct IdTraits {
    using key_type = uint64_t;
    static void MakeKey(const Row& row, uint64_t* key) { *key = row.id; }
    static int Compare(const uint64_t& a, const uint64_t& b) { return a < b ? -1 : (a > b); }
    static bool KeyToBlob(const uint64_t& key, _BLOB_INFO* blob) { return PutU64(blob, "id", key); }
    static bool BlobToKey(const _BLOB_INFO* blob, uint64_t* key) {
        return TakeU64(blob, "id", key);
    }
};

struct NameTraits {
    using key_type = Name;
    static void MakeKey(const Row& row, Name* key) {
        std::memcpy(key->text, row.name, sizeof key->text);
    }
    static int Compare(const Name& a, const Name& b) {
        return std::strncmp(a.text, b.text, sizeof a.text);
    }
    static bool KeyToBlob(const Name& key, _BLOB_INFO* blob) {
        return TOLVEN::AddStr(blob, "name", key.text, sizeof key.text) ==
               TOLVEN::BLOB_STATUS_SUCCESS;
    }
    static bool BlobToKey(const _BLOB_INFO* blob, Name* key) {
        *key = Name{};
        return TOLVEN::GetByNameStr(blob, "name", key->text, sizeof key->text) ==
               TOLVEN::BLOB_STATUS_SUCCESS;
    }
};

struct GroupTraits {
    using key_type = uint32_t;
    static void MakeKey(const Row& row, uint32_t* key) { *key = row.group; }
    static int Compare(const uint32_t& a, const uint32_t& b) { return a < b ? -1 : (a > b); }
    static bool KeyToBlob(const uint32_t& key, _BLOB_INFO* blob) {
        return PutU64(blob, "group", key);
    }
    static bool BlobToKey(const _BLOB_INFO* blob, uint32_t* key) {
        uint64_t wide = 0;
        if (!TakeU64(blob, "group", &wide)) return false;
        *key = static_cast<uint32_t>(wide);
        return true;
    }
};

struct RowConvert {
    bool RowToBlob(const Row& row, _BLOB_INFO* blob) {
        return PutU64(blob, "id", row.id) &&
               TOLVEN::AddStr(blob, "name", row.name, sizeof row.name) ==
                   TOLVEN::BLOB_STATUS_SUCCESS &&
               TOLVEN::AddU32(blob, "group", row.group) == TOLVEN::BLOB_STATUS_SUCCESS &&
               PutU64(blob, "value", row.value);
    }
};

using RowAlloc = TOLVEN::fast_allocator<Row, 100, true>;
using Policy = TOLVEN::multikeydb_policy<Row, 1, 0, 0, 16>;
using LockT = TOLVEN::ReadWriteLock_pr;
using Table = TOLVEN::multikeydb<Row, RowConvert, LockT, RowAlloc, Policy,
                                 TOLVEN::_empty_record_locker<LockT>>;
using TableRl =
    TOLVEN::multikeydb_rl<Row, RowConvert, LockT, RowAlloc, Policy, TOLVEN::_record_locker<LockT>>;
using IdIndex = TOLVEN::treeindex<false, uint64_t, Row, IdTraits, RowAlloc, TOLVEN::NotNullable>;
using NameIndex = TOLVEN::treeindex<true, Name, Row, NameTraits, RowAlloc, TOLVEN::NotNullable>;
using GroupIndex =
    TOLVEN::treeindex<true, uint32_t, Row, GroupTraits, RowAlloc, TOLVEN::NotNullable>;

// Adds the id (0), name (1) and group (2) indexes to a table, as owned.
template <class T>
void AddIndexes(T& table, int count = 3) {
    ASSERT_EQ(table.AddIndex(new IdIndex, 0, true), TOLVEN::CSDB_SUCCESS);
    if (count > 1) {
        ASSERT_EQ(table.AddIndex(new NameIndex, 1, true), TOLVEN::CSDB_SUCCESS);
    }
    if (count > 2) {
        ASSERT_EQ(table.AddIndex(new GroupIndex, 2, true), TOLVEN::CSDB_SUCCESS);
    }
}

template <class T>
TOLVEN::csdb_status Add(T& table, const Row& row, TOLVEN::csdb_context* ctx = nullptr,
                        uint32_t index = 0, bool lock = false) {
    TOLVEN::mkdb_add_request<Row> request;
    request.row = &row;
    request.ctx = ctx;
    request.contextIndex = index;
    return table.AddRow(request, lock);
}

}  // namespace tabletest
