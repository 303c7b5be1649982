// The untyped core of the event sink registry.
//
// A firing holds the spin word twice: once to take the current snapshot of the live sinks
// (and to enter the list of firings under way), once to leave. In between it walks the
// snapshot alone and stores, after each sink, how far it got. A removal marks the item
// removed, so that no firing calls it afterwards, and then waits until each firing that
// lists the item and has not yet got past it has done so; a firing that sees a waiter on
// an item it passes wakes it, and every firing wakes the waiters of its items when it ends.
// An item is freed once no snapshot lists it.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <new>
#include <vector>

#include "platform/thread.h"
#include "tolven/basicsrv.h"
#include "tolven/event.h"

namespace TOLVEN::detail {
namespace {

// Tries on the spin word before each yield of the processor.
constexpr uint32_t kSpinsBeforeYield = 64;

EventSinkCore::Snapshot* NewSnapshot(uint32_t count) {
    auto* snap = new EventSinkCore::Snapshot;
    snap->count = count;
    snap->entries = count == 0 ? nullptr : new EventSinkCore::Entry[count];
    return snap;
}

void FreeSnapshot(EventSinkCore::Snapshot* snap) {
    delete[] snap->entries;
    delete snap;
}

}  // namespace

EventSinkCore::EventSinkCore(void (*release)(void*)) : release_(release) {
    current_ = NewSnapshot(0);
}

EventSinkCore::~EventSinkCore() {
    // No firing may run any more: every item and the current snapshot go.
    for (auto& entry : items_) {
        if (release_ != nullptr) release_(entry.first);
        delete entry.second;
    }
    FreeSnapshot(current_);
}

void EventSinkCore::LockSlow() noexcept {
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

void EventSinkCore::CallRelease(const std::vector<void*>& released) {
    if (release_ == nullptr || released.empty()) return;
    for (void* sink : released)
        release_(sink);
}

void EventSinkCore::DropSnapshot(Snapshot* snap, std::vector<void*>& released) {
    for (uint32_t i = 0; i < snap->count; ++i) {
        Item* item = snap->entries[i].item;
        if (--item->holders != 0 || !item->removed.load(std::memory_order_relaxed)) continue;
        auto range = items_.equal_range(item->sink);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == item) {
                items_.erase(it);
                break;
            }
        }
        released.push_back(item->sink);
        delete item;
    }
    FreeSnapshot(snap);
}

void EventSinkCore::Republish(std::vector<void*>& released) {
    uint32_t live = 0;
    for (const auto& entry : items_)
        if (!entry.second->removed.load(std::memory_order_relaxed)) ++live;
    Snapshot* snap = NewSnapshot(live);
    uint32_t index = 0;
    for (const auto& entry : items_) {
        Item* item = entry.second;
        if (item->removed.load(std::memory_order_relaxed)) continue;
        ++item->holders;
        snap->entries[index++] = Entry{item, item->sink};
    }
    Snapshot* old = current_;
    current_ = snap;
    if (old->users == 0) DropSnapshot(old, released);
}

bool EventSinkCore::Add(void* sink) {
    std::vector<void*> released;
    Lock();
    auto range = items_.equal_range(sink);
    for (auto it = range.first; it != range.second; ++it) {
        if (!it->second->removed.load(std::memory_order_relaxed)) {
            Unlock();
            return false;
        }
    }
    bool added = false;
    try {
        auto* item = new Item;
        item->sink = sink;
        item->sequence = ++sequence_;
        try {
            items_.emplace_hint(range.second, sink, item);
        } catch (...) {
            delete item;
            throw;
        }
        Republish(released);
        added = true;
    } catch (const std::bad_alloc&) {
        // Out of memory: the sink is not registered, or not yet published (a later change
        // publishes it).
    }
    Unlock();
    CallRelease(released);
    return added;
}

bool EventSinkCore::InUse(const Item* item, uint32_t self, bool* mine) const {
    bool used = false;
    *mine = false;
    for (const Firing* f = firings_; f != nullptr; f = f->next) {
        if (f->thread == self) *mine = true;
        const Snapshot* snap = f->snapshot;
        const Entry* begin = snap->entries;
        const Entry* end = begin + snap->count;
        // The snapshot is in pointer order and lists each sink once.
        const Entry* at = std::lower_bound(begin, end, item->sink, [](const Entry& e, void* sink) {
            return std::less<void*>()(e.sink, sink);
        });
        if (at == end || at->item != item) continue;
        const auto index = static_cast<uint32_t>(at - begin);
        if (f->done.load(std::memory_order_acquire) <= index) used = true;
    }
    return used;
}

