// The counter and group registries.
#include "tolven/regcounters.h"

#include <atomic>
#include <cstring>
#include <new>

#include "tolven/blobtyped.h"

namespace TOLVEN {
namespace {

template <class T>
int Order(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

int OrderPointers(const void* a, const void* b) {
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return Order(x, y);
}

// Copies at most 63 characters of `name` (null: none) into a zeroed 64-byte field.
void CopyName(char (&out)[kRegNameSize], const char* name) {
    std::memset(out, 0, sizeof out);
    if (name != nullptr) std::memcpy(out, name, strnlen(name, kRegNameSize - 1));
}

bool PutSink(_BLOB_INFO* blob, const RegCounterEvents* sink) {
    return AddU64(blob, "EventSink", static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sink))) ==
           BLOB_STATUS_SUCCESS;
}

bool TakeSink(const _BLOB_INFO* blob, RegCounterEvents** sink) {
    uint64_t value = 0;
    if (GetByNameU64(blob, "EventSink", &value) != BLOB_STATUS_SUCCESS) return false;
    *sink = reinterpret_cast<RegCounterEvents*>(static_cast<uintptr_t>(value));
    return true;
}

bool TakeGroup(const _BLOB_INFO* blob, uint64_t* group) {
    uint32_t value = 0;
    if (GetByNameU32(blob, "GroupId", &value) != BLOB_STATUS_SUCCESS) return false;
    *group = value;
    return true;
}

bool TakePublish(const _BLOB_INFO* blob, bool* publish) {
    unsigned char value = 0;
    if (GetByNameBOOL(blob, "Publish", &value) != BLOB_STATUS_SUCCESS) return false;
    *publish = value != 0;
    return true;
}

struct CounterKey0 {
    using key_type = _REGCOUNTERDB_KEY0;
    static void MakeKey(const _REGCOUNTERDB_ENTRY& row, key_type* key) {
        key->GroupId = row.GroupId;
        std::memcpy(key->Name, row.Name, sizeof key->Name);
        key->EventSink = row.EventSink;
    }
    static int Compare(const key_type& a, const key_type& b) {
        if (const int c = Order(a.GroupId, b.GroupId)) return c;
        if (const int c = std::memcmp(a.Name, b.Name, sizeof a.Name)) return c < 0 ? -1 : 1;
        return OrderPointers(a.EventSink, b.EventSink);
    }
    static bool KeyToBlob(const key_type& key, _BLOB_INFO* blob) {
        return AddStr(blob, "Name", key.Name, strnlen(key.Name, kRegNameSize - 1)) ==
                   BLOB_STATUS_SUCCESS &&
               AddU32(blob, "GroupId", static_cast<uint32_t>(key.GroupId)) == BLOB_STATUS_SUCCESS &&
               PutSink(blob, key.EventSink);
    }
    static bool BlobToKey(const _BLOB_INFO* blob, key_type* key) {
        *key = key_type{};
        return GetByNameStr(blob, "Name", key->Name, sizeof key->Name) == BLOB_STATUS_SUCCESS &&
               TakeGroup(blob, &key->GroupId) && TakeSink(blob, &key->EventSink);
    }
};

struct CounterKey1 {
    using key_type = _REGCOUNTERDB_KEY1;
    static void MakeKey(const _REGCOUNTERDB_ENTRY& row, key_type* key) {
        key->EventSink = row.EventSink;
    }
    static int Compare(const key_type& a, const key_type& b) {
        return OrderPointers(a.EventSink, b.EventSink);
    }
    static bool KeyToBlob(const key_type& key, _BLOB_INFO* blob) {
        return PutSink(blob, key.EventSink);
    }
    static bool BlobToKey(const _BLOB_INFO* blob, key_type* key) {
        return TakeSink(blob, &key->EventSink);
    }
};

struct CounterKey2 {
    using key_type = _REGCOUNTERDB_KEY2;
    static void MakeKey(const _REGCOUNTERDB_ENTRY& row, key_type* key) {
        key->Publish = row.Publish;
        key->GroupId = row.GroupId;
    }
    static int Compare(const key_type& a, const key_type& b) {
        if (const int c = Order(a.Publish, b.Publish)) return c;
        return Order(a.GroupId, b.GroupId);
    }
    static bool KeyToBlob(const key_type& key, _BLOB_INFO* blob) {
        return AddBOOL(blob, "Publish", key.Publish ? 1 : 0) == BLOB_STATUS_SUCCESS &&
               AddU32(blob, "GroupId", key.GroupId) == BLOB_STATUS_SUCCESS;
    }
    static bool BlobToKey(const _BLOB_INFO* blob, key_type* key) {
        uint64_t group = 0;
        if (!TakePublish(blob, &key->Publish) || !TakeGroup(blob, &group)) return false;
        key->GroupId = static_cast<uint32_t>(group);
        return true;
    }
};

struct GroupKey0 {
    using key_type = _REGGROUPDB_KEY0;
    static void MakeKey(const _REGGROUPDB_ENTRY& row, key_type* key) { key->GroupId = row.GroupId; }
    static int Compare(const key_type& a, const key_type& b) { return Order(a.GroupId, b.GroupId); }
    static bool KeyToBlob(const key_type& key, _BLOB_INFO* blob) {
        return AddU32(blob, "GroupId", static_cast<uint32_t>(key.GroupId)) == BLOB_STATUS_SUCCESS;
    }
    static bool BlobToKey(const _BLOB_INFO* blob, key_type* key) {
        return TakeGroup(blob, &key->GroupId);
    }
};

struct GroupKey1 {
    using key_type = _REGGROUPDB_KEY1;
    static void MakeKey(const _REGGROUPDB_ENTRY& row, key_type* key) { key->Publish = row.Publish; }
    static int Compare(const key_type& a, const key_type& b) { return Order(a.Publish, b.Publish); }
    static bool KeyToBlob(const key_type& key, _BLOB_INFO* blob) {
        return AddBOOL(blob, "Publish", key.Publish ? 1 : 0) == BLOB_STATUS_SUCCESS;
    }
    static bool BlobToKey(const _BLOB_INFO* blob, key_type* key) {
        return TakePublish(blob, &key->Publish);
    }
};

using CounterAlloc = fast_allocator<_REGCOUNTERDB_ENTRY, 100, true>;
using GroupAlloc = fast_allocator<_REGGROUPDB_ENTRY, 100, true>;
using CounterIndex0 = treeindex<false, _REGCOUNTERDB_KEY0, _REGCOUNTERDB_ENTRY, CounterKey0,
                                CounterAlloc, NotNullable>;
using CounterIndex1 = treeindex<true, _REGCOUNTERDB_KEY1, _REGCOUNTERDB_ENTRY, CounterKey1,
                                CounterAlloc, NotNullable>;
using CounterIndex2 = treeindex<true, _REGCOUNTERDB_KEY2, _REGCOUNTERDB_ENTRY, CounterKey2,
                                CounterAlloc, NotNullable>;
using GroupIndex0 =
    treeindex<false, _REGGROUPDB_KEY0, _REGGROUPDB_ENTRY, GroupKey0, GroupAlloc, NotNullable>;
using GroupIndex1 =
    treeindex<true, _REGGROUPDB_KEY1, _REGGROUPDB_ENTRY, GroupKey1, GroupAlloc, NotNullable>;

// Built on first use under a spin word. Kept at exit: modules unregister from their own
// static destructors, which may run after ours.
constinit detail::mkdb_accessor<RegCounterDb> g_counters;
constinit detail::mkdb_accessor<RegGroupDb> g_groups;
std::atomic<uint32_t> g_nextGroupId{1};

template <class Table, class Index>
bool Attach(Table& table, uint32_t number) {
    auto* index = new Index;
    if (table.AddIndex(index, number, true) == CSDB_SUCCESS) return true;
    delete index;
    return false;
}

RegCounterDb* MakeCounters() {
    auto* table = new RegCounterDb;
    if (!Attach<RegCounterDb, CounterIndex0>(*table, 0) ||
        !Attach<RegCounterDb, CounterIndex1>(*table, 1) ||
        !Attach<RegCounterDb, CounterIndex2>(*table, 2)) {
        delete table;
        return nullptr;
    }
    return table;
}

RegGroupDb* MakeGroups() {
    auto* table = new RegGroupDb;
    if (!Attach<RegGroupDb, GroupIndex0>(*table, 0) ||
        !Attach<RegGroupDb, GroupIndex1>(*table, 1)) {
        delete table;
        return nullptr;
    }
    // The default group is there before anyone can see the table.
    _REGGROUPDB_ENTRY row{};
    CopyName(row.Name, "Default");
    mkdb_add_request<_REGGROUPDB_ENTRY> request;
    request.row = &row;
    if (table->AddRow(request, false) != CSDB_SUCCESS) {
        delete table;
        return nullptr;
    }
    return table;
}

}  // namespace

