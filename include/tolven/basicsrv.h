// The service frame: BasicSrv, its event sinks, its status writers and its command line.
//
// A service builds one BasicSrv from a startup record (a name and a configuration reader),
// adds BasicSrvEvents sinks, registers its commands and calls Startup. Any transport hands
// a line of operator text to ProcessCommand and gets the answer through a
// BasicSrvStatusWriter. Commands form a tree of words: "show" is a group under which
// "show config" and "show counters" hang, and a user who types only "show" is told what is
// there. Command words are case-sensitive.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tolven/configreader.h"
#include "tolven/logapi.h"
#include "tolven/schedulehandler.h"

namespace TOLVEN {

// Result of the service API.
enum [[nodiscard]] basicsrv_status : int32_t{
    basicsrv_success = 0,                 // done
    basicsrv_not_found = 1,               // nothing by that name
    basicsrv_already_exists = 2,          // the name is taken
    basicsrv_invalid_parameter = 3,       // a null command text, or a value out of range
    basicsrv_invalid_command = 4,         // command text with no word, or too many words
    basicsrv_retry = 5,                   // a maintenance handler asks to run again
    basicsrv_stopped_during_startup = 6,  // a Shutdown ran during the OnBasicSrvStartup sinks
    basicsrv_wrong_state = 7,             // Startup from inside Startup or Shutdown
    basicsrv_permission_denied = 8,       // ProcessCommand refused by CanRunCommand
};

// What a service hears about its own life. Every operation does nothing by default. Sinks
// run with no service lock held, on the thread that called Startup or Shutdown (or on the
// maintenance thread for OnBasicSrvDoMaintenance); one sink can see calls of different
// events at once. The service never owns or deletes a sink. Implementations decide their
// own thread safety.
class BasicSrvEvents {
  public:
    // Fired by PreStartup.
    virtual void OnBasicSrvPreStartup() {}
    // Fired by Startup before the service counts as started.
    virtual void OnBasicSrvStartup() {}
    // Fired by Startup once the service is running.
    virtual void OnBasicSrvStartupComplete() {}
    // Fired once by the Shutdown that stops a running service.
    virtual void OnBasicSrvShutdown() {}
    // Fired after each maintenance tick.
    virtual void OnBasicSrvDoMaintenance() {}

  protected:
    BasicSrvEvents() = default;
    BasicSrvEvents(const BasicSrvEvents&) = default;
    BasicSrvEvents& operator=(const BasicSrvEvents&) = default;
    ~BasicSrvEvents() = default;
};

// Where the output of a command goes. Implementations decide their own thread safety; the
// writers below are not thread-safe.
class BasicSrvStatusWriter {
  public:
    virtual ~BasicSrvStatusWriter();
    // Takes a piece of output text (not necessarily a whole line).
    virtual basicsrv_status WriteStatus(const char* text) = 0;
    // Pushes out what the writer holds.
    virtual basicsrv_status FlushStatus() = 0;

    // Formats into a buffer of 4096 bytes (at most 4095 characters, always terminated) and
    // hands it to WriteStatus; gives WriteStatus's result. Never calls FlushStatus.
    basicsrv_status FormatStatus(const char* format, ...) TOLVEN_PRINTF_FORMAT(2, 3);
};

// A writer that drops everything. Safe for concurrent use without external locking.
class EmptyStatusWriter : public BasicSrvStatusWriter {
  public:
    // Does nothing; gives basicsrv_success.
    basicsrv_status WriteStatus(const char* text) override;
    // Does nothing; gives basicsrv_success.
    basicsrv_status FlushStatus() override;
};

// A writer that sends each line of output to the log at "NORMAL". Not thread-safe.
class LogStatusWriter : public BasicSrvStatusWriter {
  public:
    // Reserves a line buffer of 512 bytes.
    LogStatusWriter();
    // Appends text; each newline flushes the line before it and is not stored.
    basicsrv_status WriteStatus(const char* text) override;
    // Logs the pending line, if any, and clears it.
    basicsrv_status FlushStatus() override;

