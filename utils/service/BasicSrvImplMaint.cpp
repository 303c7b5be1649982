// Maintenance commands: registration with the catch-up of missed runs, the due test, the run
// with its persisted state, the tick's walk and the maint command.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>

#include "service/BasicSrvImpl.h"
#include "service/ServiceText.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "BasicSrvImpl";
constexpr const char* kSection = "CMD";
constexpr int64_t kSecondsPerDay = 86400;

std::atomic<BasicSrvImpl::LocalClockFunction> gLocalClock{nullptr};

bool IsRunDay(const int (&days)[7], unsigned int day) {
    return days[day % 7] == 1;
}

unsigned int MinuteOfDay(const _SYSTEMTIME& time) {
    return static_cast<unsigned int>(time.wHour) * 60u + time.wMinute;
}

bool SameDate(const _SYSTEMTIME& a, const _SYSTEMTIME& b) {
    return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDay == b.wDay;
}

// Days from 1900-01-01 to the civil date (proleptic Gregorian).
int64_t DaysSince1900(int64_t year, int64_t month, int64_t day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = year / 400;
    const int64_t yoe = year - era * 400;
    const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 693901;  // 693901: days from 0000-03-01 to 1900-01-01
}

// Seconds since 1900 of a local time; a date before 1900 counts as 0.
int64_t SecondsSince1900(const _SYSTEMTIME& time) {
    if (time.wYear < 1900 || time.wMonth < 1 || time.wMonth > 12) return 0;
    return DaysSince1900(time.wYear, time.wMonth, time.wDay) * kSecondsPerDay + time.wHour * 3600 +
           time.wMinute * 60 + time.wSecond;
}

// The local time now, its day of the week (0 for Sunday) worked out from the date.
void LocalNow(_SYSTEMTIME* out) {
    *out = _SYSTEMTIME{};
    if (BasicSrvImpl::LocalClockFunction clock = gLocalClock.load(std::memory_order_acquire)) {
        clock(out);
    } else {
        _blob_timestamp now{};
        if (GetCurrentBlobTime(&now) == 0) (void)BlobTimeToSystemTime(out, now);
    }
    if (out->wMonth >= 1 && out->wMonth <= 12) {
        // 1900-01-01 was a Monday.
        const int64_t days = DaysSince1900(out->wYear, out->wMonth, out->wDay);
        out->wDayOfWeek = static_cast<uint16_t>(((days + 1) % 7 + 7) % 7);
    }
}

// A stored last run is all zero (never run) or a real date and time.
bool PlausibleLastRun(const _SYSTEMTIME& time) {
    if (time.wYear == 0 && time.wMonth == 0 && time.wDay == 0 && time.wHour == 0 &&
        time.wMinute == 0 && time.wDayOfWeek == 0)
        return true;
    static constexpr int kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return time.wMonth >= 1 && time.wMonth <= 12 && time.wDay >= 1 &&
           time.wDay <= kMonthDays[time.wMonth - 1] && time.wHour < 24 && time.wMinute < 60 &&
           time.wDayOfWeek < 7;
}

// "Su", "M", "Tu", ... for each run day.
std::string RunDayLetters(const int (&days)[7]) {
    static constexpr const char* kLetters[] = {"Su", "M", "Tu", "W", "Th", "F", "S"};
    std::string out;
    for (unsigned int day = 0; day < 7; ++day)
        if (IsRunDay(days, day)) out += kLetters[day];
    return out;
}

const char* TrueFalse(bool value) {
    return value ? "TRUE" : "FALSE";
}

}  // namespace

// What both registration forms hand to RegisterMaintEntry.
struct BasicSrvImpl::MaintEntry {
    const char* name;
    const char* help;
    const char* help_ex;
    unsigned int runHour, runMinute, finishHour, finishMinute;
    int run_if_missed, run_if_never_run, repeatable;
    const int* runDays;
    void* context;
    BasicSrvCommandHandler handler;
};

void BasicSrvImpl::SetLocalClockForTest(LocalClockFunction clock) {
    gLocalClock.store(clock, std::memory_order_release);
}

