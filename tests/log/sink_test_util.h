// A sink that keeps what it receives, for the sink and accounting tests.
#pragma once

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "tolven/logsinks.h"

namespace sinktest {

// True for the lines a thread writes about its own settings as it starts (and the first one
// that names the thread file): the library's threads start while these tests run, and
// their lines are not what the tests look at.
inline bool IsThreadStartLine(const TOLVEN::_LOGGER_CB_DATA* data) {
    return std::strcmp(data->function, "TOLVEN::ConfigureCurrentThread") == 0 ||
           std::strcmp(data->function, "TOLVEN::set_threadaffinityfile") == 0;
}

// True for the text of such a line as a log file holds it.
inline bool IsThreadStartText(const std::string& line) {
    return line.find("Thread <") != std::string::npos ||
           line.find("thread affinity file") != std::string::npos ||
           line.find("thread config file") != std::string::npos;
}

// Registered at TRACE from construction to destruction.
class KeepSink : public TOLVEN::StandardLogSink {
  public:
    explicit KeepSink(TOLVEN::logger_event_level level = TOLVEN::LOGGER_TRACE) {
        SetLoggingLevel(level);
        (void)SinkEvents(true);
    }
    ~KeepSink() override { (void)SinkEvents(false); }
    using StandardLogSink::CallbackId;
    using StandardLogSink::SinkEvents;

    std::vector<std::string> Texts() {
        std::lock_guard<std::mutex> guard(lock_);
        return texts_;
    }
    std::vector<TOLVEN::_LOGGER_CB_DATA> Data() {
        std::lock_guard<std::mutex> guard(lock_);
        return data_;
    }
    // True when some message contains `part`.
    bool Saw(const std::string& part) {
        std::lock_guard<std::mutex> guard(lock_);
        for (const std::string& t : texts_)
            if (t.find(part) != std::string::npos) return true;
        return false;
    }
    void Clear() {
        std::lock_guard<std::mutex> guard(lock_);
        texts_.clear();
        data_.clear();
    }

  protected:
    void OnItemLogged(TOLVEN::_LOGGER_CB_DATA* const data) override {
        if (IsThreadStartLine(data)) return;
        std::lock_guard<std::mutex> guard(lock_);
        texts_.emplace_back(data->text);
        data_.push_back(*data);
        data_.back().text = nullptr;  // gone after the call
    }

  private:
    std::mutex lock_;
    std::vector<std::string> texts_;
    std::vector<TOLVEN::_LOGGER_CB_DATA> data_;
};

// Logs at `level` from one fixed site.
inline TOLVEN::log_status Log(TOLVEN::logger_event_level level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const TOLVEN::log_status st =
        TOLVEN::LogProcessEvent(level, "sink_test", 1, "Test::Log", format, args, 0);
    va_end(args);
    return st;
}

}  // namespace sinktest
