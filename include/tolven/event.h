// Events that are signalled with an atomic store, and the detectors that wait on them.
//
// Signalling an event needs no kernel call. A detector either spins over its events, or
// parks on a condition variable and looks again every `lazyCheckInterval` milliseconds,
// so that a signal from a thread that never enters the kernel is still seen.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "tolven/refobj.h"

namespace TOLVEN {

enum [[nodiscard]] event_status : uint32_t{
    event_success = 0,       // done, or an event fired
    event_full = 1,          // the detector has no room
    event_timeout = 2,       // the time-out ran out
    event_no_events = 4,     // a wait with nothing to wait for
    event_invalid = 7,       // the event is not valid
    event_bad_argument = 9,  // a null event was given
};

// Time-out value meaning "no limit".
inline constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// How a detector waits; copied from the waiting thread's settings.
struct DetectorOptions {
    bool spinThread = false;           // waits spin instead of parking
    uint32_t spinSleep = 0;            // shown, not acted on
    bool spinSleepSet = false;         // spinSleep was configured
    bool pause = false;                // spinning uses the processor's pause hint
    bool enforceUserMode = false;      // the thread must not enter the kernel to wait
    uint32_t lazyCheckInterval = 500;  // ms between a parked waiter's looks
};

class Event;
class EventDetectorType;

// What an event passes to a detector's notify function.
struct EventNotifyRecord {
    EventDetectorType* detector;
    Event* event;
    uint32_t onlyIfWaiting;  // non-zero: tell the detector only while it waits
};
using EventNotifyFn = void (*)(const EventNotifyRecord&);

// An event: a signalled word and the list of detectors to tell.
// Set, Reset and the detector list are safe for concurrent use without external locking.
class Event {
  public:
    // A valid event; `autoReset` makes a successful wait clear the signal.
    explicit Event(bool autoReset = true) noexcept : valid(1), autoReset(autoReset ? 1 : 0) {}
    // An event that refuses Set until MakeValid.
    struct InvalidTag {};
    explicit Event(InvalidTag) noexcept : valid(0), autoReset(0) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Signals the event and tells the detectors, unless it was signalled already.
    event_status Set();
    // Clears the signal.
    void Reset() noexcept { signalled.store(0, std::memory_order_release); }
    // True while signalled.
    bool IsSignalled() const noexcept { return signalled.load(std::memory_order_acquire) != 0; }
    // Makes a not-yet-valid event usable.
    void MakeValid(bool autoResetFlag) noexcept;
    // Registers a detector to tell on Set.
    event_status AddDetector(EventDetectorType* d, EventNotifyFn fn);
    // Removes a detector; returns event_success whether or not it was registered.
    event_status RemoveDetector(EventDetectorType* d);

    uint8_t valid;
    uint8_t autoReset;
    uint32_t noLock = 0;
    std::atomic<uint32_t> spin{0};
    std::atomic<uint32_t> signalled{0};
    EventDetectorType* detector = nullptr;
    EventNotifyFn notify = nullptr;
    std::vector<std::pair<EventDetectorType*, EventNotifyFn>> moreDetectors;

  private:
    void LockList() noexcept;
    void UnlockList() noexcept;

    // Registered detectors, so that Set with nobody to tell is a single exchange.
    std::atomic<uint32_t> listeners_{0};
};

// Reference-counted base of the detectors.
template <class E>
class BaseEventDetector : public ReferencedObj {
  protected:
    BaseEventDetector() = default;
    ~BaseEventDetector() override = default;
};

// Waits for any of up to 63 events, calling each event's callback when it fires.
// A detector belongs to one waiting thread at a time; any thread may signal its events.
class EventDetectorType : public BaseEventDetector<Event> {
  public:
    static constexpr int kMaxEntries = 64;

    // A detector with the default options (no thread behind it).
    EventDetectorType();
    // A detector with the given options.
    explicit EventDetectorType(const DetectorOptions& options);

    // Adds an event to wait for, with an optional callback run when it fires.
    event_status Add(Event* event, std::function<void()> callback = {});
    // Waits up to `timeoutMs` (kInfinite: no limit) for one of the events.
    event_status Wait(uint32_t timeoutMs);
    // Removes every event.
    void Clear();
    // Entries in use.
    int32_t Count() const noexcept { return count_; }
    // The options this detector waits with.
    const DetectorOptions& Options() const noexcept { return options_; }

    // 1 while a thread is inside Wait; set around the call by the caller.
    std::atomic<uint32_t> waiting{0};

  protected:
    ~EventDetectorType() override;

  private:
    struct Entry {
        Event* event = nullptr;
        std::function<void()> callback;
        uint32_t periodMs = 0;
        uint32_t lastFiredMs = 0;
    };

    bool Scan(uint32_t* timeoutMs);
    static void Notify(const EventNotifyRecord& record);

    Entry entries_[kMaxEntries];
    int32_t count_ = 0;
    DetectorOptions options_;
    EventNotifyFn notify_;
    std::mutex mutex_;
    std::condition_variable cond_;
    int32_t notified_ = 0;
};

// Takes a detector from the calling thread's cache of five, or makes a new one.
EventDetectorType* GetCachedDetectorType();
// Gives a detector back to the calling thread's cache, or releases it when full.
void ReturnToCache(EventDetectorType* detector);
// Waits up to `timeoutMs` (kInfinite: no limit) for one event through a cached detector.
event_status WaitForEvent(Event* event, uint32_t timeoutMs);
// The calling thread's shutdown event; the main thread's for threads without one.
Event* GetShutdownEvent();

}  // namespace TOLVEN

// 16-byte compare-and-swap on a 16-byte aligned target. words[3] is the expected low word,
// words[1] the expected high word, words[0] the new low word, words[2] the new high word.
// True when the swap took place.
extern "C" bool atomic_cas2(void* target, const uint64_t words[4]);
