// The hidden implementation behind BasicSrv.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/CommandTree.h"
#include "tolven/basicsrv.h"
#include "tolven/blobtime.h"
#include "tolven/logsinks.h"
#include "tolven/quicklock.h"
#include "tolven/timer.h"

namespace TOLVEN {

// A registered maintenance command.
struct MaintCommand {
    std::string name, help, help_ex;
    unsigned int runHour = 0, runMinute = 0, finishHour = 0, finishMinute = 0;
    unsigned int runMinutes = 0, finishMinutes = 0;  // minutes from midnight
    int run_if_missed = 0, run_if_never_run = 0, repeatable = 0;
    int runDays[7] = {};
    _SYSTEMTIME lastRun{};  // local time of the last successful run; all 0 for none
    unsigned int lastRunMinutes = 0;
    void* context = nullptr;
    BasicSrvCommandHandler handler = nullptr;
    bool retryPending = false;
    bool enabled = true;
    bool removed = false;  // unregistered while a tick walks the list
};

// A file named by a configuration value, found at construction.
struct EmbeddedConfigItem {
    uint64_t id = 0;    // from 1, in order of discovery
    std::string label;  // "section > item", behind the label of the file that named it
    std::string file;
    uint32_t flags = 0;  // kEmbeddedVisited, kEmbeddedIsConfig
};
inline constexpr uint32_t kEmbeddedVisited = 1;
inline constexpr uint32_t kEmbeddedIsConfig = 2;

// Everything a BasicSrv holds. Safe for concurrent use without external locking: the state
// lock guards the running flag, the two thread ids, the command tree and the active-command
// map; the registration lock, always taken first, serialises registering and unregistering
// commands; the sink registry has its own spin word.
class BasicSrvImpl {
  public:
    // Longest directory or file name read from the configuration, in characters.
    static constexpr std::size_t kPathSize = 260;
    // Room of the name with version.
    static constexpr std::size_t kNameWithVersionSize = 255;
    // Room of a line of operator text, terminator included.
    static constexpr std::size_t kCommandLineSize = 4096;
    // Most arguments a command line may carry.
    static constexpr unsigned int kMaxArguments = 20;
    // Pause between looks while waiting for another thread or for running commands.
    static constexpr uint32_t kRetrySleepMs = 200;
    // Period of the maintenance tick.
    static constexpr uint32_t kMaintenanceIntervalMs = 10000;

    // Builds the service for `facade`; a null record gives every default.
    BasicSrvImpl(BasicSrv* facade, const _BASICSRV_STARTUP_INFO* info);
    ~BasicSrvImpl();
    BasicSrvImpl(const BasicSrvImpl&) = delete;
    BasicSrvImpl& operator=(const BasicSrvImpl&) = delete;

    basicsrv_status PreStartup();
    basicsrv_status Startup();
    basicsrv_status Shutdown();
    basicsrv_status AddSink(BasicSrvEvents* sink);
    basicsrv_status RemoveSink(BasicSrvEvents* sink);

    basicsrv_status RegisterCommand(const _REGISTER_COMMAND_INFO& info);
    basicsrv_status UnregisterCommand(const char* name);
    basicsrv_status UnregisterAllCommands();
    bool CommandExists(const char* name);
    basicsrv_status ProcessCommand(const char* command, BasicSrvStatusWriter* writer,
                                   bool callerFlag, bool interactive, unsigned int callerId);
    // Writes the help of the commands named by `text` (words split as command names), or of
    // all commands when `text` is null or has no word.
    void WriteCommandHelp(BasicSrvStatusWriter& writer, const char* text);

    const char* GetSrvName() const { return srvName_.c_str(); }
    const char* GetSrvNameWithVersion() const { return nameWithVersion_.c_str(); }
    const char* GetVersion() const { return version_.c_str(); }
    const char* GetConfigName() const { return configName_.c_str(); }
    const char* GetLogFileLocation() const { return logDirectory_.c_str(); }
    const char* GetLogArchiveDir() const {
        return archiveDirectory_.empty() ? nullptr : archiveDirectory_.c_str();
    }
    int GetLogFileDaysTillDelete() const { return daysTillDelete_; }
    ConfigReader* GetConfigReader() const;
    // The reader that keeps the maintenance state, or null; no reference is added.
    ConfigReader* GetMaintConfigReader() const;
    void SetSrvName(const char* name);
    // The wall-clock time the service was built.
    const _blob_timestamp& GetUptimeStart() const { return uptimeStart_; }
    // True between a Startup and the next Shutdown.
    bool IsRunning() const;
    // The stem of the dated log's file name: the name, or "<name>_<config>_".
    const std::string& GetLogStem() const { return logStem_; }
    // The level of the dated log file.
    logger_event_level GetFileLoggingLevel() const { return fileLogger_.GetLoggingLevel(); }
    void SetFileLoggingLevel(logger_event_level level) { fileLogger_.SetLoggingLevel(level); }
    // The dated log file (not opened with noFileLog).
    DatedFileLogger& GetFileLogger() noexcept { return fileLogger_; }

