// The service core: construction from the startup record and the configuration, the
// lifecycle, the event sinks and the accessors.
#include "service/BasicSrvImpl.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/directory.h"
#include "platform/file.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "tolven/iniconfigreader.h"
#include "tolven/versioninfo.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "BasicSrvImpl";
constexpr const char* kConstruct = "TOLVEN::BasicSrvImpl::Construct";
constexpr int kDefaultDaysTillDelete = 7;
constexpr const char* kTimerName = "BasicSrv";

std::atomic<uint32_t> gMaintenanceIntervalMs{0};
std::atomic<TimerClock*> gMaintenanceClock{nullptr};

// Removes every trailing '\' and '/'.
std::string TrimDirectory(const char* directory) {
    std::string out(directory != nullptr ? directory : "");
    while (!out.empty() && (out.back() == '\\' || out.back() == '/'))
        out.pop_back();
    return out;
}

// Reads a text item of the default section into `out`; false when it is missing or
// unreadable.
bool ReadText(ConfigReader* reader, const char* item, std::string& out) {
    char buffer[BasicSrvImpl::kPathSize] = {};
    size_t size = sizeof(buffer);
    if (reader->ReadString(nullptr, item, buffer, &size) != configreader_success) return false;
    buffer[sizeof(buffer) - 1] = '\0';
    out.assign(buffer);
    return true;
}

}  // namespace

BasicSrvImpl::BasicSrvImpl(BasicSrv* facade, const _BASICSRV_STARTUP_INFO* info) : facade_(facade) {
    (void)GetCurrentBlobTime(&uptimeStart_);
    Construct(info);
}

void BasicSrvImpl::Construct(const _BASICSRV_STARTUP_INFO* info) {
    running_ = false;
    registerQuit_ = true;
    daysTillDelete_ = -1;
    archiveDirectory_.clear();

    bool useProductName = true;
    if (info != nullptr) {
        registerQuit_ = info->registerQuit;
        noFileLog_ = info->noFileLog;
        logDirectory_ = TrimDirectory(info->logFileDirectory);
        archiveDirectory_ = TrimDirectory(info->logArchiveDirectory);
        daysTillDelete_ = info->daysTillDelete;

        if (info->configReader != nullptr) {
            configReader_ = info->configReader;
            configReader_->AddRef();
            ReadLogDirectories(*info);
            char name[kPathSize] = {};
            if (configReader_->GetReaderName(name, sizeof(name)) == configreader_success) {
                name[sizeof(name) - 1] = '\0';
                configName_.assign(name);
            }
            bool flag = true;
            if (configReader_->ReadBool(nullptr, "UseProductName", &flag) == configreader_success)
                useProductName = flag;
        }

        bool maintDone = false;
        if (info->createMaintConfig && configReader_ != nullptr &&
            configReader_->GetType() == configreader_type_ini) {
            if (!configName_.empty()) {
                MakeMaintConfigReader();
                maintDone = true;
            } else {
                TOLVEN_LOG(LOGGER_ERROR, kFile, kConstruct,
                           "User config reader is not initialized, cannot create maint config "
                           "reader!");
            }
        }
        if (!maintDone) {
            maintConfigReader_ =
                info->maintConfigReader != nullptr ? info->maintConfigReader : info->configReader;
            if (maintConfigReader_ != nullptr) maintConfigReader_->AddRef();
        }
        srvName_.assign(info->srvName != nullptr ? info->srvName : "");
    }

    // The version record is read with or without a record, so that a service built with
    // every default still carries the product's name.
    ReadVersionRecord(useProductName);
    MakeNameWithVersion();

    if (logDirectory_.empty()) (void)platform::CurrentDirectory(logDirectory_);

    if (configReader_ != nullptr) {
        unsigned int days = 0;
        if (configReader_->ReadUINT(nullptr, "DaysTillDelete", &days) == configreader_success)
            daysTillDelete_ = static_cast<int>(days);
    }
    if (daysTillDelete_ < 0) daysTillDelete_ = kDefaultDaysTillDelete;

    fileLogger_.SetLoggingLevel(LOGGER_NORMAL);

    logStem_ = srvName_;
    if (!configName_.empty()) logStem_ += "_" + configName_ + "_";

    if (archiveDirectory_.empty() && configReader_ != nullptr)
        (void)ReadText(configReader_, "LogArchiveDirectory", archiveDirectory_);

    if (!noFileLog_) OpenDatedLog();

    TOLVEN_LOG(LOGGER_NORMAL, kFile, kConstruct, "%s", nameWithVersion_.c_str());

    RegisterBuiltinCommands();
    AddMaintenanceCallback();
    if (configReader_ != nullptr) DiscoverEmbeddedFiles();
}