  private:
    std::string line_;
};

// Reference-count policy of an EventSink for sinks that are not counted: does nothing.
struct DefaultRefCount {
    template <class T>
    static void AddRef(T*) noexcept {}
    template <class T>
    static void Release(T*) noexcept {}
};

namespace detail {

// The untyped core of EventSink. Items are kept in order of the sink pointer's value; the
// live ones are also published as an immutable snapshot, which a firing takes with one
// short hold of the spin word and walks without it. A firing publishes how far it got, so
// that a removal can wait until every firing that might still call the sink has passed
// it. Safe for concurrent use without external locking.
class EventSinkCore {
  public:
    // One registration of a sink.
    struct Item {
        void* sink = nullptr;
        uint32_t sequence = 0;
        std::atomic<bool> removed{false};
        uint32_t holders = 0;                // snapshots that list the item
        std::atomic<void*> waiter{nullptr};  // the Event of a removal that waits, or null
    };
    // One sink of a snapshot, with its item.
    struct Entry {
        Item* item;
        void* sink;
    };
    // The live items in pointer order when it was made; shared by the firings that use it.
    struct Snapshot {
        uint32_t users = 0;  // firings walking it
        uint32_t count = 0;
        Entry* entries = nullptr;
    };
    // A firing under way, on the stack of its thread.
    struct Firing {
        Firing* prev = nullptr;
        Firing* next = nullptr;
        Snapshot* snapshot = nullptr;
        std::atomic<uint32_t> done{0};  // entries of the snapshot the firing is past
        uint32_t thread = 0;            // OS id of the firing thread
    };

    // `release` (may be null) is called for each sink whose item is erased.
    explicit EventSinkCore(void (*release)(void*));
    ~EventSinkCore();
    EventSinkCore(const EventSinkCore&) = delete;
    EventSinkCore& operator=(const EventSinkCore&) = delete;

    // Adds `sink` unless it is present and not removed; true when a new item was made.
    bool Add(void* sink);
    // Marks the live item of `sink` removed. When a firing on another thread may still call
    // it, waits up to `waitMs` for that firing to pass it; from within a firing on this
    // thread it returns at once. False when no live item of `sink` exists.
    bool Remove(void* sink, uint32_t waitMs);

    // Starts a firing over the sinks registered now; false when there is nothing to call.
    bool Begin(Firing& firing);
    // True when the firing may call the sink of `entry`.
    bool MayCall(const Entry& entry) const {
        return !entry.item->removed.load(std::memory_order_acquire) &&
               enabled_.load(std::memory_order_relaxed);
    }
    // Records that the firing is past its first `done` entries, the last of them `entry`,
    // and wakes a removal that waits for it.
    void Passed(Firing& firing, const Entry& entry, uint32_t done) {
        firing.done.store(done, std::memory_order_release);
        if (entry.item->waiter.load(std::memory_order_acquire) != nullptr) Wake(entry.item);
    }
    // Ends a firing started by Begin.
    void End(Firing& firing);

    // Turns firing on or off; nothing fires while off.
    void Enable(bool on);
    // True while firing is on.
    bool IsEnabled() const { return enabled_.load(std::memory_order_acquire); }
    // Number of items, removed ones still listed by a firing included.
    size_t ItemCount() const;

  private:
    void Wake(Item* item);
    void Lock() noexcept {
        uint32_t expected = 0;
        if (!spin_.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            LockSlow();
    }
    void LockSlow() noexcept;
    void Unlock() noexcept { spin_.store(0, std::memory_order_release); }
    // Replaces the current snapshot by one of the live items. Hold the spin word.
    void Republish(std::vector<void*>& released);
    // Drops a snapshot that no firing uses and is not current. Hold the spin word.
    void DropSnapshot(Snapshot* snap, std::vector<void*>& released);
    // True when a firing may still call `item`; `mine` tells whether such a firing, or any
    // firing of this registry, runs on this thread. Hold the spin word.
    bool InUse(const Item* item, uint32_t self, bool* mine) const;
    void CallRelease(const std::vector<void*>& released);

    std::atomic<uint32_t> spin_{0};
    std::multimap<void*, Item*> items_;
    Snapshot* current_ = nullptr;
    Firing* firings_ = nullptr;
    std::atomic<bool> enabled_{false};
    uint32_t sequence_ = 0;
    uint32_t waiters_ = 0;  // removals waiting for a firing
    void (*release_)(void*);
};

}  // namespace detail

// A registry of event sinks of class `Sink`. A firing calls a member function on every
// sink, in ascending order of the sinks' pointer values (not in the order they were
// added). A sink added during a firing is not called by that firing; a sink removed during
// a firing is not called again. A removal from another thread waits (up to the given time)
// until the firings that may still call the sink have passed it; made from inside a call
// on the same thread, it returns at once. `Blocks` is the node count per chunk of a pooled
// allocator; the items use the standard allocator. `RefPolicy` counts references on sinks
// while they are registered. Safe for concurrent use without external locking.
template <class Sink, int Blocks = 100, class RefPolicy = DefaultRefCount>
class EventSink {
  public:
    // Time a removal waits for a call under way on another thread.
    static constexpr uint32_t kRemoveWaitMs = 5000;

