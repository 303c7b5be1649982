// Named library threads, the per-thread settings record and the thread registry.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tolven/affinity.h"
#include "tolven/event.h"
#include "tolven/quicklock.h"
#include "tolven/refobj.h"

namespace TOLVEN {

class UtilError;

// The process-wide registry of configured threads. Safe for concurrent use without
// external locking: readers take get_lock() while they walk the map.
class thread_details {
  public:
    // Settings and identity of one configured thread. The first six fields are the options
    // every event detector of the thread copies.
    struct thread_data : DetectorOptions {
        std::string name;
        affinity cpuAffinity;
        bool loadBalance = false;
        uint32_t assignedCpu = 0;
        std::thread::id id;
        uint32_t nativeId = 0;
        void* handle = nullptr;
        int64_t startTime = 0;
        uint32_t numaNode = 0;
        uint32_t priority = 50;
        Event* shutdownEvent = nullptr;
        EventDetectorType* detectorCache[5] = {};
    };

    // The singleton, destroyed at process exit.
    static thread_details& get();
    // The lock that guards the map.
    QuickLock& get_lock() noexcept { return lock_; }
    // The map from thread id to record; hold get_lock() while reading it.
    const std::map<std::thread::id, thread_data*>& get_thread_map() const noexcept { return map_; }

    // Records `path` as this process's thread file in the machine-wide table, taking the
    // first record that is free, already this process's, or left by a process that no
    // longer runs. False when every record belongs to a running process.
    bool set_threadaffinityfile(const char* path);
    // Meant to compare the thread files of the machine's processes; no comparison is made
    // and the answer is always false. Without a thread file set, `error` gets "Please set a
    // thread file first using set_threadaffinityfile()".
    bool verify_affinity(UtilError* error);

    thread_details(const thread_details&) = delete;
    thread_details& operator=(const thread_details&) = delete;

  protected:
    thread_details() = default;
    virtual ~thread_details() = default;
    // Adds a record under its id.
    bool add(thread_data* data);
    // Destroys the record of `id` and removes it; false when unknown.
    bool remove(const std::thread::id& id);
    // Destroys one record.
    virtual void destroy_data(thread_data* data) = 0;

  private:
    friend void ConfigureCurrentThread(const char*, unsigned int*, Event*);
    friend class auto_thread;

    QuickLock lock_;
    std::map<std::thread::id, thread_data*> map_;
};

using thread_data = thread_details::thread_data;

// Configures the main thread once per process, under the name "main".
void configure_mainthread();
// Configures the calling thread: settings record, name, thread slot, detector cache and
// registry entry. `priority` may be null; `shutdownEvent` is the thread's stop signal.
void ConfigureCurrentThread(const char* name, unsigned int* priority, Event* shutdownEvent);
// True when the calling thread has a settings record with enforceUserMode.
bool EnforceUserMode();
// The calling thread's settings record, or null for a thread that was never configured.
thread_data* GetCurrentThreadData() noexcept;
// Maps a priority percentage (0 to 100) to the platform's scale.
int PriorityPercentToPlatform(unsigned int percent) noexcept;

// A named library thread with its own shutdown event. Not thread-safe: one owner drives
// the object; the running thread only reads its shutdown event.
class auto_thread {
  public:
    // The shutdown event, shared by reference count between the object and its thread.
    class event_refcount : public ReferencedObj {
      public:
        // Makes one, with a count of 1.
        static event_refcount* CreateObject();
        Event event{false};
        std::atomic<uint32_t> nativeId{0};

      private:
        event_refcount() = default;
        ~event_refcount() override = default;
    };

    auto_thread();
    ~auto_thread();
    auto_thread(const auto_thread&) = delete;
    auto_thread& operator=(const auto_thread&) = delete;

    // Starts `f(args...)` on a new thread named `name` ("autothread" when null), priority 50.
    template <class F, class... Args>
    bool launch(const char* name, F&& f, Args&&... args) {
        return launch_priority(name, 50, std::forward<F>(f), std::forward<Args>(args)...);
    }
    // As launch, with a priority percentage.
    template <class F, class... Args>
    bool launch_priority(const char* name, unsigned int priority, F&& f, Args&&... args) {
        std::function<void()> body([fn = std::forward<F>(f),
                                    tup = std::make_tuple(std::forward<Args>(args)...)]() mutable {
            std::apply(fn, tup);
        });
        return start(name, priority, std::move(body));
    }

    // Waits for the thread to end; false when not joinable or called from the thread.
    bool join();
    // Signals the shutdown event, then joins; clears the signal after a join.
    bool join_shutdown();
    // Lets the thread run on alone; throws std::system_error when not joinable.
    void detach();
    // True while a thread is attached.
    bool joinable() const noexcept { return thread_.joinable(); }
    // The standard library's id of the thread.
    std::thread::id get_id() const noexcept { return thread_.get_id(); }
    // The OS id of the thread, 0 when not joinable.
    uint32_t native_id() const noexcept { return id_; }
    // The thread's native handle.
    void* native_handle();
    // The shutdown event.
    Event& get_shutdown_event() noexcept { return events_->event; }
    // Sets the thread's priority (0 to 100); false above 100 or when the OS refuses.
    bool set_priority(unsigned int percent);
    // Processors as the standard library counts them.
    static unsigned int hardware_concurrency() noexcept;

  private:
    bool start(const char* name, unsigned int priority, std::function<void()> body);
    static void thread_setup(event_refcount* events, std::string name, unsigned int priority,
                             std::function<void()> function);

    std::thread thread_;
    uint32_t id_ = 0;
    event_refcount* events_;
};

}  // namespace TOLVEN
