// The file sink: each message as a line of a dated text file.
#include "tolven/logsinks.h"

namespace TOLVEN {

DatedFileLogger::DatedFileLogger() : file_(true) {}

DatedFileLogger::~DatedFileLogger() {
    Term();
}

bool DatedFileLogger::Init(const char* name, const char* directory, const char* rollText,
                           int keepDays, bool dated, const char* archiveDirectory) {
    (void)SinkEvents(false);
    file_.Term();
    if (!file_.Init(name, directory, rollText, keepDays, dated, archiveDirectory)) return false;
    (void)SinkEvents(true);
    return true;
}

void DatedFileLogger::Term() {
    (void)SinkEvents(false);
    file_.Term();
}

void DatedFileLogger::OnItemLogged(_LOGGER_CB_DATA* const data) {
    const char* prefix = nullptr;
    if (data->level == LOGGER_WARN) prefix = "WARN:";
    if (data->level == LOGGER_ERROR) prefix = "ERROR:";
    (void)file_.LogEx(prefix, data->text, -1);
}

}  // namespace TOLVEN
