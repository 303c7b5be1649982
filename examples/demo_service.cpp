// A small service on BasicSrv: it reads its configuration from an INI file, keeps a worker
// thread that ticks while the service runs, registers a few commands of its own, and takes
// operator commands from standard input, one per line, answering on standard output.
//
//   tolven_demo_service [config.ini]
//
// Type help for the list of commands; quit or the end of input stops the service. Log
// messages go to standard error, and so does the prompt, so that standard output carries
// the answers alone.
#include <tolven/tolven.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

using namespace TOLVEN;

namespace {

// Answers go to standard output.
class StdoutWriter : public BasicSrvStatusWriter {
  public:
    basicsrv_status WriteStatus(const char* text) override {
        std::fputs(text, stdout);
        return basicsrv_success;
    }
    basicsrv_status FlushStatus() override {
        std::fflush(stdout);
        return basicsrv_success;
    }
};

// Log messages at or above the configured level go to standard error.
void LogToStderr(_LOGGER_CB_DATA* const data, void*) {
    std::fprintf(stderr, "[%02u:%02u:%02u %s] %s\n", data->timestamp.hour, data->timestamp.minute,
                 data->timestamp.second, LoggerLevelName(data->level), data->text);
}

// Reads one text setting of section "Demo", with a default.
std::string ReadDemoText(ConfigReader* config, const char* item, const char* fallback) {
    if (config == nullptr) return fallback;
    char buffer[256] = {};
    size_t size = sizeof(buffer);
    if (config->ReadString("Demo", item, buffer, &size) != configreader_success) return fallback;
    return buffer;
}

unsigned int ReadDemoNumber(ConfigReader* config, const char* item, unsigned int fallback) {
    unsigned int value = fallback;
    if (config != nullptr && config->ReadUINT("Demo", item, &value) != configreader_success)
        value = fallback;
    return value;
}

// The service's own state: a worker that counts ticks while the service runs, and the
// commands that show it.
class DemoApp : public BasicSrvEvents {
  public:
    DemoApp(BasicSrv& service, ConfigReader* config) : service_(service) {
        tickMs_ = ReadDemoNumber(config, "TickMilliseconds", 1000);
        if (tickMs_ == 0) tickMs_ = 1000;
        greeting_ = ReadDemoText(config, "Greeting", "Hello");
    }

    // Registers the commands; they live as long as the service.
    void RegisterCommands() {
        const _REGISTER_COMMAND_INFO commands[] = {
            {"show ticks", "Shows the worker's tick count and the commands run.",
             "$COMMAND: shows how often the worker ticked since the last reset, its period, and "
             "how many commands the service ran.",
             this, &DemoApp::ShowTicks},
            {"reset ticks", "Sets the tick count back to zero.",
             "$COMMAND: sets the tick count back to zero and says what it was.", this,
             &DemoApp::ResetTicks},
            {"add", "add <n> [<n> ...] Adds whole numbers.",
             "$COMMAND <n> [<n> ...]: adds up to 20 whole numbers and shows the sum; a word that "
             "is not a number is named and left out.",
             this, &DemoApp::Add},
            {"echo", "echo <words> Shows each argument on its own line.",
             "$COMMAND <words>: shows how the line was cut, one argument a line. Blanks and "
             "commas separate arguments; \"a quoted text\" is one argument.",
             this, &DemoApp::Echo},
            {"greet", "greet [name] Says the configured greeting.",
             "$COMMAND [name]: says the greeting of the configuration, to a name if given.", this,
             &DemoApp::Greet},
        };
        for (const auto& command : commands) {
            if (service_.RegisterCommand(command) != basicsrv_success)
                std::fprintf(stderr, "could not register %s\n", command.name);
        }
        // Two live counters for show counters, in a group of their own.
        const uint32_t group = GetNextRegGroupId();
        (void)RegisterGroup("demo", group, 0, nullptr);
        (void)RegisterCounter("ticks", group, &ticksCounter_, false, true);
        (void)RegisterCounter("commands", group, &commandsCounter_, true, false);
        // A maintenance command at midnight every day, caught up after a night the demo was
        // down; maint run rollover runs it by hand.
        _REGISTER_MAINTENANCE_COMMAND_INFO maint{};
        maint.name = "rollover";
        maint.help = "Starts a new day: the tick count goes back to zero.";
        maint.help_ex = maint.help;
        maint.start_time = {0, 0};
        maint.end_time = {0, 0};
        maint.run_if_missed = 1;
        ParseRunDays(maint.run_days, "Su,M,Tu,W,Th,F,Sa");
        maint.context = this;
        maint.handler = &DemoApp::Rollover;
        if (service_.RegisterMaintenanceCommand(maint) != basicsrv_success)
            std::fprintf(stderr, "could not register the maintenance command\n");
    }