basicsrv_status BasicSrvImpl::RegisterMaintenanceCommand(
    const _REGISTER_MAINTENANCE_COMMAND_INFO& info) {
    const MaintEntry entry{info.name,
                           info.help,
                           info.help_ex,
                           info.start_time.hour,
                           info.start_time.minute,
                           info.end_time.hour,
                           info.end_time.minute,
                           info.run_if_missed,
                           info.run_if_never_run,
                           info.repeatable,
                           info.run_days,
                           info.context,
                           info.handler};
    return RegisterMaintEntry(entry, true);
}

basicsrv_status BasicSrvImpl::RegisterMaintenanceCommandEx(
    const _REGISTER_MAINTENANCE_COMMAND_INFO_EX& info) {
    for (const _COMMAND_RUN_TIMES& times : info.run_times) {
        const MaintEntry entry{info.name,          info.help,          info.help_ex,
                               times.runHour,      times.runMinute,    times.finishHour,
                               times.finishMinute, info.run_if_missed, info.run_if_never_run,
                               info.repeatable,    times.runDays,      info.context,
                               info.handler};
        const basicsrv_status status = RegisterMaintEntry(entry, false);
        if (status != basicsrv_success) return status;
    }
    return basicsrv_success;
}

basicsrv_status BasicSrvImpl::RegisterMaintEntry(const MaintEntry& entry, bool duplicateTest) {
    constexpr const char* kFunction = "TOLVEN::BasicSrvImpl::RegisterMaintenanceCommand";
    if (entry.name == nullptr || entry.handler == nullptr) return basicsrv_invalid_parameter;
    if (entry.runHour >= 24 || entry.runMinute > 59) return basicsrv_invalid_parameter;
    if (entry.repeatable != 0 && (entry.finishHour > 23 || entry.finishMinute > 59))
        return basicsrv_invalid_parameter;

    QuickLockGuard guard(stateLock_);
    if (duplicateTest && FindMaintCommand(entry.name) != nullptr) return basicsrv_already_exists;
    if (maintConfigReader_ == nullptr) {
        // The last run has nowhere to live: refuse rather than run blind.
        TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction,
                   "No maintenance config reader, cannot register maintenance command <%s>!",
                   entry.name);
        return basicsrv_invalid_parameter;
    }

    auto command = std::make_shared<MaintCommand>();
    command->name = entry.name;
    command->help = entry.help != nullptr ? entry.help : "";
    command->help_ex = entry.help_ex != nullptr ? entry.help_ex : "";
    command->runHour = entry.runHour;
    command->runMinute = entry.runMinute;
    command->runMinutes = entry.runHour * 60 + entry.runMinute;
    if (entry.repeatable != 0) {
        command->finishHour = entry.finishHour;
        command->finishMinute = entry.finishMinute;
        command->finishMinutes = entry.finishHour * 60 + entry.finishMinute;
    } else {
        // A simple command finishes when it starts; its finish minutes keep the given hour
        // with the run minute, a value that is stored and compared but decides no run.
        command->finishHour = entry.runHour;
        command->finishMinute = entry.runMinute;
        command->finishMinutes = entry.finishHour * 60 + entry.runMinute;
    }
    command->run_if_missed = entry.run_if_missed;
    command->run_if_never_run = entry.run_if_never_run;
    command->repeatable = entry.repeatable;
    for (int day = 0; day < 7; ++day)
        command->runDays[day] = entry.runDays != nullptr ? entry.runDays[day] : 0;
    command->context = entry.context;
    command->handler = entry.handler;
    ReadLastRun(*command);

    const bool catchUp = command->run_if_missed != 0 || command->run_if_never_run != 0;
    bool ran = false;
    if (catchUp && duplicateTest) {
        const std::string run = command->name + "_org_run";
        const std::string finish = command->name + "_org_finish";
        unsigned int storedRun = 0, storedFinish = 0;
        const bool read = maintConfigReader_->ReadUINT(kSection, run.c_str(), &storedRun) ==
                              configreader_success &&
                          maintConfigReader_->ReadUINT(kSection, finish.c_str(), &storedFinish) ==
                              configreader_success;
        const bool same =
            read && storedRun == command->runMinutes && storedFinish == command->finishMinutes;
        if (!same) {
            if (read) {
                TOLVEN_LOG(LOGGER_WARN, kFile, kFunction,
                           "Run times for command <%s> have changed!  The last run time for "
                           "this command has been reset.You may need to manually rerun this "
                           "command.",
                           command->name.c_str());
                command->lastRun = _SYSTEMTIME{};
                command->lastRunMinutes = 0;
            }
            (void)maintConfigReader_->WriteUINT(kSection, run.c_str(), command->runMinutes);
            (void)maintConfigReader_->WriteUINT(kSection, finish.c_str(), command->finishMinutes);
        }
    }
    _SYSTEMTIME now{};
    LocalNow(&now);
    if (catchUp && (command->lastRun.wDay != 0 || command->run_if_never_run != 0)) {
        const int64_t days =
            (SecondsSince1900(now) - SecondsSince1900(command->lastRun)) / kSecondsPerDay;
        int64_t gap = 8;
        for (int back = 1; back <= 7; ++back) {
            if (IsRunDay(command->runDays, (now.wDayOfWeek + 7u - back) % 7u)) {
                gap = back;
                break;
            }
        }
        const bool same = command->lastRun.wDay == now.wDay;
        const unsigned int nowMin = MinuteOfDay(now);
        const unsigned int lastMin = MinuteOfDay(command->lastRun);
        const unsigned int runMin = command->runMinutes, finishMin = command->finishMinutes;
        bool missed = days >= gap;
        if (!missed) {
            if (runMin == finishMin)
                missed = lastMin < runMin && !(same && nowMin < runMin);
            else if (runMin > finishMin)
                missed = !same && lastMin < runMin;
            else if (same)
                missed = nowMin >= finishMin && lastMin < runMin;
            else
                missed = nowMin > finishMin || lastMin < runMin;
        }
        if (missed) {
            (void)RunMaintCommand(*command);
            ran = true;
        }
    }
    if (!ran && IsDue(*command, now)) (void)RunMaintCommand(*command);
    maintCommands_.push_back(std::move(command));
    return basicsrv_success;
}

