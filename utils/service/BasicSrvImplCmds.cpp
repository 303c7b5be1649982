// The commands every service answers, registered at construction.
#include <cinttypes>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "blob/civil_time.h"
#include "log/LogAccounting.h"
#include "platform/timezone.h"
#include "service/BasicSrvImpl.h"
#include "service/ServiceText.h"
#include "tolven/autothread.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/blobtyped.h"
#include "tolven/regcounters.h"
#include "tolven/versioninfo.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "BasicSrvImplCmds";

basicsrv_status QuitCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    (void)info.writer->WriteStatus("Shutting down");
    (void)static_cast<BasicSrvImpl*>(context)->Shutdown();
    return basicsrv_success;
}

// Seconds since 1900 of a local time; a date before 1900 counts as 0.
int64_t SecondsSince1900(const _blob_timestamp& t) {
    if (t.year < 1900) return 0;
    const int64_t days =
        detail::DaysFromCivil(t.year, t.month, t.day) - detail::DaysFromCivil(1900, 1, 1);
    return days * 86400 + t.hour * 3600 + t.minute * 60 + t.second;
}

basicsrv_status UptimeCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    const _blob_timestamp& start = static_cast<BasicSrvImpl*>(context)->GetUptimeStart();
    _blob_timestamp now{};
    (void)GetCurrentBlobTime(&now);
    const int64_t seconds = SecondsSince1900(now) - SecondsSince1900(start);
    (void)info.writer->FormatStatus(
        "up since %-2.2i/%-2.2i/%-4.4i %-2.2i:%-2.2i:%-2.2i (%u total hours)\n",
        static_cast<int>(start.month), static_cast<int>(start.day), static_cast<int>(start.year),
        static_cast<int>(start.hour), static_cast<int>(start.minute),
        static_cast<int>(start.second), static_cast<unsigned int>(seconds / 3600));
    return basicsrv_success;
}

basicsrv_status VersionCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    VersionInfo version;
    char text[256] = {};
    unsigned int size = sizeof(text);
    if (version.Initialize(nullptr) && version.GetProductVersion(text, &size) && text[0] != '\0')
        (void)info.writer->FormatStatus("Version %s", text);
    else
        (void)info.writer->WriteStatus("Error displaying version information");
    return basicsrv_success;
}

// The allocators' table, one line at a time, without the newlines.
std::vector<std::string> AllocTable() {
    std::vector<std::string> lines;
    lines.emplace_back(
        "Name                |  Id  | Block Size | Free Blocks | Commit Mem | ReserveMem");
    uint64_t count = BlockAllocatorStatMngr::NumStats();
    std::vector<_BLOCK_ALLOC_STATS> stats(static_cast<size_t>(count));
    if (!stats.empty()) (void)BlockAllocatorStatMngr::GetStats(stats.data(), &count);
    uint64_t freeBlocks = 0, committed = 0, reserved = 0;
    char line[256];
    for (uint64_t i = 0; i < count && i < stats.size(); ++i) {
        const _BLOCK_ALLOC_STATS& s = stats[static_cast<size_t>(i)];
        (void)std::snprintf(line, sizeof line, "%-20.20s  %4u   %10u   %11u   %10u   %10u",
                            s.Name.c_str(), static_cast<unsigned>(s.Id),
                            static_cast<unsigned>(s.BlockSize), static_cast<unsigned>(s.FreeBlocks),
                            static_cast<unsigned>(s.CommittedMemory >> 10),
                            static_cast<unsigned>(s.ReservedMemory >> 10));
        lines.emplace_back(line);
        freeBlocks += s.FreeBlocks;
        committed += s.CommittedMemory;
        reserved += s.ReservedMemory;
    }
    (void)std::snprintf(line, sizeof line,
                        "Total:                                    %11u   %10u   %10u",
                        static_cast<unsigned>(freeBlocks), static_cast<unsigned>(committed >> 10),
                        static_cast<unsigned>(reserved >> 10));
    lines.emplace_back(line);
    return lines;
}

