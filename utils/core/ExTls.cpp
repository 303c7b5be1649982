// Logical thread slots over the single native slot.
//
// Each thread keeps a vector of records in table order; a record is valid for a handle
// only when its generation matches, so a reused place never shows an earlier owner's
// value. Allocation, freeing and thread exit serialise on one critical section.
#include <cstddef>
#include <vector>

#include "platform/tls.h"
#include "tolven/exslots.h"
#include "tolven/quicklock.h"

namespace TOLVEN {

#if TOLVEN_INLINE_THREAD_SLOTS
// A mirror of the native slot's vector, read inline by ExTlsGet. Static TLS keeps the read
// a single segment-relative load.
__attribute__((tls_model(
    "initial-exec"))) constinit thread_local detail::ExTlsView detail::t_exTlsView{nullptr, 0};
#endif

namespace {

using SlotRecord = detail::ExTlsRecord;
using ThreadRecords = std::vector<SlotRecord>;

void Publish(ThreadRecords* records) noexcept {
#if TOLVEN_INLINE_THREAD_SLOTS
    detail::t_exTlsView = records != nullptr ? detail::ExTlsView{records->data(), records->size()}
                                             : detail::ExTlsView{nullptr, 0};
#else
    (void)records;
#endif
}

struct SlotTable {
    detail::CriticalSection cs{4000};
    std::vector<SlotDetails> slots;
    uint64_t counter = 0;
    bool nativeReady = false;
};

// Never destroyed: threads may end after static destruction has begun.
SlotTable& Table() {
    static SlotTable* table = new SlotTable;
    return *table;
}

void OnThreadExit(void* value) {
    auto* records = static_cast<ThreadRecords*>(value);
    SlotTable& t = Table();
    {
        HouseLockGuard guard(t.cs);
        for (std::size_t i = 0; i < t.slots.size(); ++i) {
            const SlotDetails& s = t.slots[i];
            if (!s.IsEmpty() && s.callback != nullptr) s.callback(s.context);
        }
    }
    Publish(nullptr);
    delete records;
}

}  // namespace

bool ExTlsAlloc(SlotDetails* slot, void* context, void (*callback)(void*)) {
    SlotTable& t = Table();
    HouseLockGuard guard(t.cs);
    SlotDetails entry;
    entry.generation = ++t.counter;
    entry.context = context;
    entry.callback = callback;
    for (std::size_t i = 0; i < t.slots.size(); ++i) {
        if (t.slots[i].IsEmpty()) {
            entry.index = i;
            t.slots[i] = entry;
            *slot = entry;
            return true;
        }
    }
    if (!t.nativeReady) t.nativeReady = platform::InitThreadSlot(&OnThreadExit);
    entry.index = t.slots.size();
    t.slots.push_back(entry);
    *slot = entry;
    return true;
}

bool ExTlsFree(SlotDetails* slot) {
    SlotTable& t = Table();
    HouseLockGuard guard(t.cs);
    if (slot->index >= t.slots.size()) return false;
    t.slots[slot->index] = SlotDetails();
    return true;
}

#if !TOLVEN_INLINE_THREAD_SLOTS
void* ExTlsGet(const SlotDetails* slot) noexcept {
    const auto* records = static_cast<const ThreadRecords*>(platform::GetThreadSlot());
    if (records == nullptr || slot->index >= records->size()) return nullptr;
    const SlotRecord& r = (*records)[slot->index];
    return r.generation == slot->generation ? r.value : nullptr;
}
#endif

bool ExTlsSet(const SlotDetails* slot, void* value) {
    if (slot->IsEmpty()) return true;
    auto* records = static_cast<ThreadRecords*>(platform::GetThreadSlot());
    if (records == nullptr) {
        records = new ThreadRecords;
        platform::SetThreadSlot(records);
    }
    if (records->size() <= slot->index) {
        records->resize(slot->index + 1, SlotRecord{});
        Publish(records);
    }
    (*records)[slot->index] =
        SlotRecord{slot->generation, value, slot->index, slot->context, slot->callback};
    return true;
}

}  // namespace TOLVEN
