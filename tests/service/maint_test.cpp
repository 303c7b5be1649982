// Maintenance commands: due times, retries, catch-up, the maint command and the stored state.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "log/logfile_test_util.h"
#include "platform/timezone.h"
#include "service/BasicSrvImpl.h"
#include "service_test_util.h"
#include "tolven/iniconfigreader.h"

using namespace TOLVEN;

namespace {

// The local time maintenance reads; tests set it. Day of week 1 is Monday.
_SYSTEMTIME gNow{};
void TestClock(_SYSTEMTIME* out) {
    *out = gNow;
}
void SetNow(uint16_t year, uint16_t month, uint16_t day, uint16_t weekDay, uint16_t hour,
            uint16_t minute, uint16_t second = 0) {
    gNow = _SYSTEMTIME{year, month, weekDay, day, hour, minute, second, 0};
}

// A handler that counts its runs and answers what it is told.
struct Handler {
    int runs = 0;
    basicsrv_status answer = basicsrv_success;
    static basicsrv_status Run(_BASICSRV_COMMAND_INFO& info, void* context) {
        auto* self = static_cast<Handler*>(context);
        ++self->runs;
        (void)info.writer->WriteStatus("handler output");
        return self->answer;
    }
};

_REGISTER_MAINTENANCE_COMMAND_INFO Info(const char* name, Handler* handler, unsigned int hour,
                                        unsigned int minute, const char* days = "M,Tu,W,R,F") {
    _REGISTER_MAINTENANCE_COMMAND_INFO info{};
    info.name = name;
    info.help = "short";
    info.help_ex = "long";
    info.start_time = {hour, minute};
    info.end_time = {hour, minute};
    ParseRunDays(info.run_days, days);
    info.context = handler;
    info.handler = &Handler::Run;
    return info;
}

// A service whose maintenance state lives in "<dir>/state_cmd.ini"-like file of its own.
class Maint : public ::testing::Test {
  protected:
    void SetUp() override {
        BasicSrvImpl::SetLocalClockForTest(&TestClock);
        SetNow(2026, 11, 23, 1, 9, 0);  // Monday 2026-11-23 09:00
        Open();
    }
    void TearDown() override {
        srv_.reset();
        if (state_ != nullptr) state_->Release();
        BasicSrvImpl::SetLocalClockForTest(nullptr);
    }
    // (Re)builds the service over the state file, as a restart of the process does.
    void Open() {
        srv_.reset();
        if (state_ != nullptr) state_->Release();
        state_ = IniConfigReader::CreateObject();
        ASSERT_EQ(state_->SetIniFile(StatePath().c_str(), true, true, nullptr),
                  configreader_success);
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "maint";
        info.maintConfigReader = state_;
        info.noFileLog = true;
        srv_ = std::make_unique<BasicSrv>(info);
    }
    std::string StatePath() const { return dir_ / "svc_cmd.ini"; }
    void Tick() { BasicSrvImpl::Of(*srv_).RunMaintenanceTick(); }
    // The answer to a command line, without the blank lines the dispatcher puts around it.
    std::string Run(const char* line) {
        EXPECT_EQ(srv_->ProcessCommand(line, &out_, true, false, 0), basicsrv_success);
        const std::string text = out_.Take();
        EXPECT_GE(text.size(), 2u);
        return text.size() < 2 ? text : text.substr(1, text.size() - 2);
    }
    unsigned int Stored(const std::string& item) {
        unsigned int value = 0;
        (void)state_->ReadUINT("CMD", item.c_str(), &value);
        return value;
    }

    tolven_test::ScratchDir dir_;
    IniConfigReader* state_ = nullptr;
    std::unique_ptr<BasicSrv> srv_;
    svctest::TextWriter out_;
};

}  // namespace

TEST_F(Maint, DueTimesOnceAMinuteWindowsAcrossMidnightAndRetries) {
    Handler daily, night, retry;
    SetNow(2026, 11, 23, 1, 23, 58);
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(Info("daily", &daily, 23, 59)), basicsrv_success);
    auto window = Info("night", &night, 22, 0, "M");
    window.repeatable = 1;
    window.end_time = {2, 0};
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(window), basicsrv_success);
    EXPECT_EQ(night.runs, 1) << "registered inside its window";

    // The six ticks of 23:59 run the daily command once.
    for (uint16_t second = 0; second < 60; second += 10) {
        SetNow(2026, 11, 23, 1, 23, 59, second);
        Tick();
    }
    EXPECT_EQ(daily.runs, 1);
    EXPECT_EQ(night.runs, 7);
    // Tuesday before 02:00 belongs to Monday's window; 02:00 and Tuesday 22:00 do not.
    SetNow(2026, 11, 24, 2, 1, 59);
    Tick();
    EXPECT_EQ(night.runs, 8);
    SetNow(2026, 11, 24, 2, 2, 0);
    Tick();
    SetNow(2026, 11, 24, 2, 22, 0);
    Tick();
    EXPECT_EQ(night.runs, 8);
    EXPECT_EQ(daily.runs, 1);

    // A handler that asks to retry runs at every tick, at any hour, until it is done.
    retry.answer = basicsrv_retry;
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(Info("retry", &retry, 22, 0)), basicsrv_success);
    EXPECT_EQ(retry.runs, 1);
    SetNow(2026, 11, 24, 2, 22, 5);
    Tick();
    EXPECT_EQ(retry.runs, 2);
    EXPECT_NE(Run("maint run RETRY").find("The command has failed to run."), std::string::npos);
    retry.answer = basicsrv_success;
    Tick();
    Tick();
    EXPECT_EQ(retry.runs, 4) << "done: back to its run time";
}