basicsrv_status AllocCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    BasicSrvStatusWriter& out = *info.writer;
    if (info.argc == 0) {
        for (const std::string& line : AllocTable())
            (void)out.FormatStatus("%s\n", line.c_str());
        return basicsrv_success;
    }
    if (info.argc > 1) {
        (void)out.WriteStatus("Expected <blockallocator id>\n");
        return basicsrv_success;
    }
    _BLOCK_ALLOC_STATS s;
    const uint64_t id = static_cast<uint64_t>(std::atol(info.args[0]));
    if (!BlockAllocatorStatMngr::GetStats(s, id)) {
        (void)out.FormatStatus("Invalid blockallocator id '%s'.", info.args[0]);
        return basicsrv_success;
    }
    (void)out.FormatStatus("Name                  : %s\n", s.Name.c_str());
    const std::pair<const char*, uint64_t> rows[] = {
        {"Id                    :", s.Id},
        {"FreeMemory            :", s.FreeMemory},
        {"FreeBlocks            :", s.FreeBlocks},
        {"BlockSize             :", s.BlockSize},
        {"CommittedMemory       :", s.CommittedMemory},
        {"ReservedMemory        :", s.ReservedMemory},
        {"UnusedCommittedMemory :", s.UnusedCommittedMemory},
        {"UnusedReservedMemory  :", s.UnusedReservedMemory}};
    for (const auto& [label, value] : rows)
        (void)out.FormatStatus("%s %" PRIu64 "\n", label, value);
    return basicsrv_success;
}

// asctime's text of a time given in seconds since 1970, in local time: "Www Mmm dd hh:mm:ss
// yyyy\n".
std::string LocalAscTime(int64_t unixSeconds) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    uint64_t local = 0;
    const uint64_t utc =
        detail::kTicksTo1970 +
        static_cast<uint64_t>(unixSeconds < 0 ? 0 : unixSeconds) * detail::kTicksPerSecond;
    if (!platform::UtcToLocal100ns(utc, &local)) local = utc;
    const detail::CivilTime t = detail::TicksToCivil(local);
    const int64_t days = static_cast<int64_t>(local / detail::kTicksPerDay);  // from 1601, a Monday
    char text[64];
    (void)std::snprintf(
        text, sizeof text, "%.3s %.3s%3d %.2d:%.2d:%.2d %d\n", kDays[(days + 1) % 7],
        kMonths[(t.month + 11) % 12], static_cast<int>(t.day), static_cast<int>(t.hour),
        static_cast<int>(t.minute), static_cast<int>(t.second), static_cast<int>(t.year));
    return text;
}

basicsrv_status ThreadsCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    thread_details& details = thread_details::get();
    unsigned int total = 0, spinning = 0;
    {
        QuickLockGuard guard(details.get_lock());
        for (const auto& [id, data] : details.get_thread_map()) {
            (void)id;
            ++total;
            spinning += data->spinThread ? 1 : 0;
            (void)info.writer->FormatStatus(
                "thread <%s:%u>\n   start time=%s   affinity=%s\n   numa=%u\n   spinning=%s\n"
                "   priority=%u\n   enforce user mode=%s\n   lazy check interval=%u\n   spin "
                "pause=%s\n   spin sleep=%s, sleep time=%u\n\n",
                data->name.c_str(), data->nativeId, LocalAscTime(data->startTime).c_str(),
                data->cpuAffinity.get_cpumask_str().c_str(), data->numaNode,
                data->spinThread ? "true" : "false", data->priority,
                data->enforceUserMode ? "true" : "false", data->lazyCheckInterval,
                data->pause ? "true" : "false", data->spinSleepSet ? "true" : "false",
                data->spinSleep);
        }
    }
    (void)info.writer->FormatStatus("Total threads=%u spin threads=%u", total, spinning);
    return basicsrv_success;
}

basicsrv_status ShowLognCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    (void)LogNShowDetails(info.writer);
    return basicsrv_success;
}

basicsrv_status ResetLognCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    LogNReset();
    (void)info.writer->WriteStatus("Successfully reset Logn details\n");
    return basicsrv_success;
}

basicsrv_status FileLevelCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* impl = static_cast<BasicSrvImpl*>(context);
    if (info.argc > 0) {
        static constexpr logger_event_level kLevels[] = {LOGGER_TRACE, LOGGER_NORMAL, LOGGER_WARN,
                                                         LOGGER_ERROR};
        bool matched = false;
        for (logger_event_level level : kLevels) {
            if (detail::EqualNoCase(info.args[0], LoggerLevelName(level))) {
                impl->SetFileLoggingLevel(level);
                matched = true;
            }
        }
        if (!matched)
            (void)info.writer->WriteStatus(
                "Invalid argument.  Expected { trace / normal / warning / error }.");
    }
    (void)info.writer->FormatStatus("Current level = %s",
                                    LoggerLevelName(impl->GetFileLoggingLevel()));
    return basicsrv_success;
}

