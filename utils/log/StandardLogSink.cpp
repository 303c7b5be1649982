// The base of the log sinks: registration with the log API.
#include "tolven/logsinks.h"

namespace TOLVEN {

StandardLogSink::StandardLogSink() {
    (void)LogInitApi();
}

StandardLogSink::~StandardLogSink() {
    // Derived sinks leave the callback table in their own destructors, while their data is
    // still there.
    LogTermApi();
}

void StandardLogSink::SetLoggingLevel(logger_event_level level) {
    level_ = level;
    // Unregistered, the API does not know the id; the level then applies at registration.
    (void)TOLVEN::SetLoggingLevel(level, callbackId_);
}

bool StandardLogSink::SinkEvents(bool enable) {
    if (enable) {
        if (callbackId_ != 0) return false;
        uint32_t id = 0;
        if (LogAddCallbackFunc(&LogFunc, this, &id, LOGGER_NORMAL) != LOG_SUCCESS) return false;
        callbackId_ = id;
        (void)TOLVEN::SetLoggingLevel(level_, callbackId_);
        return true;
    }
    if (callbackId_ == 0) return false;
    (void)LogRemoveCallback(callbackId_);
    callbackId_ = 0;
    return true;
}

void StandardLogSink::LogFunc(_LOGGER_CB_DATA* const data, void* context) {
    static_cast<StandardLogSink*>(context)->OnItemLogged(data);
}

}  // namespace TOLVEN
