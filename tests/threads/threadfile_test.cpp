// The thread file, processor ranges and placement, through a provider that plays a machine
// of two NUMA nodes.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/logfile_test_util.h"
#include "memory/alloc_test_support.h"
#include "threads/AffinityProvider.h"
#include "tolven/affinity.h"
#include "tolven/autothread.h"
#include "tolven/baseallocator.h"
#include "tolven/iniconfigreader.h"
#include "tolven/utilerror.h"

using namespace TOLVEN;
using alloctest::LogCapture;
using tolven_test::ScratchDir;

namespace {

// Node 0 holds processors 0-3; node 1 holds 8, 9, 11 and 12 (a hole at 10).
class FakeMachine final : public detail::AffinityProvider {
  public:
    uint32_t HighestNode(uint32_t* node) override {
        std::lock_guard<std::mutex> g(lock);
        *node = highest;
        return failHighest;
    }
    uint32_t NodeMask(uint32_t node, uint64_t* mask) override {
        std::lock_guard<std::mutex> g(lock);
        if (node > highest) return 87;
        *mask = node == 0 ? 0x0F : 0x1B00;
        return 0;
    }
    uint32_t ProcessMask(uint64_t* mask) override {
        std::lock_guard<std::mutex> g(lock);
        *mask = process;
        return 0;
    }
    uint32_t SetProcessMask(uint64_t mask) override {
        std::lock_guard<std::mutex> g(lock);
        if (failSetProcess != 0) return failSetProcess;
        process = mask;
        ++processSets;
        return 0;
    }
    uint32_t SetThreadMask(void* thread, uint64_t mask) override {
        std::lock_guard<std::mutex> g(lock);
        if (failSetThread != 0) return failSetThread;
        threads[thread] = mask;
        return 0;
    }
    uint64_t ThreadMask(void* thread) {
        std::lock_guard<std::mutex> g(lock);
        return threads.count(thread) != 0 ? threads[thread] : 0;
    }

    std::mutex lock;
    uint32_t highest = 1;
    uint32_t failHighest = 0, failSetProcess = 0, failSetThread = 0;
    uint64_t process = 0x0F;
    int processSets = 0;
    std::map<void*, uint64_t> threads;
};

class ThreadFile : public ::testing::Test {
  protected:
    void SetUp() override {
        configure_mainthread();
        previous_ = detail::SetAffinityProvider(&machine_);
    }
    void TearDown() override {
        (void)detail::SetAffinityProvider(previous_);
        set_default_numanode(0);
    }
    // Writes the thread file and makes it the one in force.
    void UseFile(const std::string& text) {
        path_ = dir_ / "service_thread.ini";
        std::ofstream(path_, std::ios::binary) << text;
        UtilError error;
        ASSERT_TRUE(set_threadaffinityfile(path_.c_str(), &error)) << error.GetError();
    }
    // Runs an auto_thread and hands back a copy of its settings as it started.
    thread_data Run(const char* name) {
        thread_data seen;
        auto_thread t;
        EXPECT_TRUE(t.launch(name, [&] {
            const thread_data* d = GetCurrentThreadData();
            seen.name = d->name;
            static_cast<DetectorOptions&>(seen) = *d;
            seen.cpuAffinity = d->cpuAffinity;
            seen.numaNode = d->numaNode;
            seen.priority = d->priority;
            seen.nativeId = d->nativeId;
            seen.handle = d->handle;
            seen.loadBalance = EnforceUserMode();  // carried out in a spare field
        }));
        EXPECT_TRUE(t.join());
        return seen;
    }
    std::string Tag(const thread_data& d) {
        return "Thread <" + d.name + ":" + std::to_string(d.nativeId) + ">";
    }

    FakeMachine machine_;
    detail::AffinityProvider* previous_ = nullptr;
    ScratchDir dir_;
    std::string path_;
};

}  // namespace

