// Internals of the log sinks shared with tests.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// How many times a syslog sink has asked the resolver for a host name, over the process's
// life. A dotted address never does.
uint64_t SyslogNameLookups() noexcept;

}  // namespace TOLVEN::detail
