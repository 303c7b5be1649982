#include "tolven/autothread.h"

#include <cstring>
#include <system_error>

#include "platform/clock.h"
#include "platform/thread.h"
#include "threads/thread_hooks.h"
#include "tolven/exslots.h"

namespace TOLVEN {
namespace {

class thread_details_private final : public thread_details {
  public:
    using thread_details::remove;

  protected:
    void destroy_data(thread_data* data) override {
        for (EventDetectorType*& d : data->detectorCache) {
            if (d != nullptr) d->Release();
            d = nullptr;
        }
        delete data;
    }
};

void OnConfiguredThreadExit(void*);

// The slot that holds each configured thread's record. Allocated once, thread-safely,
// so that lock-free readers never see it half-written.
const SlotDetails& ThreadSlot() {
    static const SlotDetails slot = [] {
        SlotDetails s;
        (void)ExTlsAlloc(&s, nullptr, &OnConfiguredThreadExit);
        return s;
    }();
    return slot;
}

// A thread that configured itself without auto_thread leaves the registry when it ends;
// auto_thread bodies have already left by then and find their slot empty.
void OnConfiguredThreadExit(void*) {
    const auto* data = static_cast<thread_details::thread_data*>(ExTlsGet(&ThreadSlot()));
    if (data == nullptr) return;
    const std::thread::id id = data->id;
    (void)ExTlsSet(&ThreadSlot(), nullptr);
    (void)static_cast<thread_details_private&>(thread_details::get()).remove(id);
}

// The main thread's shutdown event; the answer of GetShutdownEvent for foreign threads.
Event& MainEvent() {
    static Event* event = new Event(Event::InvalidTag{});
    return *event;
}

}  // namespace

namespace detail {
CriticalSection& ThreadConfigSection() {
    static auto* cs = new CriticalSection(4000);
    return *cs;
}
}  // namespace detail

// ---- registry --------------------------------------------------------------------------

// Never destroyed: detached threads may still leave the registry while the process exits.
thread_details& thread_details::get() {
    static thread_details_private* instance = new thread_details_private;
    return *instance;
}

bool thread_details::add(thread_data* data) {
    QuickLockGuard guard(lock_);
    auto [it, inserted] = map_.emplace(data->id, data);
    if (!inserted) {
        // A thread configured twice keeps only its newest record.
        destroy_data(it->second);
        it->second = data;
    }
    return true;
}

bool thread_details::remove(const std::thread::id& id) {
    QuickLockGuard guard(lock_);
    auto it = map_.find(id);
    if (it == map_.end()) return false;
    destroy_data(it->second);
    map_.erase(it);
    return true;
}

// ---- per-thread configuration ------------------------------------------------------------

thread_data* GetCurrentThreadData() noexcept {
    return static_cast<thread_data*>(ExTlsGet(&ThreadSlot()));
}

bool EnforceUserMode() {
    const thread_data* d = GetCurrentThreadData();
    return d != nullptr && d->enforceUserMode;
}

int PriorityPercentToPlatform(unsigned int percent) noexcept {
    if (percent >= 100) return 15;
    if (percent >= 90) return 2;
    if (percent >= 75) return 1;
    if (percent >= 50) return 0;
    if (percent >= 1) return -1;
    return -2;
}

void ConfigureCurrentThread(const char* name, unsigned int* priority, Event* shutdownEvent) {
    auto* data = new thread_data;
    data->name = name != nullptr ? name : "autothread";
    data->startTime = platform::UnixTimeSeconds();
    data->id = std::this_thread::get_id();
    data->nativeId = platform::CurrentThreadId();
    data->handle = platform::CurrentThreadHandle();
    data->shutdownEvent = shutdownEvent;
    if (data->name != "main") platform::SetCurrentThreadName(data->name.c_str());

    HouseLockGuard guard(detail::ThreadConfigSection());
    const SlotDetails& slot = ThreadSlot();
    detail::ApplyThreadFileSettings(data, priority);
    (void)ExTlsSet(&slot, data);
    for (EventDetectorType*& d : data->detectorCache)
        d = new EventDetectorType(*data);
    thread_details::get().add(data);
}

void configure_mainthread() {
    static std::atomic<bool> done{false};
    if (done.exchange(true)) return;
    MainEvent().MakeValid(false);
    ConfigureCurrentThread("main", nullptr, &MainEvent());
    detail::OnMainThreadConfigured();
}

Event* GetShutdownEvent() {
    const thread_data* d = GetCurrentThreadData();
    if (d != nullptr && d->shutdownEvent != nullptr) return d->shutdownEvent;
    return &MainEvent();
}

EventDetectorType* GetCachedDetectorType() {
    thread_data* d = GetCurrentThreadData();
    if (d == nullptr) return new EventDetectorType();
    for (EventDetectorType*& place : d->detectorCache) {
        if (place != nullptr) {
            EventDetectorType* detector = place;
            place = nullptr;
            return detector;
        }
    }
    return new EventDetectorType(*d);
}

void ReturnToCache(EventDetectorType* detector) {
    if (detector == nullptr) return;
    thread_data* d = GetCurrentThreadData();
    if (d != nullptr) {
        for (EventDetectorType*& place : d->detectorCache) {
            if (place == nullptr) {
                place = detector;
                return;
            }
        }
    }
    detector->Release();
}

event_status WaitForEvent(Event* event, uint32_t timeoutMs) {
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(event, {});
    detector->waiting.store(1, std::memory_order_release);
    const event_status st = detector->Wait(timeoutMs);
    detector->waiting.store(0, std::memory_order_release);
    detector->Clear();
    ReturnToCache(detector);
    return st;
}

// ---- auto_thread -------------------------------------------------------------------------

auto_thread::event_refcount* auto_thread::event_refcount::CreateObject() {
    return new event_refcount();
}

auto_thread::auto_thread() : events_(event_refcount::CreateObject()) {}

auto_thread::~auto_thread() {
    (void)join_shutdown();
    events_->Release();
}

bool auto_thread::start(const char* name, unsigned int priority, std::function<void()> body) {
    events_->event.Reset();
    events_->nativeId.store(0, std::memory_order_relaxed);
    events_->AddRef();
    std::string threadName = name != nullptr ? name : "autothread";
    std::thread t;
    try {
        t = std::thread(&auto_thread::thread_setup, events_, std::move(threadName), priority,
                        std::move(body));
    } catch (...) {
        events_->Release();
        return false;
    }
    thread_ = std::move(t);
    // The new thread publishes its OS id first thing; wait for it so that the id is known
    // to the owner from the moment launch returns. The wait is short, so it polls, yielding:
    // std::atomic::wait loses wake-ups where the standard library has no futex to build on
    // (libstdc++ 12 for Windows checks the value and parks without holding the lock that
    // notify would need).
    uint32_t id;
    for (uint32_t polls = 0; (id = events_->nativeId.load(std::memory_order_acquire)) == 0;
         ++polls) {
        if (polls < 100)
            platform::YieldThread();
        else
            platform::SleepMs(1);
    }
    id_ = id;
    return true;
}

void auto_thread::thread_setup(event_refcount* events, std::string name, unsigned int priority,
                               std::function<void()> function) {
    events->nativeId.store(platform::CurrentThreadId(), std::memory_order_release);
    ConfigureCurrentThread(name.c_str(), &priority, &events->event);
    function();
    // Unhook the record before it is destroyed, so nothing on this thread reads it again.
    (void)ExTlsSet(&ThreadSlot(), nullptr);
    (void)thread_details::get().remove(std::this_thread::get_id());
    detail::OnAutoThreadExit();
    events->Release();
}

bool auto_thread::join() {
    if (!thread_.joinable()) return false;
    if (thread_.get_id() == std::this_thread::get_id()) return false;
    try {
        thread_.join();
    } catch (...) {
        return false;
    }
    id_ = 0;
    return true;
}

bool auto_thread::join_shutdown() {
    if (!thread_.joinable()) return false;
    (void)events_->event.Set();
    if (!join()) return false;
    events_->event.Reset();
    return true;
}

void auto_thread::detach() {
    if (!thread_.joinable())
        throw std::system_error(std::make_error_code(std::errc::invalid_argument));
    thread_.detach();
    id_ = 0;
}

void* auto_thread::native_handle() {
    if (!thread_.joinable()) return nullptr;
    return reinterpret_cast<void*>(static_cast<uintptr_t>(thread_.native_handle()));
}

bool auto_thread::set_priority(unsigned int percent) {
    if (percent > 100 || id_ == 0) return false;
    if (!platform::SetThreadPriority(id_, PriorityPercentToPlatform(percent))) return false;
    if (thread_data* d = GetCurrentThreadData()) d->priority = percent;
    return true;
}

unsigned int auto_thread::hardware_concurrency() noexcept {
    return std::thread::hardware_concurrency();
}

}  // namespace TOLVEN