basicsrv_status BasicSrvImpl::UnregisterMaintenanceCommand(const char* name) {
    if (name == nullptr) return basicsrv_not_found;
    QuickLockGuard guard(stateLock_);
    bool found = false;
    for (auto it = maintCommands_.begin(); it != maintCommands_.end();) {
        if (detail::EqualNoCase((*it)->name.c_str(), name)) {
            (*it)->removed = true;
            it = maintCommands_.erase(it);
            found = true;
        } else {
            ++it;
        }
    }
    return found ? basicsrv_success : basicsrv_not_found;
}

MaintCommand* BasicSrvImpl::FindMaintCommand(const char* name) {
    for (const auto& command : maintCommands_)
        if (detail::EqualNoCase(command->name.c_str(), name)) return command.get();
    return nullptr;
}

void BasicSrvImpl::ReadLastRun(MaintCommand& command) {
    ConfigReader* reader = maintConfigReader_;
    auto read = [&](const char* suffix) -> uint16_t {
        unsigned int value = 0;
        const std::string item = command.name + suffix;
        if (reader->ReadUINT(kSection, item.c_str(), &value) != configreader_success) return 0;
        return value > 0xFFFF ? 0xFFFF : static_cast<uint16_t>(value);
    };
    _SYSTEMTIME last{};
    last.wDay = read("_day");
    last.wMonth = read("_month");
    last.wYear = read("_year");
    last.wHour = read("_hour");
    last.wMinute = read("_minute");
    last.wDayOfWeek = read("_week_day");
    if (!PlausibleLastRun(last)) {
        TOLVEN_LOG(LOGGER_WARN, kFile, "TOLVEN::BasicSrvImpl::ReadLastRun",
                   "The stored last run of command <%s> is not a valid time and has been "
                   "ignored.",
                   command.name.c_str());
        last = _SYSTEMTIME{};
    }
    command.lastRun = last;
    command.lastRunMinutes = MinuteOfDay(last);
}

