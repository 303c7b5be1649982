// Helpers of the service tests: a writer that keeps its text, a log collector and a gate.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "tolven/basicsrv.h"

namespace svctest {

// Keeps everything written to it.
class TextWriter : public TOLVEN::BasicSrvStatusWriter {
  public:
    TOLVEN::basicsrv_status WriteStatus(const char* text) override {
        std::lock_guard<std::mutex> guard(mutex_);
        text_ += text;
        return TOLVEN::basicsrv_success;
    }
    TOLVEN::basicsrv_status FlushStatus() override { return TOLVEN::basicsrv_success; }
    // What was written since the last call.
    std::string Take() {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::exchange(text_, std::string());
    }

  private:
    std::mutex mutex_;
    std::string text_;
};

// One delivered log message.
struct LogLine {
    std::string text, function;
};

// Collects the log messages of a level and above while it lives.
class LogCollector {
  public:
    explicit LogCollector(TOLVEN::logger_event_level level) {
        (void)TOLVEN::LogInitApi();
        (void)TOLVEN::LogAddCallbackFunc(&LogCollector::Callback, this, &id_, level);
    }
    ~LogCollector() {
        (void)TOLVEN::LogRemoveCallback(id_);
        TOLVEN::LogTermApi();
    }
    // Every line delivered after what was queued before the call.
    std::vector<LogLine> Lines() {
        (void)TOLVEN::LogFlush();
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }
    // Waits until a message with `text` has been delivered.
    void WaitFor(const std::string& text) {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] {
            for (const auto& line : lines_)
                if (line.text == text) return true;
            return false;
        });
    }

  private:
    static void Callback(TOLVEN::_LOGGER_CB_DATA* const data, void* context) {
        auto* self = static_cast<LogCollector*>(context);
        std::lock_guard<std::mutex> guard(self->mutex_);
        self->lines_.push_back({data->text, data->function});
        self->cond_.notify_all();
    }
    uint32_t id_ = 0;
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<LogLine> lines_;
};

// A gate threads wait at until it is opened.
class Gate {
  public:
    void Open() {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

}  // namespace svctest
