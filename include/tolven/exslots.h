// Logical thread-local slots multiplexed over one native slot, with exit callbacks.
#pragma once

#include <cstdint>

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

// Allocates a slot; `callback(context)` runs on every ending thread while the slot lives.
bool ExTlsAlloc(SlotDetails* slot, void* context, void (*callback)(void*));
// Frees a slot's place for reuse; false when the index is outside the table.
bool ExTlsFree(SlotDetails* slot);
// The calling thread's value in the slot, or null.
void* ExTlsGet(const SlotDetails* slot) noexcept;
// Sets the calling thread's value in the slot.
bool ExTlsSet(const SlotDetails* slot, void* value);

}  // namespace TOLVEN