bool RegCounterDbDataBlobConvert::RowToBlob(const _REGCOUNTERDB_ENTRY& row, _BLOB_INFO* blob) {
    if (!PutSink(blob, row.EventSink) ||
        AddU32(blob, "GroupId", row.GroupId) != BLOB_STATUS_SUCCESS ||
        AddStr(blob, "Name", row.Name, strnlen(row.Name, kRegNameSize - 1)) != BLOB_STATUS_SUCCESS)
        return false;
    if (row.EventSink != nullptr) row.EventSink->AddValue(row.Name, "Value", blob);
    return AddBOOL(blob, "Publish", row.Publish ? 1 : 0) == BLOB_STATUS_SUCCESS &&
           AddBOOL(blob, "Resetable", row.Resetable ? 1 : 0) == BLOB_STATUS_SUCCESS;
}

bool RegGroupDbDataBlobConvert::RowToBlob(const _REGGROUPDB_ENTRY& row, _BLOB_INFO* blob) {
    return AddStr(blob, "Name", row.Name, strnlen(row.Name, kRegNameSize - 1)) ==
               BLOB_STATUS_SUCCESS &&
           AddU32(blob, "GroupId", row.GroupId) == BLOB_STATUS_SUCCESS &&
           AddU32(blob, "ParentGroupId", row.ParentGroupId) == BLOB_STATUS_SUCCESS &&
           AddBOOL(blob, "Publish", row.Publish ? 1 : 0) == BLOB_STATUS_SUCCESS;
}

