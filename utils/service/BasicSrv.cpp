// The BasicSrv facade: every method forwards to the hidden implementation.
#include "service/BasicSrvImpl.h"

namespace TOLVEN {
namespace {
_BASICSRV_STARTUP_INFO MakeInfo(const char* srvName, ConfigReader* config,
                                const char* logFileDirectory, bool registerQuit) {
    _BASICSRV_STARTUP_INFO info;
    info.srvName = srvName;
    info.configReader = config;
    info.maintConfigReader = config;
    info.logFileDirectory = logFileDirectory;
    info.daysTillDelete = 7;
    info.logArchiveDirectory = nullptr;
    info.registerQuit = registerQuit;
    info.noFileLog = false;
    info.createMaintConfig = false;
    return info;
}
}  // namespace

BasicSrv::BasicSrv(const _BASICSRV_STARTUP_INFO& info) : impl_(new BasicSrvImpl(this, &info)) {}

BasicSrv::BasicSrv(_BASICSRV_STARTUP_INFO* info) : impl_(new BasicSrvImpl(this, info)) {}

BasicSrv::BasicSrv(const char* srvName, ConfigReader* config, const char* logFileDirectory,
                   bool registerQuit)
    : BasicSrv(MakeInfo(srvName, config, logFileDirectory, registerQuit)) {}

BasicSrv::~BasicSrv() {
    delete impl_;
}

basicsrv_status BasicSrv::PreStartup() {
    return impl_->PreStartup();
}
basicsrv_status BasicSrv::Startup() {
    return impl_->Startup();
}
basicsrv_status BasicSrv::Shutdown() {
    return impl_->Shutdown();
}
basicsrv_status BasicSrv::AddSink(BasicSrvEvents* sink) {
    return impl_->AddSink(sink);
}
basicsrv_status BasicSrv::RemoveSink(BasicSrvEvents* sink) {
    return impl_->RemoveSink(sink);
}

basicsrv_status BasicSrv::RegisterCommand(const _REGISTER_COMMAND_INFO& info) {
    return impl_->RegisterCommand(info);
}
basicsrv_status BasicSrv::UnregisterCommand(const char* name) {
    return impl_->UnregisterCommand(name);
}
basicsrv_status BasicSrv::UnregisterAllCommands() {
    return impl_->UnregisterAllCommands();
}
bool BasicSrv::CommandExists(const char* name) {
    return impl_->CommandExists(name);
}
basicsrv_status BasicSrv::ProcessCommand(const char* command, BasicSrvStatusWriter* writer,
                                         bool callerFlag, bool interactive, unsigned int callerId) {
    return impl_->ProcessCommand(command, writer, callerFlag, interactive, callerId);
}

const char* BasicSrv::GetSrvName() const {
    return impl_->GetSrvName();
}
const char* BasicSrv::GetSrvNameWithVersion() const {
    return impl_->GetSrvNameWithVersion();
}
const char* BasicSrv::GetVersion() const {
    return impl_->GetVersion();
}
const char* BasicSrv::GetConfigName() const {
    return impl_->GetConfigName();
}
const char* BasicSrv::GetLogFileLocation() const {
    return impl_->GetLogFileLocation();
}
const char* BasicSrv::GetLogArchiveDir() const {
    return impl_->GetLogArchiveDir();
}
int BasicSrv::GetLogFileDaysTillDelete() const {
    return impl_->GetLogFileDaysTillDelete();
}
basicsrv_status BasicSrv::RegisterMaintenanceCommand(
    const _REGISTER_MAINTENANCE_COMMAND_INFO& info) {
    return impl_->RegisterMaintenanceCommand(info);
}
basicsrv_status BasicSrv::RegisterMaintenanceCommandEx(
    const _REGISTER_MAINTENANCE_COMMAND_INFO_EX& info) {
    return impl_->RegisterMaintenanceCommandEx(info);
}
basicsrv_status BasicSrv::UnregisterMaintenanceCommand(const char* name) {
    return impl_->UnregisterMaintenanceCommand(name);
}
void BasicSrv::LogAllocList() {
    impl_->LogAllocList();
}
logger_event_level BasicSrv::GetFileLoggingLevel() const {
    return impl_->GetFileLoggingLevel();
}
void BasicSrv::SetFileLoggingLevel(logger_event_level level) {
    impl_->SetFileLoggingLevel(level);
}
ConfigReader* BasicSrv::GetConfigReader() const {
    return impl_->GetConfigReader();
}
void BasicSrv::SetSrvName(const char* name) {
    impl_->SetSrvName(name);
}

bool BasicSrv::CanRunRootCommand(unsigned int callerId, const char* command,
                                 bool callerFlag) const {
    return true;
}
bool BasicSrv::CanRunCommand(unsigned int callerId, const char* command, bool callerFlag) const {
    return true;
}

}  // namespace TOLVEN