TEST_F(Maint, RegistrationRulesAndTheMaintCommand) {
    Handler a, b;
    auto bad = Info("bad", &a, 24, 0);
    EXPECT_EQ(srv_->RegisterMaintenanceCommand(bad), basicsrv_invalid_parameter);
    bad = Info("bad", &a, 10, 0);
    bad.end_time = {24, 0};
    EXPECT_EQ(srv_->RegisterMaintenanceCommand(bad), basicsrv_success)
        << "the finish of a simple command is not looked at";
    EXPECT_EQ(srv_->RegisterMaintenanceCommand(Info("BAD", &a, 11, 0)), basicsrv_already_exists);
    bad.repeatable = 1;
    EXPECT_EQ(srv_->RegisterMaintenanceCommand(bad), basicsrv_invalid_parameter);

    _REGISTER_MAINTENANCE_COMMAND_INFO_EX ex{"twice", "short", "long",        0, 0,
                                             0,       &b,      &Handler::Run, {}};
    EXPECT_EQ(srv_->RegisterMaintenanceCommandEx(ex), basicsrv_success);
    _COMMAND_RUN_TIMES one{};
    one.runHour = 6;
    one.runDays[1] = 1;
    ex.run_times = {one, one};
    ex.run_times[1].runHour = 7;
    ex.run_times[1].runMinute = 30;
    EXPECT_EQ(srv_->RegisterMaintenanceCommandEx(ex), basicsrv_success);

    EXPECT_EQ(Run("maint"),
              "Use 'maint show' to show all registered maintenance commands.\n"
              "Use 'maint run' <command> to run a specific registered maintenance command.\n"
              "Use 'maint disable <command>' to disable a specific maintenance command.\n"
              "Use 'maint enable <command>' to enable a specific maintenance command.\n");
    EXPECT_EQ(Run("maint ?"), Run("maint HELP"));
    EXPECT_EQ(Run("maint bogus"), "\nInvalid command\n");
    EXPECT_EQ(Run("maint run twice extra"), "\nInvalid command\n");
    EXPECT_EQ(Run("maint run nothing"), "\nUnknown command.\n");
    EXPECT_EQ(Run("maint Run Twice"),
              "Running command...\n\nThe command has sucessfully completed running.\n");
    EXPECT_EQ(b.runs, 1) << "only the first entry of a name";
    EXPECT_EQ(Run("maint disable bad"), "Command disabled.\n");
    EXPECT_EQ(Run("maint disable bad"), "\nThis command is already disabled.\n");

    const std::string head =
        "    Command                              |  Run/Finish | Repeat |  RunDays   | "
        "Running | LastRun\n";
    EXPECT_EQ(Run("maint show"),
              "\nEnabled commands:\n" + head +
                  "twice                                    | 06:00/06:00 | FALSE  | M          |"
                  "  FALSE  | 2026/11/23 09:00\n"
                  "twice                                    | 07:30/07:30 | FALSE  | M          |"
                  "  FALSE  | 0000/00/00 00:00\n"
                  "\nDisabled commands:\n" +
                  head +
                  "bad                                      | 10:00/10:00 | FALSE  | MTuWThF    |"
                  "  FALSE  | 0000/00/00 00:00\n");
    EXPECT_EQ(Run("maint enable bad"), "Command enabled.\n");
    EXPECT_EQ(Run("maint enable bad"), "\nThis command is already enabled.\n");

    EXPECT_EQ(srv_->UnregisterMaintenanceCommand("TWICE"), basicsrv_success);
    EXPECT_EQ(srv_->UnregisterMaintenanceCommand("twice"), basicsrv_not_found);
    EXPECT_EQ(srv_->UnregisterMaintenanceCommand("bad"), basicsrv_success);
    EXPECT_EQ(Run("maint show"), "\nNo maintenance commands have been registered.\n");

    // Without a reader for the state, nothing can be registered.
    _BASICSRV_STARTUP_INFO bare;
    bare.noFileLog = true;
    BasicSrv none(bare);
    EXPECT_EQ(none.RegisterMaintenanceCommand(Info("x", &a, 1, 0)), basicsrv_invalid_parameter);
}