// True when `text` starts with `prefix`, ignoring ASCII case.
bool StartsWithNoCase(const char* text, const char* prefix) {
    for (; *prefix != '\0'; ++text, ++prefix) {
        const char a = *text >= 'A' && *text <= 'Z' ? static_cast<char>(*text - 'A' + 'a') : *text;
        const char b =
            *prefix >= 'A' && *prefix <= 'Z' ? static_cast<char>(*prefix - 'A' + 'a') : *prefix;
        if (a != b) return false;
    }
    return true;
}

// The walk behind show and reset counters: each row that passes the group and counter
// filters goes to `visit` with its record lock held; `visit` answers false to end the walk.
// `onGroup` hears each group that is shown. The first failing read's status, or 0.
template <class OnGroup, class Visit>
csdb_status WalkCounters(const _BASICSRV_COMMAND_INFO& info, OnGroup onGroup, Visit visit) {
    RegCounterDb& table = GetRegCounterDb();
    const char* groupFilter = info.argc > 0 ? info.args[0] : nullptr;
    const char* counterFilter = info.argc > 1 ? info.args[1] : nullptr;
    _REGCOUNTERDB_KEY0 key{};
    _REGCOUNTERDB_ENTRY row{};
    csdb_context ctx;
    csdb_status st = table.StepRow(0, MKDB_BEGIN, &key, sizeof key, &row, &ctx, true);
    if (st != CSDB_SUCCESS) return st;
    bool first = true, hidden = false;
    uint32_t group = 0;
    for (; st == CSDB_SUCCESS;
         st = table.StepRow(0, MKDB_NEXT, &key, sizeof key, &row, &ctx, true)) {
        if (first || row.GroupId != group) {
            first = false;
            group = row.GroupId;
            const _REGGROUPDB_KEY0 groupKey{group};
            _REGGROUPDB_ENTRY groupRow{};
            csdb_context groupCtx;
            const char* name = group == 0 ? "default" : "unknown";
            if (GetRegGroupDb().FindRow(0, &groupKey, sizeof groupKey, &groupRow, &groupCtx,
                                        false) == CSDB_SUCCESS)
                name = groupRow.Name;
            hidden = groupFilter != nullptr && !StartsWithNoCase(name, groupFilter);
            if (!hidden) onGroup(name);
        }
        bool go = true;
        if (!hidden && (counterFilter == nullptr || StartsWithNoCase(row.Name, counterFilter))) {
            try {
                go = visit(row);
            } catch (...) {
                (void)table.UnlockRecord(&ctx);
                throw;
            }
        }
        (void)table.UnlockRecord(&ctx);
        if (!go) break;
    }
    return CSDB_SUCCESS;
}

basicsrv_status ShowCountersCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    BasicSrvStatusWriter& out = *info.writer;
    _BLOB_INFO* scratch = nullptr;
    if (CreateBlob(&scratch) != BLOB_STATUS_SUCCESS) return basicsrv_success;
    const csdb_status st = WalkCounters(
        info, [&](const char* group) { (void)out.FormatStatus("\n[%s]\n", group); },
        [&](const _REGCOUNTERDB_ENTRY& row) {
            (void)Clear(scratch);
            if (row.EventSink != nullptr) row.EventSink->AddValue(row.Name, row.Name, scratch);
            char value[200] = {};
            if (GetByNameStr(scratch, row.Name, value, sizeof value) != BLOB_STATUS_SUCCESS)
                return false;  // the whole command ends, without a word
            std::string line = row.Name;
            if (row.Publish || row.Resetable) {
                line += " {";
                if (row.Publish) line += "published";
                if (row.Publish && row.Resetable) line += ",";
                if (row.Resetable) line += "resetable";
                line += "}";
            }
            (void)out.FormatStatus("%s = %s\n", line.c_str(), value);
            return true;
        });
    (void)ReleaseBlob(&scratch);
    if (st != CSDB_SUCCESS) (void)out.FormatStatus("No counters found, DbError<%u>!\n", st);
    return basicsrv_success;
}

basicsrv_status ResetCountersCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    BasicSrvStatusWriter& out = *info.writer;
    (void)out.WriteStatus("\nreseting counters:\n");
    unsigned int count = 0;
    const bool named = info.argc > 1;
    (void)WalkCounters(
        info, [](const char*) {},
        [&](const _REGCOUNTERDB_ENTRY& row) {
            if (row.Resetable && row.EventSink != nullptr) {
                row.EventSink->Reset();
                ++count;
                (void)out.FormatStatus("%s(%u) was reset!\n", row.Name, row.GroupId);
            } else if (named) {
                (void)out.FormatStatus("%s(%u) is not resetable!\n", row.Name, row.GroupId);
            }
            return true;
        });
    (void)out.FormatStatus("%u counters reset.", count);
    return basicsrv_success;
}

