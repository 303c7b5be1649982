// The thread file: per-thread settings by thread name, read as each thread configures
// itself, and the process's NUMA node.
#include <cstdio>
#include <cstring>
#include <string>

#include "log/LogApiInternal.h"
#include "platform/affinity.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "threads/AffinityProvider.h"
#include "threads/ThreadFileTable.h"
#include "threads/thread_hooks.h"
#include "tolven/affinity.h"
#include "tolven/autothread.h"
#include "tolven/baseallocator.h"
#include "tolven/iniconfigreader.h"
#include "tolven/logapi.h"
#include "tolven/osutils.h"
#include "tolven/quicklock.h"
#include "tolven/utilerror.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "ThreadFile";
constexpr size_t kPathRoom = 260;

// The reader of the thread file and the name it was given; guarded by the configuration
// critical section. Never destroyed: threads configure themselves until the process ends.
IniConfigReader* g_reader = nullptr;
std::string* g_threadFile = nullptr;

detail::ThreadFileTable& Table() {
    static detail::ThreadFileTable table("process_thread_files");
    return table;
}

// Day of the week (0 Sunday) of a civil date.
int WeekDay(int year, int month, int day) {
    static const int offsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    if (month < 3) year -= 1;
    return (year + year / 4 - year / 100 + year / 400 + offsets[(month - 1) % 12] + day) % 7;
}

// The local time as asctime writes it, without its line break, which an INI value cannot
// hold: "Wed Jun 30 21:49:08 1993".
void NowAsAscTime(char* out, size_t size) {
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    platform::LocalTime t;
    platform::GetLocalTimeNow(&t);
    const int month = t.month >= 1 && t.month <= 12 ? t.month : 1;
    (void)std::snprintf(out, size, "%.3s %.3s%3d %.2d:%.2d:%.2d %d",
                        days[WeekDay(t.year, month, t.day)], months[month - 1], t.day, t.hour,
                        t.minute, t.second, t.year);
}

bool SetNumaForProcess(UtilError* error) {
    static constexpr const char* kFunction = "TOLVEN::set_threadaffinityfile";
    unsigned int node = 0;
    if (g_reader->ReadUINT(nullptr, "NumaNode", &node) != configreader_success) {
        set_default_numanode(0);
        return true;
    }
    set_default_numanode(node);
    detail::AffinityProvider& provider = detail::CurrentAffinityProvider();
    uint32_t highest = 0;
    uint64_t mask = 0;
    uint32_t code = provider.HighestNode(&highest);
    if (code == 0 && highest == 0) return true;
    if (code == 0) code = provider.NodeMask(node, &mask);
    if (code != 0) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction, "Error<%u> reading Numa node processor details",
                   code);
        if (error != nullptr)
            (void)error->SetErrorFormat("Error<%u> reading Numa node processor details", code);
        return false;
    }
    if ((code = provider.SetProcessMask(mask)) != 0) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction,
                   "Error<%u> cannot set adjust the affinity to support a thread affinity.", code);
        if (error != nullptr)
            (void)error->SetErrorFormat(
                "Error<%u> cannot set adjust the affinity to support a thread affinity.", code);
        return false;
    }
    TOLVEN_LOG(LOGGER_NORMAL, kFile, kFunction, "Process numa node <%u> numa mask <0x%llx>", node,
               static_cast<unsigned long long>(mask));
    return true;
}

// Reads a key of the thread's section, else of the default section.
template <class T, class Read>
bool ReadKey(const char* section, Read read, const char* key, T* value) {
    return read(section, key, value) == configreader_success ||
           read(nullptr, key, value) == configreader_success;
}

}  // namespace

bool set_threadaffinityfile(const char* path, UtilError* error) {
    static constexpr const char* kFunction = "TOLVEN::set_threadaffinityfile";
    HouseLockGuard guard(detail::ThreadConfigSection());
    const bool created = g_reader == nullptr;
    if (created) {
        g_reader = IniConfigReader::CreateObject();
        if (g_reader == nullptr) return false;
    }
    if (path != nullptr || created) {
        char name[kPathRoom];
        if (path == nullptr) {
            char application[kPathRoom];
            if (!OS::GetApplicationName(application, sizeof(application))) application[0] = '\0';
            (void)std::snprintf(name, sizeof(name), "%s_thread.ini", application);
        } else {
            (void)std::snprintf(name, sizeof(name), "%s", path);
        }
        TOLVEN_LOG(LOGGER_NORMAL, kFile, kFunction, "Using thread affinity file %s", name);
        (void)thread_details::get().set_threadaffinityfile(name);
        if (g_reader->SetIniFile(name, true, true, nullptr) != configreader_success) {
            const char* shown = path != nullptr ? path : "(null)";
            TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction, "Error reading thread config file %s",
                       shown);
            if (error != nullptr)
                (void)error->SetErrorFormat("Error reading thread config file %s", shown);
            return false;
        }
        if (g_threadFile == nullptr) g_threadFile = new std::string;
        *g_threadFile = name;
    }
    return SetNumaForProcess(error);
}

