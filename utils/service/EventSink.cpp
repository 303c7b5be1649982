// The untyped core of the event sink registry.
#include <cstdint>

#include "platform/thread.h"
#include "tolven/basicsrv.h"
#include "tolven/event.h"

namespace TOLVEN::detail {
namespace {
// Tries on the spin word before each yield of the processor.
constexpr uint32_t kSpinsBeforeYield = 64;
}  // namespace

EventSinkCore::EventSinkCore(void (*release)(void*)) : release_(release) {
    (void)ExTlsAlloc(&depth_, nullptr, nullptr);
}

EventSinkCore::~EventSinkCore() {
    (void)ExTlsFree(&depth_);
    if (release_ != nullptr) {
        for (auto& entry : items_)
            release_(entry.first);
    }
}

void EventSinkCore::Lock() noexcept {
    uint32_t spins = 0;
    for (;;) {
        uint32_t expected = 0;
        if (spin_.load(std::memory_order_relaxed) == 0 &&
            spin_.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                        std::memory_order_relaxed))
            return;
        if (++spins < kSpinsBeforeYield) {
            platform::CpuRelax();
        } else {
            spins = 0;
            platform::YieldThread();
        }
    }
}

bool EventSinkCore::Add(void* sink) {
    Lock();
    auto range = items_.equal_range(sink);
    for (auto it = range.first; it != range.second; ++it) {
        if (!it->second.removed) {
            Unlock();
            return false;
        }
    }
    Item item;
    item.sequence = ++sequence_;
    bool added = true;
    try {
        items_.emplace_hint(range.second, sink, item);
    } catch (...) {
        added = false;  // out of memory: the sink is not registered
    }
    Unlock();
    return added;
}

bool EventSinkCore::Remove(void* sink, uint32_t waitMs) {
    Lock();
    auto range = items_.equal_range(sink);
    auto it = range.first;
    while (it != range.second && it->second.removed)
        ++it;
    if (it == range.second) {
        Unlock();
        return false;
    }
    it->second.removed = true;
    if (it->second.inUse == 0) {
        items_.erase(it);
        Unlock();
        if (release_ != nullptr) release_(sink);
        return true;
    }
    if (Depth() != 0) {
        // Called from inside a firing: the firing erases the item when it moves on.
        it->second.erasePending = true;
        Unlock();
        return true;
    }

    Event done;
    it->second.waiter = &done;
    Unlock();
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(&done);
    (void)detector->Wait(waitMs);
    detector->Clear();
    ReturnToCache(detector);

    Lock();
    // Only this call may erase the item now: it is marked removed, and a firing erases
    // only items whose erase is pending.
    it->second.waiter = nullptr;
    bool erased = false;
    if (it->second.inUse > 0) {
        it->second.erasePending = true;
    } else {
        items_.erase(it);
        erased = true;
    }
    Unlock();
    if (erased && release_ != nullptr) release_(sink);
    return true;
}

void* EventSinkCore::Step(Cursor& cursor) {
    void* erased = nullptr;
    Lock();
    if (!cursor.started) {
        cursor.started = true;
        cursor.position = items_.begin();
        cursor.limit = sequence_;
    } else if (cursor.position != items_.end()) {
        Item& last = cursor.position->second;
        --last.inUse;
        if (last.inUse == 0 && last.waiter != nullptr)
            (void)static_cast<Event*>(last.waiter)->Set();
        if (last.inUse == 0 && last.erasePending) {
            erased = cursor.position->first;
            cursor.position = items_.erase(cursor.position);
        } else {
            ++cursor.position;
        }
    }
    if (!enabled_) cursor.position = items_.end();
    while (cursor.position != items_.end()) {
        Item& item = cursor.position->second;
        if (!item.removed && item.sequence <= cursor.limit) {
            ++item.inUse;
            void* sink = cursor.position->first;
            Unlock();
            if (erased != nullptr && release_ != nullptr) release_(erased);
            return sink;
        }
        ++cursor.position;
    }
    Unlock();
    if (erased != nullptr && release_ != nullptr) release_(erased);
    return nullptr;
}

void EventSinkCore::AdjustDepth(int delta) {
    const uintptr_t depth = Depth() + static_cast<uintptr_t>(static_cast<intptr_t>(delta));
    (void)ExTlsSet(&depth_, reinterpret_cast<void*>(depth));
}

uintptr_t EventSinkCore::Depth() const {
    return reinterpret_cast<uintptr_t>(ExTlsGet(&depth_));
}

void EventSinkCore::Enable(bool on) {
    Lock();
    enabled_ = on;
    Unlock();
}

bool EventSinkCore::IsEnabled() const {
    auto* self = const_cast<EventSinkCore*>(this);
    self->Lock();
    const bool on = enabled_;
    self->Unlock();
    return on;
}

size_t EventSinkCore::ItemCount() const {
    auto* self = const_cast<EventSinkCore*>(this);
    self->Lock();
    const size_t count = items_.size();
    self->Unlock();
    return count;
}

}  // namespace TOLVEN::detail