void BasicSrvImpl::WriteLastRun(const MaintCommand& command) {
    ConfigReader* reader = maintConfigReader_;
    if (reader == nullptr) return;
    const _SYSTEMTIME& last = command.lastRun;
    const std::pair<const char*, unsigned int> items[] = {
        {"_day", last.wDay},   {"_month", last.wMonth},   {"_year", last.wYear},
        {"_hour", last.wHour}, {"_minute", last.wMinute}, {"_week_day", last.wDayOfWeek}};
    for (const auto& [suffix, value] : items)
        (void)reader->WriteUINT(kSection, (command.name + suffix).c_str(), value);
}

bool BasicSrvImpl::IsDue(const MaintCommand& command, const _SYSTEMTIME& now) const {
    if (!command.enabled) return false;
    if (command.retryPending) return true;
    const unsigned int nowMin = MinuteOfDay(now);
    const unsigned int today = now.wDayOfWeek % 7u;
    if (command.repeatable != 0 && command.finishMinutes < command.runMinutes) {
        if (nowMin >= command.runMinutes) return IsRunDay(command.runDays, today);
        if (nowMin < command.finishMinutes) return IsRunDay(command.runDays, (today + 6u) % 7u);
        return false;
    }
    if (command.repeatable != 0) {
        return IsRunDay(command.runDays, today) && nowMin >= command.runMinutes &&
               nowMin < command.finishMinutes;
    }
    if (!IsRunDay(command.runDays, today) || nowMin != command.runMinutes) return false;
    const _SYSTEMTIME& last = command.lastRun;
    return !(SameDate(last, now) && last.wHour == now.wHour && last.wMinute == now.wMinute);
}

bool BasicSrvImpl::RunMaintCommand(MaintCommand& command) {
    LogStatusWriter writer;
    _BASICSRV_COMMAND_INFO info{&writer, command.name.c_str(), nullptr, 0, true, false};
    basicsrv_status status = basicsrv_invalid_command;
    try {
        status = command.handler(info, command.context);
    } catch (const std::exception& e) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::BasicSrvImpl::RunMaintCommand",
                   "Maintenance command <%s> threw: %s", command.name.c_str(), e.what());
    } catch (...) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::BasicSrvImpl::RunMaintCommand",
                   "Maintenance command <%s> threw.", command.name.c_str());
    }
    bool done = false;
    if (status == basicsrv_retry) {
        command.retryPending = true;
    } else if (status == basicsrv_success) {
        command.retryPending = false;
        LocalNow(&command.lastRun);
        command.lastRunMinutes = MinuteOfDay(command.lastRun);
        WriteLastRun(command);
        done = true;
    }
    (void)writer.FlushStatus();
    return done;
}

void BasicSrvImpl::RunDueMaintenanceCommands() {
    // Hold the state lock. Handlers may register or unregister commands: walk a copy, and
    // pass over what went meanwhile; what came waits for the next tick.
    _SYSTEMTIME now{};
    LocalNow(&now);
    const _SYSTEMTIME previous = lastTick_;
    lastTick_ = now;
    const std::vector<std::shared_ptr<MaintCommand>> commands = maintCommands_;
    for (const auto& command : commands) {
        if (command->removed) continue;
        bool due = IsDue(*command, now);
        if (!due && command->enabled && command->repeatable == 0 && previous.wYear != 0 &&
            SameDate(previous, now) && IsRunDay(command->runDays, now.wDayOfWeek)) {
            // The tick passed over the run minute: a local hour skipped by a clock change,
            // or a tick held up. The minute is gone, the day's run is not.
            const unsigned int before = MinuteOfDay(previous), nowMin = MinuteOfDay(now);
            const bool ranToday =
                SameDate(command->lastRun, now) && command->lastRunMinutes >= command->runMinutes;
            due = before < command->runMinutes && command->runMinutes < nowMin && !ranToday;
        }
        if (due) (void)RunMaintCommand(*command);
    }
}