    // Gives the counters back before the service and the tables outlive them.
    void UnregisterCounters() {
        (void)UnregisterCounter(&ticksCounter_);
        (void)UnregisterCounter(&commandsCounter_);
    }

    void OnBasicSrvStartup() override {
        stopped_ = false;
        if (!worker_.launch("DemoWorker", &DemoApp::WorkerLoop, this))
            std::fprintf(stderr, "could not start the worker thread\n");
    }
    void OnBasicSrvStartupComplete() override {
        TOLVEN_LOG(LOGGER_NORMAL, "demo_service", "DemoApp::OnBasicSrvStartupComplete",
                   "%s is running; the worker ticks every %u ms", service_.GetSrvName(), tickMs_);
    }
    void OnBasicSrvShutdown() override {
        if (worker_.joinable()) (void)worker_.join_shutdown();
        TOLVEN_LOG(LOGGER_NORMAL, "demo_service", "DemoApp::OnBasicSrvShutdown",
                   "%s stopped after %llu ticks", service_.GetSrvName(),
                   static_cast<unsigned long long>(ticks_.load()));
        stopped_ = true;
    }

    // True once the service stopped (through quit, say).
    bool Stopped() const { return stopped_; }
    // Counts a command handed to the service.
    void CountCommand() { ++commands_; }

  private:
    // A counter over one of the app's atomics.
    class AtomicCounter : public RegCounterEvents {
      public:
        explicit AtomicCounter(std::atomic<uint64_t>& value) : value_(value) {}
        void AddValue(const char*, const char* field, _BLOB_INFO* blob) override {
            (void)AddU64(blob, field, value_.load());
        }
        void Reset() override { value_ = 0; }

      private:
        std::atomic<uint64_t>& value_;
    };

    static basicsrv_status Rollover(_BASICSRV_COMMAND_INFO& info, void* context) {
        auto* self = static_cast<DemoApp*>(context);
        const uint64_t was = self->ticks_.exchange(0);
        (void)info.writer->FormatStatus("new day after %llu ticks\n",
                                        static_cast<unsigned long long>(was));
        return basicsrv_success;
    }

    static void WorkerLoop(DemoApp* self) {
        EventDetectorType* detector = GetCachedDetectorType();
        (void)detector->Add(GetShutdownEvent());
        while (detector->Wait(self->tickMs_) == event_timeout)
            ++self->ticks_;
        detector->Clear();
        ReturnToCache(detector);
    }

    static basicsrv_status ShowTicks(_BASICSRV_COMMAND_INFO& info, void* context) {
        auto* self = static_cast<DemoApp*>(context);
        (void)info.writer->FormatStatus(
            "ticks=%llu period=%ums commands=%llu running=%s",
            static_cast<unsigned long long>(self->ticks_.load()), self->tickMs_,
            static_cast<unsigned long long>(self->commands_.load()), self->stopped_ ? "no" : "yes");
        return basicsrv_success;
    }

    static basicsrv_status ResetTicks(_BASICSRV_COMMAND_INFO& info, void* context) {
        auto* self = static_cast<DemoApp*>(context);
        const uint64_t was = self->ticks_.exchange(0);
        (void)info.writer->FormatStatus("ticks reset (was %llu)",
                                        static_cast<unsigned long long>(was));
        return basicsrv_success;
    }