bool EventSinkCore::Remove(void* sink, uint32_t waitMs) {
    std::vector<void*> released;
    Lock();
    auto range = items_.equal_range(sink);
    auto it = range.first;
    while (it != range.second && it->second->removed.load(std::memory_order_relaxed))
        ++it;
    if (it == range.second) {
        Unlock();
        return false;
    }
    Item* item = it->second;
    item->removed.store(true, std::memory_order_release);
    // This call holds the item too while it looks at it, so that the end of a firing cannot
    // free it under the wait.
    ++item->holders;
    try {
        Republish(released);
    } catch (const std::bad_alloc&) {
        // The old snapshot stays current; firings pass the item over by its flag.
    }

    const uint32_t self = platform::CurrentThreadId();
    bool mine = false;
    if (InUse(item, self, &mine) && !mine) {
        Event passed;
        item->waiter.store(&passed, std::memory_order_release);
        ++waiters_;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
        EventDetectorType* detector = GetCachedDetectorType();
        (void)detector->Add(&passed);
        for (;;) {
            uint32_t slice = kInfinite;
            if (waitMs != kInfinite) {
                const auto now = std::chrono::steady_clock::now();
                if (now >= deadline) break;
                slice = static_cast<uint32_t>(
                    std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count());
            }
            Unlock();
            (void)detector->Wait(slice);
            Lock();
            if (!InUse(item, self, &mine)) break;
        }
        item->waiter.store(nullptr, std::memory_order_release);
        --waiters_;
        detector->Clear();
        ReturnToCache(detector);
    }
    // Freed now if no snapshot lists it, else by the last firing that does.
    if (--item->holders == 0) {
        range = items_.equal_range(sink);
        items_.erase(std::find_if(range.first, range.second,
                                  [item](const auto& entry) { return entry.second == item; }));
        released.push_back(sink);
        delete item;
    }
    Unlock();
    CallRelease(released);
    return true;
}

bool EventSinkCore::Begin(Firing& firing) {
    if (!enabled_.load(std::memory_order_acquire)) return false;
    firing.thread = platform::CurrentThreadId();
    Lock();
    Snapshot* snap = current_;
    if (snap->count == 0) {
        Unlock();
        return false;
    }
    ++snap->users;
    firing.snapshot = snap;
    firing.next = firings_;
    if (firings_ != nullptr) firings_->prev = &firing;
    firings_ = &firing;
    Unlock();
    return true;
}

void EventSinkCore::End(Firing& firing) {
    Snapshot* snap = firing.snapshot;
    Lock();
    if (firing.prev != nullptr) {
        firing.prev->next = firing.next;
    } else {
        firings_ = firing.next;
    }
    if (firing.next != nullptr) firing.next->prev = firing.prev;
    // A removal that waits for this firing looks again now.
    for (uint32_t i = 0; waiters_ != 0 && i < snap->count; ++i) {
        void* waiter = snap->entries[i].item->waiter.load(std::memory_order_relaxed);
        if (waiter != nullptr) (void)static_cast<Event*>(waiter)->Set();
    }
    if (--snap->users == 0 && snap != current_) {
        std::vector<void*> released;
        DropSnapshot(snap, released);
        Unlock();
        CallRelease(released);
        return;
    }
    Unlock();
}

void EventSinkCore::Wake(Item* item) {
    Lock();
    void* waiter = item->waiter.load(std::memory_order_relaxed);
    if (waiter != nullptr) (void)static_cast<Event*>(waiter)->Set();
    Unlock();
}

void EventSinkCore::Enable(bool on) {
    enabled_.store(on, std::memory_order_release);
}

size_t EventSinkCore::ItemCount() const {
    auto* self = const_cast<EventSinkCore*>(this);
    self->Lock();
    const size_t count = items_.size();
    self->Unlock();
    return count;
}

}  // namespace TOLVEN::detail