    // An enabled, empty registry.
    EventSink() : core_(&ReleaseSink) { core_.Enable(true); }

    // Adds a sink; adding a sink that is present does nothing. Always basicsrv_success.
    basicsrv_status AddSink(Sink* sink) {
        if (sink != nullptr) {
            RefPolicy::AddRef(sink);
            if (!core_.Add(sink)) RefPolicy::Release(sink);
        }
        return basicsrv_success;
    }
    // Removes a sink: basicsrv_not_found when it is not present, else basicsrv_success,
    // also when the wait for a call under way ran out.
    basicsrv_status RemoveSink(Sink* sink, uint32_t waitMs = kRemoveWaitMs) {
        return core_.Remove(sink, waitMs) ? basicsrv_success : basicsrv_not_found;
    }

    // Walks the sinks of one firing. Not thread-safe: one firing, one thread.
    class FiringIterator {
      public:
        explicit FiringIterator(EventSink& registry)
            : core_(&registry.core_), active_(core_->Begin(firing_)) {}
        ~FiringIterator() {
            if (!active_) return;
            const auto* snap = firing_.snapshot;
            if (position_ > 0 && position_ <= snap->count)
                core_->Passed(firing_, snap->entries[position_ - 1], position_);
            core_->End(firing_);
        }
        FiringIterator(const FiringIterator&) = delete;
        FiringIterator& operator=(const FiringIterator&) = delete;
        // The next sink to call, or null at the end.
        Sink* Next() {
            if (!active_) return nullptr;
            const auto* snap = firing_.snapshot;
            while (position_ < snap->count) {
                if (position_ > 0) core_->Passed(firing_, snap->entries[position_ - 1], position_);
                const auto& entry = snap->entries[position_++];
                if (core_->MayCall(entry)) return static_cast<Sink*>(entry.sink);
            }
            return nullptr;
        }

      private:
        detail::EventSinkCore* core_;
        detail::EventSinkCore::Firing firing_;
        uint32_t position_ = 0;
        bool active_;
    };

    // Calls `(sink->*method)(args...)` on each sink of one firing. A sink that throws is
    // passed over; the firing goes on with the next one.
    template <class... A, class... Args>
    void Fire(void (Sink::*method)(A...), Args&&... args) {
        detail::EventSinkCore::Firing firing;
        if (!core_.Begin(firing)) return;
        const detail::EventSinkCore::Entry* entries = firing.snapshot->entries;
        const uint32_t count = firing.snapshot->count;
        for (uint32_t i = 0; i < count; ++i) {
            const detail::EventSinkCore::Entry& entry = entries[i];
            if (core_.MayCall(entry)) {
                try {
                    (static_cast<Sink*>(entry.sink)->*method)(args...);
                } catch (...) {
                    OnSinkException();
                }
            }
            core_.Passed(firing, entry, i + 1);
        }
        core_.End(firing);
    }

    // Turns firing on or off.
    void Enable(bool on) { core_.Enable(on); }
    // True while firing is on.
    bool IsEnabled() const { return core_.IsEnabled(); }
    // Number of items, removed ones still listed by a firing included.
    size_t ItemCount() const { return core_.ItemCount(); }

  private:
    static void ReleaseSink(void* sink) { RefPolicy::Release(static_cast<Sink*>(sink)); }
    static void OnSinkException() {
        TOLVEN_LOG(LOGGER_ERROR, "EventSink", "TOLVEN::EventSink::Fire",
                   "An event sink threw an exception; it was passed over");
    }

