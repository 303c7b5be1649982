// The syslog sink: one UDP datagram per message.
#include <atomic>
#include <cstdio>

#include "log/LogSinksInternal.h"
#include "platform/socket.h"
#include "tolven/configreader.h"
#include "tolven/logsinks.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "SyslogLogger";
constexpr const char* kInit = "TOLVEN::SyslogLogger::Init";
constexpr const char* kCreateSocket = "TOLVEN::SyslogLogger::CreateSocket";

constinit std::atomic<uint64_t> g_nameLookups{0};

}  // namespace

uint64_t detail::SyslogNameLookups() noexcept {
    return g_nameLookups.load(std::memory_order_relaxed);
}

SyslogLogger::~SyslogLogger() {
    Term();
}

bool SyslogLogger::Init(ConfigReader* config, const char* ident) {
    (void)SinkEvents(false);
    DestroySocket();
    ident_ = ident;

    // Every value is read before any is looked at.
    const configreader_status missing = configreader_invalid_parameter;
    unsigned int port = 0;
    unsigned int priority = 0;
    char host[255] = {};
    char levelText[16] = {};
    size_t hostSize = sizeof host;
    size_t levelSize = sizeof levelText;
    const configreader_status portStatus =
        config != nullptr ? config->ReadUINT(nullptr, "SyslogPort", &port) : missing;
    const configreader_status priorityStatus =
        config != nullptr ? config->ReadUINT(nullptr, "SyslogPriority", &priority) : missing;
    priority_ = static_cast<int>(priority);
    const configreader_status hostStatus =
        config != nullptr ? config->ReadString(nullptr, "SyslogHost", host, &hostSize) : missing;
    const configreader_status levelStatus =
        config != nullptr ? config->ReadString(nullptr, "SyslogMinLevel", levelText, &levelSize)
                          : missing;

    // The three settings without a default, in the order they were read.
    const struct {
        const char* name;
        configreader_status status;
    } required[] = {
        {"SyslogPort", portStatus}, {"SyslogPriority", priorityStatus}, {"SyslogHost", hostStatus}};
    for (const auto& setting : required) {
        if (setting.status == configreader_success) continue;
        TOLVEN_LOG(LOGGER_ERROR, kFile, kInit, "Failed to read parameter %s, error %u",
                   setting.name, static_cast<unsigned>(setting.status));
        return false;
    }
    if (levelStatus != configreader_success) {
        TOLVEN_LOG(LOGGER_NORMAL, kFile, kInit, "SyslogMinLevel is not defined - using default %s",
                   "WARN");
        std::snprintf(levelText, sizeof levelText, "%s", "WARN");
    }
    logger_event_level level = LoggerLevelFromName(levelText);
    if (level == 0) {
        TOLVEN_LOG(LOGGER_NORMAL, kFile, kInit, "SyslogMinLevel %s is invalid - using default %s",
                   levelText, "WARN");
        level = LOGGER_WARN;
    }
    SetLoggingLevel(level);
    const int portNumber = static_cast<int>(port);
    if (!CreateSocket(host, portNumber)) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kInit, "Failed to create syslogger socket connection!");
        return false;
    }
    TOLVEN_LOG(LOGGER_NORMAL, kFile, kInit,
               "Logging events with a level of atleast %s to syslog at %s:%d with priority %d",
               LoggerLevelName(level), host, portNumber, priority_);
    (void)SinkEvents(true);
    return true;
}

void SyslogLogger::Term() {
    (void)SinkEvents(false);
    DestroySocket();
}

bool SyslogLogger::CreateSocket(const char* host, int port) {
    const platform::SocketHandle s = platform::OpenUdpSocket();
    if (s == platform::kNoSocket) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kCreateSocket, "SyslogLogger: Error <%u> creating socket.",
                   platform::LastSocketError());
        return false;
    }
    if (!platform::BindSocket(s, 0, 0)) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kCreateSocket,
                   "SyslogLogger: Error <%u> calling bind() on socket.",
                   platform::LastSocketError());
        platform::CloseSocket(s);
        return false;
    }
    uint32_t address = 0;
    if (!platform::ParseIPv4Address(host, &address)) {
        g_nameLookups.fetch_add(1, std::memory_order_relaxed);
        if (!platform::ResolveIPv4Address(host, &address)) {
            TOLVEN_LOG(LOGGER_ERROR, kFile, kCreateSocket,
                       "SyslogLogger: getaddrinfo() failed for hostname '%s'", host);
            platform::CloseSocket(s);
            return false;
        }
    }
    if (!platform::ConnectSocket(s, address, static_cast<uint16_t>(port))) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kCreateSocket,
                   "SyslogLogger: Error <%u> calling connect() on socket.",
                   platform::LastSocketError());
        platform::CloseSocket(s);
        return false;
    }
    socket_ = s;
    return true;
}

void SyslogLogger::DestroySocket() {
    platform::CloseSocket(socket_);
    socket_ = platform::kNoSocket;
}

void SyslogLogger::OnItemLogged(_LOGGER_CB_DATA* const data) {
    if (socket_ == platform::kNoSocket) return;
    const _blob_timestamp& t = data->timestamp;
    char datagram[kDatagramSize];
    const int n = std::snprintf(
        datagram, sizeof datagram, "<%i> %s %-2.2i:%-2.2i:%-2.2i.%03i %s %s", priority_,
        ident_ != nullptr ? ident_ : "", t.hour, t.minute, t.second,
        static_cast<int>(t.nanoseconds / 1000000), LoggerLevelName(data->level), data->text);
    if (n < 0) return;
    // A message that did not fit goes out whole as far as it came, its last byte the NUL.
    const size_t length =
        static_cast<size_t>(n) < sizeof datagram ? static_cast<size_t>(n) : sizeof datagram;
    (void)platform::SendDatagram(socket_, datagram, length);
}

}  // namespace TOLVEN