// A metric name from a counter or group name: letters, digits, '_' and ':' only, not
// starting with a digit.
std::string MetricName(const char* text) {
    std::string out;
    for (const char* c = text; *c != '\0'; ++c) {
        const bool digit = *c >= '0' && *c <= '9';
        const bool letter =
            (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || *c == '_' || *c == ':';
        if (digit && out.empty()) out += '_';
        out += letter || digit ? *c : '_';
    }
    return out.empty() ? std::string("_") : out;
}

// A label value with '\\', '"' and newlines escaped.
std::string LabelValue(const char* text) {
    std::string out;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c == '\\' || *c == '"') out += '\\';
        if (*c == '\n') {
            out += "\\n";
            continue;
        }
        out += *c;
    }
    return out;
}

// True for a number the exposition format takes as a sample value.
bool IsSampleValue(const char* text) {
    if (*text == '\0') return false;
    char* end = nullptr;
    (void)std::strtod(text, &end);
    return end != text && *end == '\0';
}

// The published counters in the text exposition format 0.0.4: one "# TYPE" line a metric,
// then one sample a counter with its group as a label. A resetable counter only grows
// between resets, so it is a counter named "..._total"; any other is a gauge.
basicsrv_status ShowMetricsCommand(_BASICSRV_COMMAND_INFO& info, void*) {
    _BLOB_INFO* scratch = nullptr;
    if (CreateBlob(&scratch) != BLOB_STATUS_SUCCESS) return basicsrv_success;
    std::map<std::string, std::string> types;                 // metric -> type
    std::map<std::string, std::vector<std::string>> samples;  // metric -> sample lines
    std::string group;
    _BASICSRV_COMMAND_INFO all = info;
    all.argc = 0;
    (void)WalkCounters(
        all, [&](const char* name) { group = name; },
        [&](const _REGCOUNTERDB_ENTRY& row) {
            if (!row.Publish || row.EventSink == nullptr) return true;
            (void)Clear(scratch);
            row.EventSink->AddValue(row.Name, row.Name, scratch);
            char value[200] = {};
            if (GetByNameStr(scratch, row.Name, value, sizeof value) != BLOB_STATUS_SUCCESS ||
                !IsSampleValue(value))
                return true;
            std::string metric = MetricName(row.Name);
            const std::string suffix = "_total";
            if (row.Resetable &&
                (metric.size() < suffix.size() ||
                 metric.compare(metric.size() - suffix.size(), suffix.size(), suffix) != 0))
                metric += suffix;
            types.emplace(metric, row.Resetable ? "counter" : "gauge");
            samples[metric].push_back(metric + "{group=\"" + LabelValue(group.c_str()) + "\"} " +
                                      value);
            return true;
        });
    (void)ReleaseBlob(&scratch);
    for (const auto& [metric, type] : types) {
        (void)info.writer->FormatStatus("# TYPE %s %s\n", metric.c_str(), type.c_str());
        for (const std::string& line : samples[metric])
            (void)info.writer->FormatStatus("%s\n", line.c_str());
    }
    return basicsrv_success;
}

basicsrv_status ShowConfigCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    BasicSrvStatusWriter& out = *info.writer;
    ConfigReader* reader = static_cast<BasicSrvImpl*>(context)->GetConfigReader();
    if (reader == nullptr) {
        (void)out.WriteStatus("No configuration found!\n");
        return basicsrv_success;
    }
    const char* sectionFilter = info.argc > 0 ? info.args[0] : nullptr;
    const char* itemFilter = info.argc > 1 ? info.args[1] : nullptr;
    unsigned int displayed = 0, total = 0;
    const int sections = reader->GetNumSections();
    for (int s = 0; s < sections; ++s) {
        char section[255] = {};
        if (reader->GetSectionName(s, section, sizeof section) != configreader_success) continue;
        const int items = reader->GetNumItems(section);
        total += items > 0 ? static_cast<unsigned int>(items) : 0u;
        if (sectionFilter != nullptr && !detail::EqualNoCase(section, sectionFilter)) continue;
        (void)out.FormatStatus("\n[%s]\n", section);
        for (int i = 0; i < items; ++i) {
            char item[255] = {};
            if (reader->GetItemName(section, i, item, sizeof item) != configreader_success)
                continue;
            if (itemFilter != nullptr && !detail::EqualNoCase(item, itemFilter)) continue;
            char value[255] = {};
            size_t size = sizeof value;
            if (reader->ReadString(section, item, value, &size) != configreader_success) continue;
            value[sizeof value - 1] = '\0';
            if (IsConfigFieldProtected(item))
                (void)out.FormatStatus(" %s=********\n", item);
            else
                (void)out.FormatStatus(" %s=%s\n", item, value);
            ++displayed;
        }
    }
    (void)out.FormatStatus("\n%u items displayed, %u items total\n", displayed, total);
    return basicsrv_success;
}