    detail::EventSinkCore core_;
};

class BasicSrv;
class BasicSrvImpl;

// What a command handler gets for one run; valid only during the call. Not thread-safe.
struct _BASICSRV_COMMAND_INFO {
    BasicSrvStatusWriter* writer;  // where to answer; never null for a handler
    const char* command;           // the command's full name, words joined by single blanks
    const char** args;             // the arguments after the command's words; null if none
    unsigned int argc;             // number of arguments
    bool callerFlag;               // as passed to ProcessCommand
    bool interactive;              // as passed to ProcessCommand
};

// A command handler: the run's details and the context given at registration. Its status
// is not looked at by ProcessCommand.
using BasicSrvCommandHandler = basicsrv_status (*)(_BASICSRV_COMMAND_INFO& info, void* context);

// What RegisterCommand takes. Not thread-safe.
struct _REGISTER_COMMAND_INFO {
    const char* name;       // the command's words, split at blanks, semicolons, underscores
    const char* shortHelp;  // line of the command list; may be empty, not null
    const char* longHelp;   // text shown by help for the command; may be empty, not null
    void* context;          // handed to the handler
    BasicSrvCommandHandler handler;
};

// An hour and a minute of the day.
struct _MAINT_TIME {
    unsigned int hour;
    unsigned int minute;
};

// What RegisterMaintenanceCommand takes. A run day is an entry of exactly 1. Not
// thread-safe.
struct _REGISTER_MAINTENANCE_COMMAND_INFO {
    const char* name;        // unique ignoring case
    const char* help;        // a short text; not null
    const char* help_ex;     // a long text; not null
    _MAINT_TIME start_time;  // the run time
    _MAINT_TIME end_time;    // the finish time; looked at only when repeatable
    int run_if_missed;       // catch up, at registration, a run missed while the service was down
    int run_if_never_run;    // run at registration when no run was ever recorded
    int repeatable;          // run at every tick from the run time to the finish time
    int run_days[7];         // Sunday first
    void* context;           // handed to the handler
    BasicSrvCommandHandler handler;
};

// What RegisterMaintenanceCommandEx takes: one entry per element of `run_times`, all under
// one name. Not thread-safe.
struct _REGISTER_MAINTENANCE_COMMAND_INFO_EX {
    const char* name;
    const char* help;
    const char* help_ex;
    int run_if_missed;
    int run_if_never_run;
    int repeatable;
    void* context;
    BasicSrvCommandHandler handler;
    std::vector<_COMMAND_RUN_TIMES> run_times;
};

// What a service passes at construction. Not thread-safe.
struct _BASICSRV_STARTUP_INFO {
    const char* srvName = nullptr;              // service name; a product name may replace it
    ConfigReader* configReader = nullptr;       // user configuration; may be null
    ConfigReader* maintConfigReader = nullptr;  // last-run state of maintenance commands
    const char* logFileDirectory = nullptr;     // directory of the log files; may be null
    int daysTillDelete = -1;                    // days to keep log files; negative: default
    const char* logArchiveDirectory = nullptr;  // directory of archives; may be null
    bool registerQuit = true;                   // register the quit command
    bool noFileLog = false;                     // no dated log file at all
    bool createMaintConfig = false;             // make a "_cmd.ini" for the maintenance state
};

// The frame of a long-running service: configuration, event sinks, lifecycle and command
// line, over a hidden implementation. Safe for concurrent use without external locking;
// Startup and Shutdown may be called from any thread, and ProcessCommand from many at
// once, in every state.
class BasicSrv {
  public:
    // Builds the service from a startup record.
    explicit BasicSrv(const _BASICSRV_STARTUP_INFO& info);
    // Builds the service from a record; null gives every default (no reader, quit
    // registered, log in the current directory, 7 days).
    explicit BasicSrv(_BASICSRV_STARTUP_INFO* info);
    // Builds the service with `config` as user and maintenance reader and 7 days.
    BasicSrv(const char* srvName, ConfigReader* config, const char* logFileDirectory,
             bool registerQuit);
    // Stops the service, gives back the readers and waits for running commands.
    virtual ~BasicSrv();
    BasicSrv(const BasicSrv&) = delete;
    BasicSrv& operator=(const BasicSrv&) = delete;

    // Fires OnBasicSrvPreStartup; touches no state.
    basicsrv_status PreStartup();
    // Ends any earlier run, fires OnBasicSrvStartup, starts the maintenance tick and fires
    // OnBasicSrvStartupComplete. basicsrv_stopped_during_startup when a sink stopped the
    // service; basicsrv_wrong_state from inside Startup or Shutdown on the same thread.
    basicsrv_status Startup();
    // Stops the maintenance tick and fires OnBasicSrvShutdown, once per run.
    basicsrv_status Shutdown();

