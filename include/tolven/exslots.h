// Logical thread-local slots multiplexed over one native slot, with exit callbacks.
#pragma once

#include <cstdint>

#include "tolven/platform.h"

namespace TOLVEN {

// Handle of a logical slot, kept by its owner. Empty (index all ones) until allocated,
// so an object with static storage starts empty. Not thread-safe.
struct SlotDetails {
    static constexpr uint64_t kEmpty = ~0ull;

    uint64_t index = kEmpty;
    uint64_t generation = 0;
    void* context = nullptr;
    void (*callback)(void*) = nullptr;

    constexpr SlotDetails() noexcept = default;
    // Makes the handle empty.
    void Clear() noexcept { *this = SlotDetails(); }
    // Copies another handle.
    void Copy(const SlotDetails& other) noexcept { *this = other; }
    // True when the handle names no slot.
    bool IsEmpty() const noexcept { return index == kEmpty; }
};

namespace detail {
// One thread's record of one slot.
struct ExTlsRecord {
    uint64_t generation;  // read together with value on every get
    void* value;
    uint64_t index;
    void* context;
    void (*callback)(void*);
};
// The calling thread's records, in table order.
struct ExTlsView {
    ExTlsRecord* data;
    uint64_t size;
};
#if TOLVEN_INLINE_THREAD_SLOTS
extern constinit thread_local ExTlsView t_exTlsView;
#endif
}  // namespace detail

// Allocates a slot; `callback(context)` runs on every ending thread while the slot lives.
bool ExTlsAlloc(SlotDetails* slot, void* context, void (*callback)(void*));
// Frees a slot's place for reuse; false when the index is outside the table.
bool ExTlsFree(SlotDetails* slot);
// The calling thread's value in the slot, or null: null also when the slot's place has
// been reused since this thread set it.
#if TOLVEN_INLINE_THREAD_SLOTS
inline void* ExTlsGet(const SlotDetails* slot) noexcept {
    const detail::ExTlsView view = detail::t_exTlsView;
    if (slot->index >= view.size) return nullptr;
    const detail::ExTlsRecord& r = view.data[slot->index];
    return r.generation == slot->generation ? r.value : nullptr;
}
#else
void* ExTlsGet(const SlotDetails* slot) noexcept;
#endif
// Sets the calling thread's value in the slot.
bool ExTlsSet(const SlotDetails* slot, void* value);

}  // namespace TOLVEN
