// Intrusive reference counting.
#pragma once

#include <atomic>
#include <cstdint>

namespace TOLVEN {

// Base of every reference-counted object of the library. The count starts at 1: the
// creator owns the first reference. The last Release calls FinalRelease, then
// DestroyObject. Safe for concurrent use without external locking.
class ReferencedObj {
  public:
    ReferencedObj(const ReferencedObj&) = delete;
    ReferencedObj& operator=(const ReferencedObj&) = delete;

    // Adds a reference; returns the new count.
    int32_t AddRef() noexcept { return refCount_.fetch_add(1, std::memory_order_relaxed) + 1; }
    // Drops a reference; returns the new count. At 0 the object is finalised and destroyed.
    int32_t Release();
    // The current count (a plain read).
    int32_t GetRefCount() const noexcept { return refCount_.load(std::memory_order_relaxed); }

  protected:
    ReferencedObj() noexcept = default;
    virtual ~ReferencedObj();
    // Called when the count reaches 0, before destruction. Does nothing by default.
    virtual void FinalRelease();
    // Destroys the object. Deletes it by default.
    virtual void DestroyObject();

  private:
    std::atomic<int32_t> refCount_{1};
};

}  // namespace TOLVEN