    static basicsrv_status Add(_BASICSRV_COMMAND_INFO& info, void*) {
        if (info.argc == 0) {
            (void)info.writer->WriteStatus("Expected add <n> [<n> ...]");
            return basicsrv_invalid_parameter;
        }
        long long sum = 0;
        unsigned int used = 0;
        for (unsigned int i = 0; i < info.argc; ++i) {
            char* end = nullptr;
            const long long value = std::strtoll(info.args[i], &end, 10);
            if (end == info.args[i] || *end != '\0') {
                (void)info.writer->FormatStatus("'%s' is not a whole number, left out\n",
                                                info.args[i]);
                continue;
            }
            sum += value;
            ++used;
        }
        (void)info.writer->FormatStatus("sum of %u numbers = %lld", used, sum);
        return basicsrv_success;
    }

    static basicsrv_status Echo(_BASICSRV_COMMAND_INFO& info, void*) {
        (void)info.writer->FormatStatus("%s: %u argument%s", info.command, info.argc,
                                        info.argc == 1 ? "" : "s");
        for (unsigned int i = 0; i < info.argc; ++i)
            (void)info.writer->FormatStatus("\n  [%u] '%s'", i, info.args[i]);
        return basicsrv_success;
    }

    static basicsrv_status Greet(_BASICSRV_COMMAND_INFO& info, void* context) {
        auto* self = static_cast<DemoApp*>(context);
        if (info.argc > 0) {
            (void)info.writer->FormatStatus("%s, %s!", self->greeting_.c_str(), info.args[0]);
        } else {
            (void)info.writer->FormatStatus("%s!", self->greeting_.c_str());
        }
        return basicsrv_success;
    }

    BasicSrv& service_;
    auto_thread worker_;
    unsigned int tickMs_ = 1000;
    std::string greeting_;
    std::atomic<uint64_t> ticks_{0};
    std::atomic<uint64_t> commands_{0};
    std::atomic<bool> stopped_{true};
    AtomicCounter ticksCounter_{ticks_};
    AtomicCounter commandsCounter_{commands_};
};

}  // namespace

int main(int argc, char** argv) {
    configure_mainthread();
    if (LogInitApi() != LOG_SUCCESS) std::fprintf(stderr, "the log could not start\n");

    ConfigReader* config = nullptr;
    if (argc > 1) {
        IniConfigReader* ini = IniConfigReader::CreateObject();
        if (ini->SetIniFile(argv[1], false, true, nullptr) != configreader_success) {
            std::fprintf(stderr, "cannot read the configuration file %s\n", argv[1]);
            ini->Release();
            LogTermApi();
            return 2;
        }
        config = ini;
    }

    const std::string level = ReadDemoText(config, "ConsoleLogLevel", "NORMAL");
    logger_event_level consoleLevel = LoggerLevelFromName(level.c_str());
    if (consoleLevel == 0) consoleLevel = LOGGER_NORMAL;
    uint32_t logId = 0;
    (void)LogAddCallbackFunc(&LogToStderr, nullptr, &logId, consoleLevel);

    int exitCode = 0;
    {
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "DemoService";
        info.configReader = config;
        info.registerQuit = true;
        info.noFileLog = true;
        info.createMaintConfig = true;  // "<config>_cmd.ini" keeps when rollover last ran
        BasicSrv service(info);

        DemoApp app(service, config);
        app.RegisterCommands();
        (void)service.AddSink(&app);
        (void)service.PreStartup();
        if (service.Startup() != basicsrv_success) {
            std::fprintf(stderr, "the service did not start\n");
            exitCode = 1;
        } else {
            std::fprintf(stderr, "%s: type help for the commands, quit to stop.\n",
                         service.GetSrvNameWithVersion());
            StdoutWriter writer;
            std::string line;
            while (!app.Stopped()) {
                std::fputs("> ", stderr);
                std::fflush(stderr);
                if (!std::getline(std::cin, line)) break;
                if (!line.empty() && line.back() == '\r') line.pop_back();
                app.CountCommand();
                (void)service.ProcessCommand(line.c_str(), &writer, false, true, 0);
                (void)writer.FlushStatus();
            }
            (void)service.Shutdown();
        }
        (void)service.RemoveSink(&app);
        app.UnregisterCounters();
        (void)service.UnregisterMaintenanceCommand("rollover");
    }

    (void)LogFlush();
    (void)LogRemoveCallback(logId);
    LogTermApi();
    if (config != nullptr) config->Release();
    return exitCode;
}