void BasicSrvImpl::ReadLogDirectories(const _BASICSRV_STARTUP_INFO& info) {
    std::string workingDirectory;
    if (ReadText(configReader_, "WorkingDirectory", workingDirectory) &&
        !workingDirectory.empty()) {
        (void)platform::MakeDirectory(workingDirectory.c_str());
        (void)platform::ChangeCurrentDirectory(workingDirectory.c_str());
    }
    if (logDirectory_.empty()) (void)ReadText(configReader_, "LogFileDirectory", logDirectory_);
}

void BasicSrvImpl::MakeMaintConfigReader() {
    std::string path;
    if (!logDirectory_.empty()) {
        path = logDirectory_;
        path += platform::PathSeparator();
    }
    path += configName_;
    path += "_cmd.ini";
    IniConfigReader* ini = IniConfigReader::CreateObject();
    if (ini == nullptr) return;
    // A file that cannot be made is kept all the same: its reads give not found.
    (void)ini->SetIniFile(path.c_str(), true, true, nullptr);
    maintConfigReader_ = ini;
}

void BasicSrvImpl::ReadVersionRecord(bool useProductName) {
    VersionInfo info;
    if (!info.Initialize(nullptr)) return;
    char buffer[kNameWithVersionSize + 1] = {};
    unsigned int size = sizeof(buffer);
    if (useProductName && info.GetProductName(buffer, &size) && buffer[0] != '\0')
        srvName_.assign(buffer);
    size = sizeof(buffer);
    buffer[0] = '\0';
    if (info.GetProductVersion(buffer, &size) && buffer[0] != '\0') version_.assign(buffer);
}

void BasicSrvImpl::MakeNameWithVersion() {
    if (srvName_.empty() || version_.empty()) {
        nameWithVersion_ = srvName_;
        return;
    }
    std::string config = configName_;
    if (config.empty()) (void)platform::GetOwnModuleBaseName(config);
    char buffer[kNameWithVersionSize];
    (void)std::snprintf(buffer, sizeof(buffer), "%s c:%s v:%s", srvName_.c_str(), config.c_str(),
                        version_.c_str());
    nameWithVersion_.assign(buffer);
}

BasicSrvImpl::~BasicSrvImpl() {
    (void)Shutdown();
    RemoveMaintenanceCallback();
    ConfigReader* user = nullptr;
    ConfigReader* maint = nullptr;
    {
        QuickLockGuard guard(stateLock_);
        user = configReader_;
        maint = maintConfigReader_;
        configReader_ = nullptr;
        maintConfigReader_ = nullptr;
    }
    if (user != nullptr) user->Release();
    if (maint != nullptr) maint->Release();
    if (!noFileLog_) CloseDatedLog();
    sinks_.Enable(false);
    (void)UnregisterAllCommands();
}

// ---- the dated log and the maintenance tick ---------------------------------------------

void BasicSrvImpl::OpenDatedLog() {
    // A log that cannot be opened leaves the service without a file; Init has said why.
    (void)fileLogger_.Init(logStem_.c_str(), logDirectory_.c_str(), nameWithVersion_.c_str(),
                           daysTillDelete_, true,
                           archiveDirectory_.empty() ? nullptr : archiveDirectory_.c_str());
}

void BasicSrvImpl::CloseDatedLog() {
    fileLogger_.Term();
}

void BasicSrvImpl::AddMaintenanceCallback() {
    (void)timer_.AddCallback(&BasicSrvImpl::MaintenanceTick, this, &timerCallbackId_);
}

void BasicSrvImpl::RemoveMaintenanceCallback() {
    (void)timer_.RemoveCallback(timerCallbackId_);
}

bool BasicSrvImpl::StartMaintenanceTimer() {
    timer_.SetClock(gMaintenanceClock.load(std::memory_order_acquire));
    const uint32_t interval = gMaintenanceIntervalMs.load(std::memory_order_acquire);
    return timer_.Startup(interval != 0 ? interval : kMaintenanceIntervalMs, 0, kTimerName) ==
           timer_success;
}

