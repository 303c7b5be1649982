// The status writers: the formatting base, the writer that drops everything and the writer
// that logs line by line.
#include <cstdio>

#include "tolven/basicsrv.h"

namespace TOLVEN {
namespace {
// Room of a formatted status text, terminator included.
constexpr std::size_t kStatusBufferSize = 4096;
// Room the line buffer of a LogStatusWriter reserves.
constexpr std::size_t kLogLineReserve = 512;
}  // namespace

BasicSrvStatusWriter::~BasicSrvStatusWriter() = default;

basicsrv_status BasicSrvStatusWriter::FormatStatus(const char* format, ...) {
    char buffer[kStatusBufferSize];
    buffer[0] = '\0';
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        if (std::vsnprintf(buffer, sizeof(buffer), format, args) < 0) buffer[0] = '\0';
        va_end(args);
    }
    buffer[sizeof(buffer) - 1] = '\0';
    return WriteStatus(buffer);
}

basicsrv_status EmptyStatusWriter::WriteStatus(const char* text) {
    return basicsrv_success;
}

basicsrv_status EmptyStatusWriter::FlushStatus() {
    return basicsrv_success;
}

LogStatusWriter::LogStatusWriter() {
    line_.reserve(kLogLineReserve);
}

basicsrv_status LogStatusWriter::WriteStatus(const char* text) {
    if (text == nullptr) return basicsrv_success;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\n') {
            (void)FlushStatus();
        } else {
            line_ += *p;
        }
    }
    return basicsrv_success;
}

basicsrv_status LogStatusWriter::FlushStatus() {
    if (line_.empty()) return basicsrv_success;
    TOLVEN_LOG(LOGGER_NORMAL, "BasicSrvImpl", "TOLVEN::LogStatusWriter::FlushStatus", "%s",
               line_.c_str());
    line_.clear();
    return basicsrv_success;
}

}  // namespace TOLVEN