basicsrv_status ShowConfigsCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    static_cast<BasicSrvImpl*>(context)->ShowEmbeddedFiles(info);
    return basicsrv_success;
}

basicsrv_status MaintCommandHandler(_BASICSRV_COMMAND_INFO& info, void* context) {
    static_cast<BasicSrvImpl*>(context)->MaintCommandLine(info);
    return basicsrv_success;
}

basicsrv_status HelpCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* impl = static_cast<BasicSrvImpl*>(context);
    if (info.argc == 0) {
        impl->WriteCommandHelp(*info.writer, nullptr);
        return basicsrv_success;
    }
    std::string text;
    for (unsigned int i = 0; i < info.argc; ++i) {
        text += info.args[i];
        text += ';';
    }
    impl->WriteCommandHelp(*info.writer, text.c_str());
    return basicsrv_success;
}

}  // namespace

void BasicSrvImpl::LogAllocList() {
    for (const std::string& line : AllocTable())
        TOLVEN_LOG(LOGGER_NORMAL, kFile, "TOLVEN::BasicSrvImpl::LogAllocList", "%s", line.c_str());
}

void BasicSrvImpl::RegisterBuiltinCommands() {
    // Registration fails only for a name taken, which cannot happen in a new service.
    if (registerQuit_) {
        (void)RegisterCommand(
            {"quit", "Quits the application.", "Quits the application.", this, &QuitCommand});
    } else {
        TOLVEN_LOG(LOGGER_NORMAL, kFile, "TOLVEN::BasicSrvImpl::RegisterBuiltinCommands",
                   "Quit has not been registered");
    }
    (void)RegisterCommand({"show uptime", "Displays the up time for the service",
                           "Displays the up time for the service", this, &UptimeCommand});
    (void)RegisterCommand({"show version", "Displays the application's version number.",
                           "Displays the application's version number.", this, &VersionCommand});
    (void)RegisterCommand({"maint", "Run or display application maintenance commands.",
                           "Run or display application maintenance commands.  Use maint help "
                           "for more info.",
                           this, &MaintCommandHandler});
    (void)RegisterCommand({"help", "Displays help.", "Displays help.", this, &HelpCommand});
    (void)RegisterCommand({"?", "Displays help.", "Displays help.", this, &HelpCommand});
    constexpr const char* kAlloc = "Shows block allocator details or specific allocator details.";
    (void)RegisterCommand({"show alloc", kAlloc, kAlloc, this, &AllocCommand});
    constexpr const char* kThreads =
        "Shows thread details for all threads created using the auto_thread class.";
    (void)RegisterCommand({"show threads", kThreads, kThreads, this, &ThreadsCommand});
    (void)RegisterCommand(
        {"show logn", "Show logn details.", "Show logn details.", this, &ShowLognCommand});
    (void)RegisterCommand(
        {"reset logn", "Resets logn details.", "Resets logn details.", this, &ResetLognCommand});
    constexpr const char* kLevel =
        "{ trace / normal / warning / error } Sets the file reporting level";
    (void)RegisterCommand({"filelevel", kLevel, kLevel, this, &FileLevelCommand});
    constexpr const char* kShow = "Shows a specific counter value or all counter values.";
    (void)RegisterCommand({"show counters", kShow, kShow, this, &ShowCountersCommand});
    constexpr const char* kReset = "Resets a specific counter value or all counter values.";
    (void)RegisterCommand({"reset counters", kReset, kReset, this, &ResetCountersCommand});
    (void)RegisterCommand({"show config",
                           "Shows a given configuration value or all configuration values.",
                           "show config <value> Shows a specific configuration value is value "
                           "is present.",
                           this, &ShowConfigCommand});
    constexpr const char* kMetrics = "Shows the published counters in the Prometheus text format.";
    (void)RegisterCommand({"show metrics", kMetrics, kMetrics, this, &ShowMetricsCommand});
    (void)RegisterCommand(
        {"show configs", "Shows all configuration values of the embedded file specified by index.",
         "show configs <index> Shows the content of embedded configuration file with given index",
         this, &ShowConfigsCommand});
}

}  // namespace TOLVEN