void BasicSrvImpl::StopMaintenanceTimer() {
    (void)timer_.Shutdown();
}

unsigned int BasicSrvImpl::MaintenanceTick(void* self) {
    auto* impl = static_cast<BasicSrvImpl*>(self);
    {
        QuickLockGuard guard(impl->stateLock_);
        impl->RunDueMaintenanceCommands();
    }
    impl->sinks_.Fire(&BasicSrvEvents::OnBasicSrvDoMaintenance);
    return 0;
}

void BasicSrvImpl::SetMaintenanceIntervalForTest(uint32_t intervalMs) {
    gMaintenanceIntervalMs.store(intervalMs, std::memory_order_release);
}

void BasicSrvImpl::SetMaintenanceClockForTest(TimerClock* clock) {
    gMaintenanceClock.store(clock, std::memory_order_release);
}


// ---- lifecycle -------------------------------------------------------------------------

basicsrv_status BasicSrvImpl::PreStartup() {
    sinks_.Fire(&BasicSrvEvents::OnBasicSrvPreStartup);
    return basicsrv_success;
}

basicsrv_status BasicSrvImpl::Startup() {
    const uint32_t self = platform::CurrentThreadId();
    stateLock_.Lock();
    if (startingThread_ == self || stoppingThread_ == self) {
        stateLock_.Unlock();
        return basicsrv_wrong_state;
    }
    while (startingThread_ != 0) {
        stateLock_.Unlock();
        platform::SleepMs(kRetrySleepMs);
        stateLock_.Lock();
    }
    startingThread_ = self;
    stateLock_.Unlock();

    (void)Shutdown();
    // A run stopped from its own tick leaves the timer's thread to be joined; join it here,
    // with no lock held, since that thread may still want the state lock on its way out.
    StopMaintenanceTimer();

    stateLock_.Lock();
    running_ = true;
    lastTick_ = _SYSTEMTIME{};
    stateLock_.Unlock();

    sinks_.Fire(&BasicSrvEvents::OnBasicSrvStartup);

    basicsrv_status result = basicsrv_success;
    stateLock_.Lock();
    if (running_) {
        (void)StartMaintenanceTimer();
    } else {
        result = basicsrv_stopped_during_startup;
    }
    startingThread_ = 0;
    stateLock_.Unlock();
    if (result != basicsrv_success) return result;

    sinks_.Fire(&BasicSrvEvents::OnBasicSrvStartupComplete);
    return basicsrv_success;
}

basicsrv_status BasicSrvImpl::Shutdown() {
    const uint32_t self = platform::CurrentThreadId();
    stateLock_.Lock();
    if (!running_) {
        stateLock_.Unlock();
        return basicsrv_success;
    }
    while (stoppingThread_ != 0 && stoppingThread_ != self) {
        stateLock_.Unlock();
        platform::SleepMs(kRetrySleepMs);
        stateLock_.Lock();
        if (!running_) {
            stateLock_.Unlock();
            return basicsrv_success;
        }
    }
    stoppingThread_ = self;
    running_ = false;
    stateLock_.Unlock();

    StopMaintenanceTimer();
    sinks_.Fire(&BasicSrvEvents::OnBasicSrvShutdown);

    stateLock_.Lock();
    stoppingThread_ = 0;
    stateLock_.Unlock();
    return basicsrv_success;
}

bool BasicSrvImpl::IsRunning() const {
    QuickLockGuard guard(stateLock_);
    return running_;
}

basicsrv_status BasicSrvImpl::AddSink(BasicSrvEvents* sink) {
    return sinks_.AddSink(sink);
}

basicsrv_status BasicSrvImpl::RemoveSink(BasicSrvEvents* sink) {
    return sinks_.RemoveSink(sink);
}

// ---- accessors -------------------------------------------------------------------------

ConfigReader* BasicSrvImpl::GetConfigReader() const {
    QuickLockGuard guard(stateLock_);
    return configReader_;
}

ConfigReader* BasicSrvImpl::GetMaintConfigReader() const {
    QuickLockGuard guard(stateLock_);
    return maintConfigReader_;
}

void BasicSrvImpl::SetSrvName(const char* name) {
    if (name == nullptr) return;
    QuickLockGuard guard(stateLock_);
    srvName_.assign(name);
}

}  // namespace TOLVEN