    // Adds an event sink; one already present is not added twice.
    basicsrv_status AddSink(BasicSrvEvents* sink);
    // Removes an event sink, waiting up to 5 seconds for a call under way on another thread.
    basicsrv_status RemoveSink(BasicSrvEvents* sink);

    // Registers a command: basicsrv_already_exists when its full name is taken.
    basicsrv_status RegisterCommand(const _REGISTER_COMMAND_INFO& info);
    // Unregisters a command, giving a run under way a moment to end.
    basicsrv_status UnregisterCommand(const char* name);
    // Unregisters every command, waiting for all runs under way.
    basicsrv_status UnregisterAllCommands();
    // True when a command of that full name is registered; null gives false.
    bool CommandExists(const char* name);

    // Registers a maintenance command, run by the ten-second tick when due; a handler that
    // answers basicsrv_retry runs again at the next tick. The last run is kept in section
    // "CMD" of the maintenance reader; a run missed while the service was down (or never
    // made) is caught up here, on this thread, when the command asks for it. A tick that
    // passes over a run minute (a local hour skipped by a clock change, a tick held up by a
    // long handler) runs a daily command at that tick; a repeated minute runs it once.
    // basicsrv_invalid_parameter for a time out of range or a service without maintenance
    // reader, basicsrv_already_exists for a name taken (ignoring case).
    basicsrv_status RegisterMaintenanceCommand(const _REGISTER_MAINTENANCE_COMMAND_INFO& info);
    // Registers one entry per run time, without the duplicate test and without the check of
    // changed run times; the first failure ends it. An empty list gives success.
    basicsrv_status RegisterMaintenanceCommandEx(const _REGISTER_MAINTENANCE_COMMAND_INFO_EX& info);
    // Removes every maintenance entry of that name (ignoring case); basicsrv_not_found when
    // there was none.
    basicsrv_status UnregisterMaintenanceCommand(const char* name);
    // Runs one line of operator text. Answers go to `writer` (may be null: then nothing
    // is written). basicsrv_invalid_parameter for a null line, basicsrv_invalid_command for
    // a line with no word or more than 20 arguments, basicsrv_permission_denied when
    // CanRunCommand refuses, else basicsrv_success (an unknown command is answered in text).
    basicsrv_status ProcessCommand(const char* command, BasicSrvStatusWriter* writer,
                                   bool callerFlag, bool interactive, unsigned int callerId);

    // The service name.
    const char* GetSrvName() const;
    // The service name with configuration and version, as logged at start.
    const char* GetSrvNameWithVersion() const;
    // The product version of the process, or empty.
    const char* GetVersion() const;
    // The name of the user reader, or empty.
    const char* GetConfigName() const;
    // The directory of the log files.
    const char* GetLogFileLocation() const;
    // The directory for archives; null when none.
    const char* GetLogArchiveDir() const;
    // Days to keep log files.
    int GetLogFileDaysTillDelete() const;
    // The user reader, or null; no reference is added for the caller.
    ConfigReader* GetConfigReader() const;
    // Renames the service; null is ignored. The name with version stays as it was.
    void SetSrvName(const char* name);
    // Logs the table of "show alloc" at NORMAL, a message a line.
    void LogAllocList();
    // The lowest level the dated log file takes ("NORMAL" after construction, also with
    // noFileLog).
    logger_event_level GetFileLoggingLevel() const;
    // Sets the lowest level the dated log file takes.
    void SetFileLoggingLevel(logger_event_level level);

  protected:
    // Whether `callerId` may run every command under the first word `command`. Asked with
    // the state lock held: must not block on the service. True by default.
    virtual bool CanRunRootCommand(unsigned int callerId, const char* command,
                                   bool callerFlag) const;
    // Whether `callerId` may run the command of full name `command`, when the first word
    // did not grant it. Asked with the state lock held. True by default.
    virtual bool CanRunCommand(unsigned int callerId, const char* command, bool callerFlag) const;

  private:
    friend class BasicSrvImpl;
    BasicSrvImpl* impl_;
};

// Splits a command line in place at blanks, commas, tabs and newlines. `*command` gets the
// first word (null when there is none), `args` the others; `*count` is the room in `args`
// on entry and the number of arguments on return. An argument opening with a double quote
// runs to the next double quote (or the end of the line), separators included. A trailing
// run of two or more separators leaves one last empty argument. False when there are more
// arguments than room.
bool CutCommand(char* line, const char** command, const char** args, unsigned int* count);

}  // namespace TOLVEN
