// The machine-wide table of thread files and the process monitor, with real processes:
// children that come and go, and children killed while they hold the table.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "platform/namedmutex.h"
#include "threads/ThreadFileTable.h"
#include "tolven/baseallocator.h"
#include "tolven/processmonitor.h"

using namespace TOLVEN;
using detail::ThreadFileTable;

namespace {

constexpr uint64_t kTableBytes = uint64_t{ThreadFileTable::kRecords} * ThreadFileTable::kRecordSize;

std::string TableName() {
    return "tolven_test_threadfiles_" + std::to_string(getpid());
}

// A direct view of the table, for writing records as other processes would.
struct RawView {
    explicit RawView(const std::string& name) {
        view = static_cast<unsigned char*>(
            AllocateSM(name.c_str(), kTableBytes, &handle, nullptr, nullptr));
    }
    ~RawView() { FreeAllocationSM(view, handle); }
    void Write(uint32_t index, uint64_t pid, const char* path) {
        unsigned char* r = view + index * ThreadFileTable::kRecordSize;
        std::memset(r, 0, ThreadFileTable::kRecordSize);
        std::memcpy(r, &pid, sizeof(pid));
        std::strncpy(reinterpret_cast<char*>(r + 8), path, ThreadFileTable::kPathRoom - 1);
    }
    uint64_t Pid(uint32_t index) const {
        uint64_t pid;
        std::memcpy(&pid, view + index * ThreadFileTable::kRecordSize, sizeof(pid));
        return pid;
    }
    unsigned char* view = nullptr;
    uint64_t handle = 0;
};

// Waits for `pid` up to `seconds`; -1 when it did not end in time (it is killed then).
int WaitFor(pid_t pid, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(500);
    }
    return status;
}

// In a child: records, checks and clears its own record `rounds` times, then ends with 0;
// 2 when it found no room, 3 when its record was not as written.
[[noreturn]] void Churn(const std::string& name, const char* path, int rounds) {
    {
        ThreadFileTable table(name);
        std::vector<std::pair<uint64_t, std::string>> records;
        for (int i = 0; i < rounds; ++i) {
            if (!table.Record(path)) _exit(2);
            if (!table.List(records)) _exit(3);
            int mine = 0;
            for (const auto& [pid, file] : records)
                if (pid == static_cast<uint64_t>(getpid())) mine += file == path ? 1 : 100;
            if (mine != 1) _exit(3);
            table.Clear();
        }
    }
    _exit(0);
}

}  // namespace

TEST(ThreadFileTable, RecordsAreSharedTakenOverFromTheDeadAndRunOut) {
    const std::string name = TableName();
    ThreadFileTable table(name);
    ASSERT_TRUE(table.Record("/srv/first_thread.ini"));
    ASSERT_TRUE(table.Record("/srv/mine_thread.ini")) << "a process keeps one record";
    std::vector<std::pair<uint64_t, std::string>> records;
    ASSERT_TRUE(table.List(records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].first, static_cast<uint64_t>(getpid()));
    EXPECT_EQ(records[0].second, "/srv/mine_thread.ini");

    // A second process gets a record of its own, which outlives it when it is killed.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ThreadFileTable mine(name);
        const char ok = mine.Record(std::string(300, 'x').c_str()) ? 'y' : 'n';
        (void)!write(ready[1], &ok, 1);
        pause();
        _exit(0);
    }
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    EXPECT_EQ(ok, 'y');
    ASSERT_TRUE(table.List(records));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].second, std::string(259, 'x')) << "paths are cut to 259 characters";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);

    // Every other record held by a running process: the next one takes the dead child's.
    RawView raw(name);
    ASSERT_NE(raw.view, nullptr);
    const uint64_t live = static_cast<uint64_t>(getppid());
    for (uint32_t i = 2; i < ThreadFileTable::kRecords; ++i)
        raw.Write(i, live, "other.ini");
    pid_t next = fork();
    ASSERT_GE(next, 0);
    if (next == 0) _exit(ThreadFileTable(name).Record("next.ini") ? 0 : 1);
    int status = WaitFor(next, 30);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(raw.Pid(1), static_cast<uint64_t>(next));

    // With all 64 held by running processes a newcomer gets none.
    raw.Write(1, live, "other.ini");
    next = fork();
    ASSERT_GE(next, 0);
    if (next == 0) _exit(ThreadFileTable(name).Record("late.ini") ? 0 : 1);
    status = WaitFor(next, 30);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    for (uint32_t i = 1; i < ThreadFileTable::kRecords; ++i)
        raw.Write(i, 0, "");
}