TEST(Affinity, ParsesRangesAndRejectsBadParts) {
    affinity a;
    UtilError error;
    ASSERT_TRUE(a.init(" 0 - 3 ,8,+5", &error)) << error.GetError();
    ASSERT_EQ(a.get_cpu_vector().size(), 3u);
    EXPECT_EQ(a.get_cpu_vector()[0].first, 0u);
    EXPECT_EQ(a.get_cpu_vector()[0].last, 3u);
    EXPECT_EQ(a.get_cpu_vector()[1].first, 8u);
    EXPECT_EQ(a.get_cpu_vector()[1].last, 8u);
    EXPECT_EQ(a.get_cpumask_str(), " 0 - 3 ,8,+5");

    for (const char* bad : {"1-2-3", "abc", "1,,2", "1 2", "-", "4,x"}) {
        UtilError e;
        EXPECT_FALSE(a.init(bad, &e)) << bad;
        EXPECT_STREQ(e.GetError(), "Invalid CPU range setting") << bad;
        EXPECT_EQ(a.get_cpumask_str(), "") << bad;
    }
    EXPECT_EQ(a.get_cpu_vector().size(), 1u) << "ranges before the bad part stay";
    EXPECT_TRUE(a.init("", &error));
    EXPECT_TRUE(a.get_cpu_vector().empty());
}

TEST(Affinity, MaskIsProbedByByte) {
    affinity::mask m(0x0102);
    EXPECT_EQ(m.count(), 8u);
    EXPECT_FALSE(m.is_set(0)) << "byte 0 is 0x02: its lowest bit is clear";
    EXPECT_TRUE(m.is_set(1));
    EXPECT_FALSE(m.is_set(8));
    uint64_t word = 0;
    EXPECT_TRUE(m.convert(word));
    EXPECT_EQ(word, 0x0102u);
    const unsigned char three[] = {1, 0, 1};
    m.set(three, 3);
    EXPECT_TRUE(m.convert(word));
    EXPECT_EQ(word, 0x010001u);
    EXPECT_FALSE(affinity::mask().convert(word));
}

TEST_F(ThreadFile, RangesArePositionsAmongTheNodesProcessors) {
    affinity a;
    UtilError error;
    ASSERT_TRUE(a.init("0-1,3", &error));
    affinity::mask m;
    ASSERT_TRUE(a.get_cpumask(1, m, &error));
    uint64_t word = 0;
    ASSERT_TRUE(m.convert(word));
    EXPECT_EQ(word, 0x1300u) << "positions 0, 1 and 3 of node 1 are processors 8, 9 and 12";
    EXPECT_FALSE(a.get_cpumask(2, m, &error));
    EXPECT_STREQ(error.GetError(), "Error<87> reading Numa node processor details");

    // Binding to a node outside the process mask widens it; a partial overlap stays.
    void* self = reinterpret_cast<void*>(0x1234);
    ASSERT_TRUE(a.set_thread_affinity(self, 1, false, &error));
    EXPECT_EQ(machine_.ThreadMask(self), 0x1300u);
    EXPECT_EQ(machine_.process, 0x130Fu);
    ASSERT_TRUE(a.init("0-2", &error));
    ASSERT_TRUE(a.set_thread_affinity(self, 0, false, &error));
    EXPECT_EQ(machine_.process, 0x130Fu);
    EXPECT_EQ(machine_.processSets, 1);

    error.Clear();
    ASSERT_TRUE(a.init("3-1", &error));
    EXPECT_FALSE(a.set_thread_affinity(self, 1, false, &error));
    EXPECT_STREQ(error.GetError(), "Error no matching cpu found on numa node 1");
    error.Clear();
    ASSERT_TRUE(a.init("5", &error));
    machine_.failSetThread = 22;
    EXPECT_FALSE(a.set_thread_affinity(self, 0, false, &error)) << "node 0 has no position 5";
    error.Clear();
    ASSERT_TRUE(a.init("0", &error));
    EXPECT_FALSE(a.set_thread_affinity(self, 1, false, &error));
    EXPECT_STREQ(error.GetError(), "Error<22> setting affinity 0x100");
    error.Clear();
    machine_.process = 0x1;
    machine_.failSetProcess = 5;
    EXPECT_FALSE(a.set_thread_affinity(self, 1, false, &error));
    EXPECT_STREQ(error.GetError(),
                 "Error<5> cannot set adjust the affinity to support a thread affinity.");
}

