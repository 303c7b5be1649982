// The Windows collector: a UDP socket in the test.
#include "log/syslog_collector.h"
#include "platform/socket.h"

namespace sinktest {
namespace {

class UdpCollector : public SyslogCollector {
  public:
    explicit UdpCollector(TOLVEN::platform::SocketHandle s) : socket_(s) {}
    ~UdpCollector() override { TOLVEN::platform::CloseSocket(socket_); }
    uint16_t Port() const override { return TOLVEN::platform::SocketLocalPort(socket_); }
    std::vector<std::string> Receive(size_t count) override {
        std::vector<std::string> got;
        char buffer[65536];
        while (got.size() < count) {
            const int64_t n =
                TOLVEN::platform::ReceiveDatagram(socket_, buffer, sizeof buffer, 10000);
            if (n <= 0) break;
            got.emplace_back(buffer, static_cast<size_t>(n));
        }
        return got;
    }
    std::string Kept(const std::string& datagram) const override { return datagram; }
    std::string Name() const override { return "UDP listener"; }

  private:
    TOLVEN::platform::SocketHandle socket_;
};

}  // namespace

std::unique_ptr<SyslogCollector> StartSyslogCollector(const std::string&, std::string* why) {
    using namespace TOLVEN::platform;
    const SocketHandle s = OpenUdpSocket();
    uint32_t loopback = 0;
    if (s == kNoSocket || !ParseIPv4Address("127.0.0.1", &loopback) ||
        !BindSocket(s, loopback, 0)) {
        CloseSocket(s);
        *why = "no UDP socket on 127.0.0.1, error " + std::to_string(LastSocketError());
        return nullptr;
    }
    return std::make_unique<UdpCollector>(s);
}

}  // namespace sinktest