    basicsrv_status RegisterMaintenanceCommand(const _REGISTER_MAINTENANCE_COMMAND_INFO& info);
    basicsrv_status RegisterMaintenanceCommandEx(const _REGISTER_MAINTENANCE_COMMAND_INFO_EX& info);
    basicsrv_status UnregisterMaintenanceCommand(const char* name);
    // The embedded configuration files found at construction.
    const std::map<uint64_t, EmbeddedConfigItem>& GetEmbeddedFiles() const { return embedded_; }
    // The show configs command.
    void ShowEmbeddedFiles(_BASICSRV_COMMAND_INFO& info);
    // Logs the allocators' table at NORMAL, a message a line.
    void LogAllocList();
    // The maint command: show, run, disable and enable.
    void MaintCommandLine(_BASICSRV_COMMAND_INFO& info);

    // Local wall-clock time as maintenance reads it; tests replace it (null: the real one).
    using LocalClockFunction = void (*)(_SYSTEMTIME* out);
    static void SetLocalClockForTest(LocalClockFunction clock);

    // The implementation behind a service.
    static BasicSrvImpl& Of(BasicSrv& srv) noexcept { return *srv.impl_; }
    // One maintenance tick on the calling thread, as the timer runs it.
    void RunMaintenanceTick() { (void)MaintenanceTick(this); }

    // Test seams: the period of the maintenance tick of services started from now on (0
    // restores 10 seconds), and the clock their timers measure with (null: the tick counter).
    static void SetMaintenanceIntervalForTest(uint32_t intervalMs);
    static void SetMaintenanceClockForTest(TimerClock* clock);

  private:
    void Construct(const _BASICSRV_STARTUP_INFO* info);
    void ReadLogDirectories(const _BASICSRV_STARTUP_INFO& info);
    void ReadVersionRecord(bool useProductName);
    void MakeNameWithVersion();
    void MakeMaintConfigReader();

    // Seams where the dated log file, the maintenance timer, the built-in commands and the
    // embedded configuration files join the life of the service.
    void OpenDatedLog();
    void CloseDatedLog();
    void RegisterBuiltinCommands();
    void AddMaintenanceCallback();
    void RemoveMaintenanceCallback();
    bool StartMaintenanceTimer();
    void StopMaintenanceTimer();
    void DiscoverEmbeddedFiles();
    void ScanForEmbeddedFiles(ConfigReader& reader, const std::string* parentLabel);
    // The maintenance tick: due maintenance commands under the state lock, then the sinks.
    static unsigned int MaintenanceTick(void* self);
    void RunDueMaintenanceCommands();
    // The common fields of both registration forms.
    struct MaintEntry;
    basicsrv_status RegisterMaintEntry(const MaintEntry& entry, bool duplicateTest);
    void ReadLastRun(MaintCommand& command);
    void WriteLastRun(const MaintCommand& command);
    bool IsDue(const MaintCommand& command, const _SYSTEMTIME& now) const;
    bool RunMaintCommand(MaintCommand& command);
    // The first command of that name, ignoring case, or null; hold the state lock.
    MaintCommand* FindMaintCommand(const char* name);

    // Calls the facade's right hooks; a hook that throws refuses.
    bool AskRootRight(unsigned int callerId, const char* word, bool callerFlag) const;
    bool AskCommandRight(unsigned int callerId, const char* fullName, bool callerFlag) const;
    // The command node of `name`, or null; hold the state lock.
    detail::CommandNode* FindCommand(const detail::CommandName& name);
    // Waits until no command runs; hold the registration lock, not the state lock.
    void WaitForActiveCommands();

    EventSink<BasicSrvEvents, 100, DefaultRefCount> sinks_;
    BasicSrv* facade_;
    _blob_timestamp uptimeStart_{};
    mutable QuickLock stateLock_;
    QuickLock registrationLock_;
    detail::CommandMap commands_;
    std::map<const detail::CommandNode*, uint32_t> activeCommands_;
    std::string srvName_;
    std::string nameWithVersion_;
    std::string version_;
    std::string configName_;
    std::string logDirectory_;
    std::string archiveDirectory_;
    std::string logStem_;
    bool running_ = false;
    bool registerQuit_ = true;
    bool noFileLog_ = false;
    uint32_t startingThread_ = 0;
    uint32_t stoppingThread_ = 0;
    std::vector<std::shared_ptr<MaintCommand>> maintCommands_;
    _SYSTEMTIME lastTick_{};  // local time of the run's last tick; all 0 before the first
    Timer timer_;
    unsigned int timerCallbackId_ = 0;
    int daysTillDelete_ = -1;
    ConfigReader* configReader_ = nullptr;
    ConfigReader* maintConfigReader_ = nullptr;
    DatedFileLogger fileLogger_;
    std::map<uint64_t, EmbeddedConfigItem> embedded_;
};

}  // namespace TOLVEN
