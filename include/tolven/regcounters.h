// Registered counters and groups: any module makes a value visible to an operator by
// implementing RegCounterEvents and calling RegisterCounter. Two process-wide tables hold the
// registrations; the value itself stays in the module, and the tables keep only where to ask
// for it. The service's "show counters" and "reset counters" walk them.
//
// Counter rows as blobs: "EventSink" (u64), "GroupId" (u32), "Name" (string), "Value" (as the
// counter writes it), "Publish" and "Resetable" (bool). Keys: index 0 "Name", "GroupId",
// "EventSink" (all three required); index 1 "EventSink"; index 2 "Publish", "GroupId".
// Group rows: "Name", "GroupId", "ParentGroupId", "Publish"; keys "GroupId" and "Publish".
#pragma once

#include <cstdint>

#include "tolven/mkdbimpl.h"
#include "tolven/rwlock.h"

namespace TOLVEN {

// Longest counter or group name kept, terminator included; longer names are cut.
inline constexpr size_t kRegNameSize = 64;

// What a counter's owner implements. AddValue and Reset run on the thread that shows or
// resets counters, with the row's record lock held, in parallel with the owner's own work:
// the value must be safe to read without help from the table.
class RegCounterEvents {
  public:
    virtual ~RegCounterEvents() = default;
    // Writes the current value into `blob` under `fieldName`, in whatever type it has.
    virtual void AddValue(const char* name, const char* fieldName, _BLOB_INFO* blob) = 0;
    // Sets the value back.
    virtual void Reset() = 0;
};

// A counter row. Plain value.
struct _REGCOUNTERDB_ENTRY {
    char Name[kRegNameSize];
    uint32_t GroupId;
    RegCounterEvents* EventSink;
    bool Publish;
    bool Resetable;
};

// Index 0, unique: group, name by bytes, sink. 80 bytes.
struct _REGCOUNTERDB_KEY0 {
    uint64_t GroupId;
    char Name[kRegNameSize];
    RegCounterEvents* EventSink;
};
static_assert(sizeof(_REGCOUNTERDB_KEY0) == 80, "the counter key is 80 bytes");
// Index 1, not unique: the sink.
struct _REGCOUNTERDB_KEY1 {
    RegCounterEvents* EventSink;
};
// Index 2, not unique: published first, then the group.
struct _REGCOUNTERDB_KEY2 {
    bool Publish;
    uint32_t GroupId;
};

// A group row. Plain value.
struct _REGGROUPDB_ENTRY {
    char Name[kRegNameSize];
    uint32_t GroupId;
    uint32_t ParentGroupId;  // kept and shown; the library gives it no meaning
    bool Publish;
};
// Index 0, unique: the group id, held as 64 bits.
struct _REGGROUPDB_KEY0 {
    uint64_t GroupId;
};
// Index 1, not unique: published or not.
struct _REGGROUPDB_KEY1 {
    bool Publish;
};

// A counter row's blob form; "Value" comes from the counter itself.
struct RegCounterDbDataBlobConvert {
    bool RowToBlob(const _REGCOUNTERDB_ENTRY& row, _BLOB_INFO* blob);
};
// A group row's blob form.
struct RegGroupDbDataBlobConvert {
    bool RowToBlob(const _REGGROUPDB_ENTRY& row, _BLOB_INFO* blob);
};

using RegDbLock = ReadWriteLock_pw;
using RegCounterDb =
    multikeydb_rl<_REGCOUNTERDB_ENTRY, RegCounterDbDataBlobConvert, RegDbLock,
                  fast_allocator<_REGCOUNTERDB_ENTRY, 100, true>,
                  multikeydb_policy<_REGCOUNTERDB_ENTRY, 1, 0, 0, 16>, _record_locker<RegDbLock>>;
using RegGroupDb =
    multikeydb_rl<_REGGROUPDB_ENTRY, RegGroupDbDataBlobConvert, RegDbLock,
                  fast_allocator<_REGGROUPDB_ENTRY, 100, true>,
                  multikeydb_policy<_REGGROUPDB_ENTRY, 1, 0, 0, 16>, _record_locker<RegDbLock>>;

// The process's counter registry, built with its three indexes on first use. Safe for
// concurrent use without external locking, as every table.
RegCounterDb& GetRegCounterDb();
// The process's group registry, built on first use with the row "Default" (id 0).
RegGroupDb& GetRegGroupDb();

// Registers a counter (`name` cut to 63 characters; null gives an empty name). False when the
// same name, group and sink are registered already. With `publish`, publishing is turned on
// for the whole group too (a missing group does not make this fail).
bool RegisterCounter(const char* name, uint32_t groupId, RegCounterEvents* sink, bool publish,
                     bool resetable);
// Resets the first counter at or after (`groupId`, `name`) in index 0 order: callers pass
// names that exist. True when that counter is resetable and was reset.
bool ResetCounter(const char* name, uint32_t groupId);
// Removes every row of `sink`, waiting for readers that hold one. A sink calls this before it
// dies. False when it had no row.
bool UnregisterCounter(RegCounterEvents* sink);

// Adds a group, not published; `ctx` (may be null) gets its position in index 0. False for a
// group id taken.
bool RegisterGroup(const char* name, uint32_t groupId, uint32_t parentGroupId, csdb_context* ctx);
// Removes the group at `ctx`; its counters stay and show as "unknown".
bool UnregisterGroup(csdb_context& ctx);
// Turns publishing of a group on or off; false for an unknown group.
bool EnableGroupPublish(uint32_t groupId, bool enable);
// A fresh group id: 2 at the first call (0 is "Default", 1 is left for the application).
uint32_t GetNextRegGroupId();

// Destroys the counter registry when it holds no row; true when it did.
bool ForceCounterDbCleanup();
// Destroys the group registry whatever it holds; always true.
bool ForceGroupDbCleanup();

}  // namespace TOLVEN