TEST_F(Maint, CatchUpAcrossRestartsAndTheStoredState) {
    svctest::LogCollector warnings(LOGGER_WARN);
    Handler h;
    // Never run, asked to run when never run: runs now, and the run is stored.
    auto info = Info("eod", &h, 17, 0);
    info.run_if_never_run = 1;
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    EXPECT_EQ(h.runs, 1);
    EXPECT_EQ(Stored("eod_day"), 23u);
    EXPECT_EQ(Stored("eod_month"), 11u);
    EXPECT_EQ(Stored("eod_year"), 2026u);
    EXPECT_EQ(Stored("eod_hour"), 9u);
    EXPECT_EQ(Stored("eod_week_day"), 1u);
    EXPECT_EQ(Stored("eod_org_run"), 17u * 60);

    // Restart the same day before the run time: nothing to catch up.
    SetNow(2026, 11, 23, 1, 12, 0);
    Open();
    info.run_if_never_run = 0;
    info.run_if_missed = 1;
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    EXPECT_EQ(h.runs, 1);
    // Down from Monday noon until Sunday: the missed runs are caught up on a day that is no
    // run day.
    SetNow(2026, 11, 29, 0, 8, 0);
    Open();
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    EXPECT_EQ(h.runs, 2);
    EXPECT_EQ(Stored("eod_day"), 29u);

    // The run time changed in the code: the last run is forgotten, once, with a warning.
    info.start_time = {18, 0};
    Open();
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    Open();
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    int changed = 0;
    for (const auto& line : warnings.Lines())
        changed += line.text ==
                   "Run times for command <eod> have changed!  The last run time for this "
                   "command has been reset.You may need to manually rerun this command.";
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(Stored("eod_org_run"), 18u * 60);

    // Neither flag: a registration inside the run minute still runs.
    Handler now;
    SetNow(2026, 11, 30, 1, 6, 15);
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(Info("now", &now, 6, 15)), basicsrv_success);
    EXPECT_EQ(now.runs, 1);

    // A garbled state file costs only the state.
    srv_.reset();
    state_->Release();
    state_ = nullptr;
    {
        std::ofstream garbled(StatePath(), std::ios::trunc);
        garbled << "[CMD]\neod_day=45\neod_month=banana\n\x01\x02[[[\n";
    }
    Open();
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(info), basicsrv_success);
    EXPECT_EQ(warnings.Lines().back().text,
              "The stored last run of command <eod> is not a valid time and has been ignored.");
}

TEST_F(Maint, ClockChangesNeitherLoseNorRepeatADailyRun) {
    // New York rules; each tick reads the local time of a UTC instant 10 seconds on.
    ASSERT_TRUE(platform::SetProcessTimeZone("EST5EDT,M3.2.0,M11.1.0"));
    auto tickAcross = [&](uint16_t month, uint16_t day, uint16_t fromHourUtc, int hours) {
        for (int step = 0; step < hours * 360; ++step) {
            _SYSTEMTIME utc{2026, month, 0, day, fromHourUtc, 0, 0, 0};
            _blob_timestamp time{};
            ASSERT_EQ(SystemTimeToBlobTime(&time, utc), 0);
            time.hour = static_cast<uint16_t>(fromHourUtc + step / 360);
            time.minute = static_cast<uint16_t>(step % 360 / 6);
            time.second = static_cast<uint16_t>(step % 6 * 10);
            ASSERT_EQ(GmtToCurrentBlobTime(&time), 0);
            ASSERT_EQ(BlobTimeToSystemTime(&gNow, time), 0);
            Tick();
        }
    };
    Handler skipped, repeated;
    SetNow(2026, 3, 7, 6, 12, 0);
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(Info("skipped", &skipped, 2, 30, "U")),
              basicsrv_success);
    ASSERT_EQ(srv_->RegisterMaintenanceCommand(Info("repeated", &repeated, 1, 30, "U")),
              basicsrv_success);
    tickAcross(3, 8, 5, 3);   // 00:00 EST to 04:00 EDT: 02:00-02:59 does not exist
    tickAcross(11, 1, 4, 4);  // 00:00 EDT to 03:00 EST: 01:00-01:59 comes twice
    (void)platform::SetProcessTimeZone(nullptr);
    EXPECT_EQ(skipped.runs, 2) << "spring: at 03:00 in place of the missing 02:30; fall: 02:30";
    EXPECT_EQ(repeated.runs, 2) << "once on each day";
}
