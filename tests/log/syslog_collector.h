// A syslog collector on 127.0.0.1 for the syslog sink's tests: a real rsyslogd where the
// platform has one, a plain UDP listener on Windows.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sinktest {

class SyslogCollector {
  public:
    virtual ~SyslogCollector() = default;
    // The UDP port it listens on.
    virtual uint16_t Port() const = 0;
    // Waits (at most about 10 s) for `count` messages and gives them as the collector kept
    // them, in order of arrival.
    virtual std::vector<std::string> Receive(size_t count) = 0;
    // What the collector keeps of a datagram that ends in a NUL byte. (rsyslogd drops the
    // NUL that some senders put at the end of a message.)
    virtual std::string Kept(const std::string& datagram) const = 0;
    // Who is listening, for the test's record.
    virtual std::string Name() const = 0;
};

// Starts this platform's collector with its files in `folder`; null, with the reason in
// `why`, when it cannot start.
std::unique_ptr<SyslogCollector> StartSyslogCollector(const std::string& folder, std::string* why);

}  // namespace sinktest