TEST_F(ThreadFile, LoadBalanceNeedsAnAutoThreadAndSpreadsThreadsOfOneName) {
    affinity a;
    UtilError error;
    ASSERT_TRUE(a.init("1-2", &error));
    std::thread([&] {
        EXPECT_FALSE(a.set_thread_affinity(reinterpret_cast<void*>(1), 0, true, &error));
    }).join();
    EXPECT_STREQ(error.GetError(),
                 "Thread must be created using the auto_thread class to use load balancing!");

    // Three threads of one name ask in turn while the earlier ones still run.
    constexpr int kThreads = 3;
    auto_thread threads[kThreads];
    std::atomic<int> turn{0};
    std::atomic<bool> release{false};
    uint64_t masks[kThreads] = {};
    uint32_t assigned[kThreads] = {};
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(threads[i].launch("balanced", [&, i] {
            while (turn.load() != i)
                std::this_thread::yield();
            affinity mine = a;
            UtilError e;
            EXPECT_TRUE(mine.set_thread_affinity(GetCurrentThreadData()->handle, 0, true, &e))
                << e.GetError();
            masks[i] = machine_.ThreadMask(GetCurrentThreadData()->handle);
            assigned[i] = GetCurrentThreadData()->assignedCpu;
            turn = i + 1;
            while (!release.load())
                std::this_thread::yield();
        }));
    }
    while (turn.load() != kThreads)
        std::this_thread::yield();
    release = true;
    for (auto& t : threads)
        EXPECT_TRUE(t.join());
    EXPECT_EQ(masks[0], 0x2u);
    EXPECT_EQ(assigned[0], 1u);
    EXPECT_EQ(masks[1], 0x4u);
    EXPECT_EQ(assigned[1], 2u);
    EXPECT_EQ(masks[2], 0x6u) << "with every processor taken, the whole range applies";
}

TEST_F(ThreadFile, SettingsApplyByNameOverTheDefaults) {
    UseFile(
        "[default]\nSpinThread=0\nLazyCheckInterval=250\n"
        "[spinner]\nSpinThread=1\nPause=1\nSpinSleep=7\n"
        "[walker]\nSpinThread=1\nEnforceUserMode=0\nNumaNode=1\nCPU=0-1\n"
        "[plain]\nKeep=me\n");
    LogCapture log;

    const thread_data spinner = Run("spinner");
    EXPECT_TRUE(spinner.spinThread);
    EXPECT_TRUE(spinner.enforceUserMode) << "follows SpinThread when the file is silent";
    EXPECT_TRUE(spinner.loadBalance) << "EnforceUserMode() answered true inside the thread";
    EXPECT_TRUE(spinner.pause);
    EXPECT_TRUE(spinner.spinSleepSet);
    EXPECT_EQ(spinner.spinSleep, 7u);
    EXPECT_EQ(spinner.lazyCheckInterval, 250u) << "from the default section";
    EXPECT_EQ(log.Count(LOGGER_NORMAL, Tag(spinner) + " configured to spin the CPU"), 1);
    EXPECT_EQ(log.Count(LOGGER_NORMAL, Tag(spinner) + " configured to a priority of 50."), 1);

    const thread_data walker = Run("walker");
    EXPECT_TRUE(walker.spinThread);
    EXPECT_FALSE(walker.enforceUserMode);
    EXPECT_EQ(walker.numaNode, 1u);
    EXPECT_EQ(walker.cpuAffinity.get_cpumask_str(), "0-1");
    EXPECT_EQ(machine_.ThreadMask(walker.handle), 0x300u);

    const thread_data plain = Run("plain");
    EXPECT_FALSE(plain.spinThread);
    EXPECT_FALSE(plain.enforceUserMode);
    EXPECT_FALSE(plain.spinSleepSet);
    EXPECT_EQ(plain.numaNode, 0u);
    EXPECT_TRUE(plain.cpuAffinity.get_cpu_vector().empty());

    // Only LastCreated is written back, one line per section, and the rest stays.
    IniConfigReader* reader = IniConfigReader::CreateObject();
    ASSERT_EQ(reader->SetIniFile(path_.c_str(), false, false, nullptr), configreader_success);
    char text[64];
    size_t size = sizeof(text);
    ASSERT_EQ(reader->ReadString("plain", "Keep", text, &size), configreader_success);
    EXPECT_STREQ(text, "me");
    size = sizeof(text);
    ASSERT_EQ(reader->ReadString("walker", "LastCreated", text, &size), configreader_success);
    EXPECT_EQ(std::strlen(text), 24u) << text;
    EXPECT_FALSE(reader->IsItemPresent("spinner", "EnforceUserMode"));
    EXPECT_FALSE(reader->IsItemPresent(nullptr, "LastCreated"));
    reader->Release();
}