void BasicSrvImpl::MaintCommandLine(_BASICSRV_COMMAND_INFO& info) {
    constexpr const char* kFunction = "TOLVEN::BasicSrvImpl::MaintCmd";
    BasicSrvStatusWriter& out = *info.writer;
    const char* verb = info.argc > 0 ? info.args[0] : "";
    if (info.argc == 0 ||
        (info.argc == 1 && (detail::EqualNoCase(verb, "help") || detail::EqualNoCase(verb, "?")))) {
        (void)out.FormatStatus("Use '%s %s' to show all registered maintenance commands.\n",
                               "maint", "show");
        (void)out.FormatStatus(
            "Use '%s %s' <command> to run a specific registered maintenance command.\n", "maint",
            "run");
        (void)out.FormatStatus("Use '%s %s <command>' to disable a specific maintenance command.\n",
                               "maint", "disable");
        (void)out.FormatStatus("Use '%s %s <command>' to enable a specific maintenance command.\n",
                               "maint", "enable");
        return;
    }
    QuickLockGuard guard(stateLock_);
    if (info.argc == 1 && detail::EqualNoCase(verb, "show")) {
        if (maintCommands_.empty()) {
            (void)out.WriteStatus("\nNo maintenance commands have been registered.\n");
            return;
        }
        _SYSTEMTIME now{};
        LocalNow(&now);
        for (const bool enabled : {true, false}) {
            bool head = false;
            for (const auto& command : maintCommands_) {
                if (command->enabled != enabled) continue;
                if (!head) {
                    (void)out.WriteStatus(enabled ? "\nEnabled commands:\n"
                                                  : "\nDisabled commands:\n");
                    (void)out.WriteStatus(
                        "    Command                              |  Run/Finish | Repeat |  "
                        "RunDays   | Running | LastRun\n");
                    head = true;
                }
                const _SYSTEMTIME& last = command->lastRun;
                (void)out.FormatStatus(
                    "%-40.40s | %-2.2i:%-2.2i/%-2.2i:%-2.2i | %-5.5s  | %-10.10s |  %-5.5s  | "
                    "%-4.4i/%-2.2i/%-2.2i %-2.2i:%-2.2i\n",
                    command->name.c_str(), static_cast<int>(command->runHour),
                    static_cast<int>(command->runMinute), static_cast<int>(command->finishHour),
                    static_cast<int>(command->finishMinute), TrueFalse(command->repeatable != 0),
                    RunDayLetters(command->runDays).c_str(), TrueFalse(IsDue(*command, now)),
                    static_cast<int>(last.wYear), static_cast<int>(last.wMonth),
                    static_cast<int>(last.wDay), static_cast<int>(last.wHour),
                    static_cast<int>(last.wMinute));
            }
        }
        return;
    }
    if (info.argc != 2) {
        (void)out.WriteStatus("\nInvalid command\n");
        return;
    }
    const char* name = info.args[1];
    const bool run = detail::EqualNoCase(verb, "run");
    const bool disable = detail::EqualNoCase(verb, "disable");
    const bool enable = detail::EqualNoCase(verb, "enable");
    if (!run && !disable && !enable) {
        (void)out.WriteStatus("\nInvalid command\n");
        return;
    }
    MaintCommand* command = FindMaintCommand(name);
    if (command == nullptr) {
        (void)out.WriteStatus("\nUnknown command.\n");
        return;
    }
    if (run) {
        TOLVEN_LOG(LOGGER_WARN, kFile, kFunction, "User has manually run command %s.",
                   command->name.c_str());
        (void)out.WriteStatus("Running command...\n");
        // Keep the record alive should the handler unregister it.
        const std::shared_ptr<MaintCommand> hold = [&] {
            for (const auto& each : maintCommands_)
                if (each.get() == command) return each;
            return std::shared_ptr<MaintCommand>();
        }();
        (void)out.WriteStatus(RunMaintCommand(*command)
                                  ? "\nThe command has sucessfully completed running.\n"
                                  : "\nThe command has failed to run.\n");
    } else if (disable) {
        if (!command->enabled) {
            (void)out.WriteStatus("\nThis command is already disabled.\n");
            return;
        }
        command->enabled = false;
        (void)out.WriteStatus("Command disabled.\n");
        TOLVEN_LOG(LOGGER_WARN, kFile, kFunction, "User has disabled command %s.",
                   command->name.c_str());
    } else {
        if (command->enabled) {
            (void)out.WriteStatus("\nThis command is already enabled.\n");
            return;
        }
        command->enabled = true;
        (void)out.WriteStatus("Command enabled.\n");
        TOLVEN_LOG(LOGGER_WARN, kFile, kFunction, "User has enabled command %s.",
                   command->name.c_str());
    }
}

}  // namespace TOLVEN
