// The POSIX collector: a real rsyslogd, started as a plain process of the test's user, with
// one UDP input on 127.0.0.1 and one file action that writes each raw message as it came.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "log/syslog_collector.h"
#include "platform/socket.h"

extern char** environ;

namespace sinktest {
namespace {

// Ends every record in the output file; no test message contains it.
const std::string kEnd = "\n~~tolven-end~~\n";
const std::string kProbe = "tolven-probe";
constexpr auto kPatience = std::chrono::seconds(10);

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A UDP port that was free a moment ago.
uint16_t FreePort() {
    using namespace TOLVEN::platform;
    const SocketHandle s = OpenUdpSocket();
    uint32_t loopback = 0;
    uint16_t port = 0;
    if (s != kNoSocket && ParseIPv4Address("127.0.0.1", &loopback) && BindSocket(s, loopback, 0))
        port = SocketLocalPort(s);
    CloseSocket(s);
    return port;
}

std::string FindRsyslogd() {
    for (const char* candidate : {"/usr/sbin/rsyslogd", "/sbin/rsyslogd", "/usr/bin/rsyslogd"})
        if (::access(candidate, X_OK) == 0) return candidate;
    return {};
}

class Rsyslogd : public SyslogCollector {
  public:
    Rsyslogd(std::string folder, uint16_t port) : folder_(std::move(folder)), port_(port) {}
    ~Rsyslogd() override { Stop(); }

    bool Start(std::string* why) {
        const std::string binary = FindRsyslogd();
        if (binary.empty()) {
            *why = "rsyslogd is not installed (Debian package rsyslog, scripts/deps.sh)";
            return false;
        }
        const std::string conf = folder_ + "/rsyslog.conf";
        pidFile_ = folder_ + "/rsyslogd.pid";
        output_ = folder_ + "/messages.txt";
        const std::string log = folder_ + "/rsyslogd.log";
        // Raw messages as received: no escaping of control bytes, no line feed dropped.
        std::ofstream(conf) << "global(workDirectory=\"" << folder_ << "\"\n"
                            << "       parser.escapeControlCharactersOnReceive=\"off\"\n"
                            << "       parser.dropTrailingLFOnReception=\"off\")\n"
                            << "module(load=\"imudp\")\n"
                            << "template(name=\"raw\" type=\"string\" string=\"%rawmsg%"
                            << "\\n~~tolven-end~~\\n\")\n"
                            << "ruleset(name=\"tolven\") {\n"
                            << "    action(type=\"omfile\" file=\"" << output_
                            << "\" template=\"raw\")\n"
                            << "}\n"
                            << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << port_
                            << "\" ruleset=\"tolven\")\n";

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        std::vector<std::string> args = {binary, "-n", "-f", conf, "-i", pidFile_};
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const int rc =
            ::posix_spawn(&child_, binary.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            child_ = -1;
            *why = "rsyslogd could not be started: " + std::string(std::strerror(rc));
            return false;
        }
        if (!WaitReady()) {
            Stop();
            *why = "rsyslogd did not start to collect within 10 s; its output: " + ReadFile(log);
            return false;
        }
        return true;
    }

    uint16_t Port() const override { return port_; }

    std::vector<std::string> Receive(size_t count) override {
        const auto until = std::chrono::steady_clock::now() + kPatience;
        std::vector<std::string> got;
        for (;;) {
            got = Records();
            if (got.size() >= count || std::chrono::steady_clock::now() >= until) return got;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    std::string Kept(const std::string& datagram) const override {
        if (!datagram.empty() && datagram.back() == '\0')
            return datagram.substr(0, datagram.size() - 1);
        return datagram;
    }
    std::string Name() const override { return "rsyslogd"; }

  private:
    // The records in the output file, the readiness probes left out.
    std::vector<std::string> Records() const {
        const std::string text = ReadFile(output_);
        std::vector<std::string> records;
        size_t at = 0;
        for (size_t end; (end = text.find(kEnd, at)) != std::string::npos; at = end + kEnd.size()) {
            std::string record = text.substr(at, end - at);
            if (record.rfind(kProbe, 0) != 0) records.push_back(std::move(record));
        }
        return records;
    }

    // Sends probes until one shows up in the output file.
    bool WaitReady() {
        using namespace TOLVEN::platform;
        const SocketHandle s = OpenUdpSocket();
        uint32_t loopback = 0;
        if (s == kNoSocket || !ParseIPv4Address("127.0.0.1", &loopback) ||
            !ConnectSocket(s, loopback, port_)) {
            CloseSocket(s);
            return false;
        }
        const auto until = std::chrono::steady_clock::now() + kPatience;
        bool ready = false;
        while (!ready && std::chrono::steady_clock::now() < until) {
            int status = 0;
            if (::waitpid(child_, &status, WNOHANG) == child_) {
                child_ = -1;  // it ended
                break;
            }
            (void)SendDatagram(s, kProbe.data(), kProbe.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            ready = ReadFile(output_).find(kProbe) != std::string::npos;
        }
        CloseSocket(s);
        return ready;
    }

    // SIGTERM to the process named in the pidfile (the child itself when there is none).
    void Stop() {
        if (child_ <= 0) return;
        pid_t pid = child_;
        long named = 0;
        if (std::ifstream(pidFile_) >> named && named > 0) pid = static_cast<pid_t>(named);
        (void)::kill(pid, SIGTERM);
        int status = 0;
        (void)::waitpid(child_, &status, 0);
        child_ = -1;
    }

    std::string folder_;
    uint16_t port_;
    std::string pidFile_, output_;
    pid_t child_ = -1;
};

}  // namespace

std::unique_ptr<SyslogCollector> StartSyslogCollector(const std::string& folder, std::string* why) {
    const uint16_t port = FreePort();
    if (port == 0) {
        *why = "no free UDP port on 127.0.0.1";
        return nullptr;
    }
    auto collector = std::make_unique<Rsyslogd>(folder, port);
    if (!collector->Start(why)) return nullptr;
    return collector;
}

}  // namespace sinktest