TEST(ThreadFileTable, KilledProcessesNeitherBlockNorGarbleTheTable) {
    const std::string name = TableName();
    ThreadFileTable table(name);
    ASSERT_TRUE(table.Record("parent.ini"));
    std::mt19937 rng(20261124);
    std::uniform_int_distribution<int> delayUs(0, 3000);
    const std::set<std::string> known = {"parent.ini", "a.ini", "b.ini"};
    for (int round = 0; round < 100; ++round) {
        const bool killA = round % 2 == 0;
        // Every other kill lands while A holds the mutex over a half-written record.
        const bool holding = killA && round % 4 == 0;
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t a = fork();
        ASSERT_GE(a, 0);
        if (a == 0) {
            if (!holding) Churn(name, "a.ini", 200);
            platform::NamedMutex* mutex = platform::OpenNamedMutex((name + "_mutex").c_str());
            bool died = false;
            if (mutex == nullptr || !platform::LockNamedMutex(mutex, &died)) _exit(4);
            RawView raw(name);
            for (uint32_t i = 0; i < ThreadFileTable::kRecords; ++i) {
                if (raw.Pid(i) != 0) continue;
                raw.Write(i, static_cast<uint64_t>(getpid()), std::string(300, '#').c_str());
                break;
            }
            (void)!write(ready[1], "h", 1);
            pause();
            _exit(0);
        }
        if (holding) {
            char c;
            ASSERT_EQ(read(ready[0], &c, 1), 1);
        }
        const pid_t b = fork();
        ASSERT_GE(b, 0);
        if (b == 0) Churn(name, "b.ini", 200);
        if (killA) {
            usleep(static_cast<useconds_t>(delayUs(rng)));
            kill(a, SIGKILL);
        }
        const int statusA = WaitFor(a, 60);
        const int statusB = WaitFor(b, 60);
        close(ready[0]);
        close(ready[1]);
        ASSERT_NE(statusB, -1) << "round " << round << ": B blocked";
        ASSERT_NE(statusA, -1) << "round " << round << ": A blocked";
        ASSERT_TRUE(WIFEXITED(statusB) && WEXITSTATUS(statusB) == 0)
            << "round " << round << ": B " << statusB;
        if (!killA) {
            ASSERT_TRUE(WIFEXITED(statusA) && WEXITSTATUS(statusA) == 0)
                << "round " << round << ": A " << statusA;
        }

        std::vector<std::pair<uint64_t, std::string>> records;
        ASSERT_TRUE(table.List(records));
        std::set<uint64_t> pids;
        int parents = 0;
        for (const auto& [pid, file] : records) {
            EXPECT_TRUE(known.count(file) == 1) << "round " << round << ": " << file;
            EXPECT_TRUE(pids.insert(pid).second) << "round " << round << ": " << pid << " twice";
            parents += file == "parent.ini";
        }
        ASSERT_EQ(parents, 1) << "round " << round;
    }
}

TEST(ProcessMonitor, AnswersOnlyForWatchedProcesses) {
    ProcessMonitor monitor;
    const uint64_t self = static_cast<uint64_t>(getpid());
    EXPECT_FALSE(monitor.IsProcessActive(self)) << "nobody watches it";
    EXPECT_FALSE(monitor.MonitorProcess(self, false));
    EXPECT_TRUE(monitor.MonitorProcess(self, true));
    EXPECT_TRUE(monitor.MonitorProcess(self, true));
    EXPECT_TRUE(monitor.IsProcessActive(self));
    EXPECT_TRUE(monitor.MonitorProcess(self, false));
    EXPECT_TRUE(monitor.IsProcessActive(self)) << "one use remains";
    EXPECT_TRUE(monitor.MonitorProcess(self, false));
    EXPECT_FALSE(monitor.IsProcessActive(self));

    // A watched process that ends reads as ended, even before it is reaped.
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char c;
        (void)!read(go[0], &c, 1);
        _exit(0);
    }
    ASSERT_TRUE(monitor.MonitorProcess(static_cast<uint64_t>(child), true));
    EXPECT_TRUE(monitor.IsProcessActive(static_cast<uint64_t>(child)));
    (void)!write(go[1], "x", 1);
    while (monitor.IsProcessActive(static_cast<uint64_t>(child)))
        usleep(200);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(monitor.IsProcessActive(static_cast<uint64_t>(child)));
    EXPECT_TRUE(monitor.MonitorProcess(static_cast<uint64_t>(child), false)) << "still recorded";
    close(go[0]);
    close(go[1]);

    // A process that cannot be opened is recorded all the same, and reads as ended.
    EXPECT_TRUE(monitor.MonitorProcess(static_cast<uint64_t>(child), true));
    EXPECT_FALSE(monitor.IsProcessActive(static_cast<uint64_t>(child)));
}