RegCounterDb& GetRegCounterDb() {
    RegCounterDb* table = g_counters.Get(&MakeCounters);
    if (table == nullptr) throw std::bad_alloc();
    return *table;
}

RegGroupDb& GetRegGroupDb() {
    RegGroupDb* table = g_groups.Get(&MakeGroups);
    if (table == nullptr) throw std::bad_alloc();
    return *table;
}

bool RegisterCounter(const char* name, uint32_t groupId, RegCounterEvents* sink, bool publish,
                     bool resetable) {
    try {
        _REGCOUNTERDB_ENTRY row{};
        CopyName(row.Name, name);
        row.GroupId = groupId;
        row.EventSink = sink;
        row.Publish = publish;
        row.Resetable = resetable;
        mkdb_add_request<_REGCOUNTERDB_ENTRY> request;
        request.row = &row;
        if (GetRegCounterDb().AddRow(request, false) != CSDB_SUCCESS) return false;
    } catch (...) {
        return false;
    }
    if (publish) (void)EnableGroupPublish(groupId, true);
    return true;
}

bool ResetCounter(const char* name, uint32_t groupId) {
    try {
        RegCounterDb& table = GetRegCounterDb();
        _REGCOUNTERDB_KEY0 key{};
        key.GroupId = groupId;
        CopyName(key.Name, name);
        _REGCOUNTERDB_ENTRY row{};
        csdb_context ctx;
        if (table.StepRow(0, MKDB_AT_OR_AFTER, &key, sizeof key, &row, &ctx, true) != CSDB_SUCCESS)
            return false;
        bool reset = false;
        try {
            if (row.Resetable && row.EventSink != nullptr) {
                row.EventSink->Reset();
                reset = true;
            }
        } catch (...) {
            (void)table.UnlockRecord(&ctx);
            throw;
        }
        (void)table.UnlockRecord(&ctx);
        return reset;
    } catch (...) {
        return false;
    }
}

bool UnregisterCounter(RegCounterEvents* sink) {
    try {
        const _REGCOUNTERDB_KEY1 key{sink};
        csdb_context ctx;
        return GetRegCounterDb().DeleteByKey(1, &key, sizeof key, &ctx) == CSDB_SUCCESS;
    } catch (...) {
        return false;
    }
}

bool RegisterGroup(const char* name, uint32_t groupId, uint32_t parentGroupId, csdb_context* ctx) {
    try {
        _REGGROUPDB_ENTRY row{};
        CopyName(row.Name, name);
        row.GroupId = groupId;
        row.ParentGroupId = parentGroupId;
        mkdb_add_request<_REGGROUPDB_ENTRY> request;
        request.row = &row;
        request.ctx = ctx;
        return GetRegGroupDb().AddRow(request, false) == CSDB_SUCCESS;
    } catch (...) {
        return false;
    }
}

bool UnregisterGroup(csdb_context& ctx) {
    try {
        return GetRegGroupDb().DeleteItem(&ctx) == CSDB_SUCCESS;
    } catch (...) {
        return false;
    }
}

bool EnableGroupPublish(uint32_t groupId, bool enable) {
    try {
        RegGroupDb& table = GetRegGroupDb();
        const _REGGROUPDB_KEY0 key{groupId};
        _REGGROUPDB_ENTRY row{};
        csdb_context ctx;
        if (table.FindRow(0, &key, sizeof key, &row, &ctx, true) != CSDB_SUCCESS) return false;
        row.Publish = enable;
        const csdb_status st = table.UpdateRow(&ctx, &row);
        (void)table.UnlockRecord(&ctx);
        return st == CSDB_SUCCESS;
    } catch (...) {
        return false;
    }
}

uint32_t GetNextRegGroupId() {
    return g_nextGroupId.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool ForceCounterDbCleanup() {
    if (g_counters.Peek() == nullptr) return false;
    return g_counters.Destroy([](RegCounterDb* table) { return table->Count() == 0; },
                              [](RegCounterDb* table) { delete table; });
}

bool ForceGroupDbCleanup() {
    (void)g_groups.Destroy([](RegGroupDb*) { return true; },
                           [](RegGroupDb* table) { delete table; });
    return true;
}

}  // namespace TOLVEN