TEST_F(ThreadFile, GarbledFileLogsEachBadSettingAndTheThreadsRun) {
    UseFile(
        "@@@ garbage\n[unclosed\n[default]\nSpinThread=maybe\n"
        "[letters]\nCPU=abc\n[triple]\nCPU=1-2-3\n[reversed]\nCPU=3-1\n"
        "[balanced]\nLoadBalance=1\nCPU=0\n[loud]\nPriority=200\n"
        "[com]\nCoInitialize=COINIT_APARTMENTTHREADED\n");
    LogCapture log;
    for (const char* name : {"letters", "triple"}) {
        const thread_data d = Run(name);
        EXPECT_EQ(log.Count(LOGGER_WARN, Tag(d) + " Invalid CPU range setting."), 1) << name;
        EXPECT_FALSE(d.spinThread) << name;
    }
    const thread_data reversed = Run("reversed");
    EXPECT_EQ(
        log.Count(LOGGER_WARN, Tag(reversed) + " Error no matching cpu found on numa node 0."), 1);
    const thread_data balanced = Run("balanced");
    EXPECT_EQ(log.Count(LOGGER_WARN, Tag(balanced) +
                                         " Thread must be created using the auto_thread class "
                                         "to use load balancing!."),
              1);
    EXPECT_EQ(machine_.ThreadMask(balanced.handle), 0u) << "left without binding";
    const thread_data com = Run("com");
    EXPECT_EQ(log.Count(LOGGER_NORMAL,
                        Tag(com) + " configured to Coinitialize <2:COINIT_APARTMENTTHREADED>"),
              1);

    // The file's priority is read only for a thread that comes without one.
    uint32_t tid = 0;
    std::thread loud([&] {
        ConfigureCurrentThread("loud", nullptr, nullptr);
        tid = GetCurrentThreadData()->nativeId;
        EXPECT_EQ(GetCurrentThreadData()->priority, 50u);
    });
    loud.join();
    EXPECT_EQ(log.Count(LOGGER_WARN,
                        "Thread <loud:" + std::to_string(tid) + "> Invalid thread priority!."),
              1);
}

TEST_F(ThreadFile, DefaultNumaNodeRestrictsTheProcess) {
    LogCapture log;
    UseFile("[default]\nNumaNode=1\n");
    EXPECT_EQ(get_default_numanode(), 1u);
    EXPECT_EQ(machine_.process, 0x1B00u);
    EXPECT_EQ(log.Count(LOGGER_NORMAL, "Process numa node <1> numa mask <0x1b00>"), 1);

    machine_.failHighest = 5;
    UtilError error;
    EXPECT_FALSE(set_threadaffinityfile(nullptr, &error));
    EXPECT_STREQ(error.GetError(), "Error<5> reading Numa node processor details");
    EXPECT_EQ(log.Count(LOGGER_ERROR, "Error<5> reading Numa node processor details"), 1);

    machine_.failHighest = 0;
    machine_.highest = 0;
    machine_.processSets = 0;
    EXPECT_TRUE(set_threadaffinityfile(nullptr, &error));
    EXPECT_EQ(machine_.processSets, 0) << "one node: the process is left alone";

    UseFile("[x]\nNumaNode=1\n");
    EXPECT_EQ(get_default_numanode(), 0u) << "only the default section decides";
    EXPECT_FALSE(thread_details::get().verify_affinity(&error));
}