bool thread_details::set_threadaffinityfile(const char* path) {
    return Table().Record(path);
}

bool thread_details::verify_affinity(UtilError* error) {
    bool haveFile;
    {
        HouseLockGuard guard(detail::ThreadConfigSection());
        haveFile = g_threadFile != nullptr;
    }
    if (!haveFile && error != nullptr)
        (void)error->SetError("Please set a thread file first using set_threadaffinityfile()");
    return false;
}

namespace detail {

void ApplyThreadFileSettings(thread_data* data, unsigned int* priority) {
    static constexpr const char* kFunction = "TOLVEN::ConfigureCurrentThread";
    const char* name = data->name.c_str();
    const uint32_t tid = data->nativeId;
    UtilError error;
    auto report = [&] {
        if (error.HasError())
            TOLVEN_LOG(LOGGER_WARN, kFile, kFunction, "Thread <%s:%u> %s.", name, tid,
                       error.GetError());
        error.Clear();
    };

    // This thread holds the configuration lock, and may be "LogThread" itself: its lines
    // must never wait for the log thread to make room.
    struct NeverWait {
        bool was = SetLogNeverWait(true);
        ~NeverWait() { (void)SetLogNeverWait(was); }
    } neverWait;

    (void)set_threadaffinityfile(nullptr, nullptr);
    IniConfigReader* r = g_reader;

    bool spin = false, loadBalance = false, flag = false;
    unsigned int number = 0, filePriority = 0, node = 0;
    bool havePriority = false;
    char cpu[4096] = {};
    bool haveCpu = false;
    char com[64] = {};
    bool haveCom = false;
    if (r != nullptr) {
        auto readBool = [r](const char* s, const char* k, bool* v) { return r->ReadBool(s, k, v); };
        auto readUint = [r](const char* s, const char* k, unsigned int* v) {
            return r->ReadUINT(s, k, v);
        };
        char created[64];
        NowAsAscTime(created, sizeof(created));
        (void)r->WriteString(name, "LastCreated", created);

        if (ReadKey(name, readBool, "SpinThread", &spin)) {
            data->spinThread = spin;
            if (spin)
                TOLVEN_LOG(LOGGER_NORMAL, kFile, kFunction,
                           "Thread <%s:%u> configured to spin the CPU", name, tid);
        }
        if (priority == nullptr) havePriority = ReadKey(name, readUint, "Priority", &filePriority);
        if (ReadKey(name, readUint, "SpinSleep", &number)) {
            data->spinSleep = number;
            data->spinSleepSet = true;
        }
        (void)ReadKey(name, readBool, "LoadBalance", &loadBalance);
        if (ReadKey(name, readUint, "LazyCheckInterval", &number)) data->lazyCheckInterval = number;
        data->enforceUserMode =
            ReadKey(name, readBool, "EnforceUserMode", &flag) ? flag : data->spinThread;
        if (ReadKey(name, readBool, "Pause", &flag)) data->pause = flag;
        if (ReadKey(name, readUint, "NumaNode", &node)) data->numaNode = node;
        size_t size = sizeof(cpu);
        haveCpu = r->ReadString(name, "CPU", cpu, &size) == configreader_success;
        if (!haveCpu) {
            size = sizeof(cpu);
            haveCpu = r->ReadString(nullptr, "CPU", cpu, &size) == configreader_success;
        }
        size = sizeof(com);
        haveCom = r->ReadString(name, "CoInitialize", com, &size) == configreader_success;
    }

    // Priority: the creator's choice, else the file's.
    if (priority != nullptr || havePriority) {
        const unsigned int percent = priority != nullptr ? *priority : filePriority;
        if (percent > 100) {
            (void)error.SetError("Invalid thread priority!");
        } else if (!platform::SetThreadPriority(tid, PriorityPercentToPlatform(percent))) {
            (void)error.SetErrorFormat("Error<%u> setting priority of %u", platform::LastOsError(),
                                       percent);
        } else {
            data->priority = percent;
            TOLVEN_LOG(LOGGER_NORMAL, kFile, kFunction,
                       "Thread <%s:%u> configured to a priority of %u.", name, tid, percent);
        }
        report();
    }

    if (haveCpu) {
        if (data->cpuAffinity.init(cpu, &error))
            (void)data->cpuAffinity.set_thread_affinity(data->handle, data->numaNode, loadBalance,
                                                        &error);
        report();
    }

    if (haveCom) {
        uint32_t model = 0;
        if (std::strcmp(com, "COINIT_APARTMENTTHREADED") == 0) model = 2;
        if (std::strcmp(com, "COINIT_SPEED_OVER_MEMORY") == 0) model = 8;
        TOLVEN_LOG(LOGGER_NORMAL, kFile, kFunction,
                   "Thread <%s:%u> configured to Coinitialize <%u:%s>", name, tid, model, com);
        platform::ComInitialize(model);
    }
}

void OnAutoThreadExit() {
    platform::ComUninitialize();
}

}  // namespace detail
}  // namespace TOLVEN
