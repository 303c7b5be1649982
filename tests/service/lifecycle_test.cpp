// The life of a service and its event sinks.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "service_test_util.h"
#include "tolven/event.h"

using namespace TOLVEN;

namespace {

// Records every event, by sink, into a shared journal; an optional action runs inside.
class Recorder : public BasicSrvEvents {
  public:
    Recorder(std::vector<std::string>* journal, std::string name)
        : journal_(journal), name_(std::move(name)) {}
    void OnBasicSrvPreStartup() override { Note("pre"); }
    void OnBasicSrvStartup() override {
        Note("start");
        if (onStartup) onStartup();
    }
    void OnBasicSrvStartupComplete() override { Note("complete"); }
    void OnBasicSrvShutdown() override {
        Note("stop");
        if (onShutdown) onShutdown();
    }
    std::function<void()> onStartup, onShutdown;

  private:
    void Note(const char* event) { journal_->push_back(name_ + ":" + event); }
    std::vector<std::string>* journal_;
    std::string name_;
};

// The sinks outlive the service, whose destruction may still fire.
class Lifecycle : public ::testing::Test {
  protected:
    void MakeSinks(int count) {
        for (int i = 0; i < count; ++i)
            sinks_.emplace_back(&journal_, std::to_string(i));
    }
    std::vector<std::string> journal_;
    Recorder a_{&journal_, "a"};
    std::vector<Recorder> sinks_;
    std::unique_ptr<BasicSrv> srv_ = [] {
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "life";
        info.noFileLog = true;
        return std::make_unique<BasicSrv>(info);
    }();
};

}  // namespace

TEST_F(Lifecycle, StartStopAndRepeats) {
    ASSERT_EQ(srv_->AddSink(&a_), basicsrv_success);
    EXPECT_EQ(srv_->Shutdown(), basicsrv_success);
    EXPECT_TRUE(journal_.empty()) << "a stop before a start fires nothing";

    EXPECT_EQ(srv_->PreStartup(), basicsrv_success);
    EXPECT_EQ(srv_->Startup(), basicsrv_success);
    EXPECT_EQ(srv_->Startup(), basicsrv_success) << "a second start stops the first run";
    EXPECT_EQ(srv_->Shutdown(), basicsrv_success);
    EXPECT_EQ(srv_->Shutdown(), basicsrv_success);
    EXPECT_EQ(journal_, (std::vector<std::string>{"a:pre", "a:start", "a:complete", "a:stop",
                                                  "a:start", "a:complete", "a:stop"}));
    // The service runs again after a stop, and its destruction stops it.
    journal_.clear();
    EXPECT_EQ(srv_->Startup(), basicsrv_success);
    srv_.reset();
    EXPECT_EQ(journal_, (std::vector<std::string>{"a:start", "a:complete", "a:stop"}));
}

TEST_F(Lifecycle, SinksThatStopOrRestart) {
    ASSERT_EQ(srv_->AddSink(&a_), basicsrv_success);
    basicsrv_status inner = basicsrv_success;
    a_.onStartup = [&] { inner = srv_->Startup(); };
    EXPECT_EQ(srv_->Startup(), basicsrv_success);
    EXPECT_EQ(inner, basicsrv_wrong_state) << "Startup from inside Startup";

    a_.onStartup = nullptr;
    a_.onShutdown = [&] { inner = srv_->Startup(); };
    EXPECT_EQ(srv_->Shutdown(), basicsrv_success);
    EXPECT_EQ(inner, basicsrv_wrong_state) << "Startup from inside Shutdown";

    // A sink that stops the service during its start: no completion, and the stop counts.
    journal_.clear();
    a_.onShutdown = nullptr;
    a_.onStartup = [&] { inner = srv_->Shutdown(); };
    EXPECT_EQ(srv_->Startup(), basicsrv_stopped_during_startup);
    EXPECT_EQ(journal_, (std::vector<std::string>{"a:start", "a:stop"}));
    journal_.clear();
    EXPECT_EQ(srv_->Shutdown(), basicsrv_success);
    EXPECT_TRUE(journal_.empty());
}

TEST_F(Lifecycle, SinksAreCalledInPointerOrderPastAThrowingOne) {
    // Sinks in one array lie in ascending address order; add them backwards.
    MakeSinks(5);
    std::vector<Recorder>& sinks = sinks_;
    for (int i = 4; i >= 0; --i)
        ASSERT_EQ(srv_->AddSink(&sinks[i]), basicsrv_success);
    ASSERT_EQ(srv_->AddSink(&sinks[2]), basicsrv_success) << "adding twice is no error";
    // A throwing sink does not stop the firing.
    sinks[0].onStartup = [] { throw std::runtime_error("sink"); };
    EXPECT_EQ(srv_->Startup(), basicsrv_success);
    journal_.resize(5);
    EXPECT_EQ(journal_,
              (std::vector<std::string>{"0:start", "1:start", "2:start", "3:start", "4:start"}));
}

TEST_F(Lifecycle, AddingAndRemovingFromInsideAFiring) {
    MakeSinks(4);
    std::vector<Recorder>& sinks = sinks_;
    ASSERT_EQ(srv_->AddSink(&sinks[0]), basicsrv_success);
    ASSERT_EQ(srv_->AddSink(&sinks[1]), basicsrv_success);
    ASSERT_EQ(srv_->AddSink(&sinks[3]), basicsrv_success);

    // Sink 0 removes itself and sink 3, and adds sink 2, in its start event.
    basicsrv_status self = basicsrv_not_found, other = basicsrv_not_found;
    sinks[0].onStartup = [&] {
        self = srv_->RemoveSink(&sinks[0]);
        other = srv_->RemoveSink(&sinks[3]);
        (void)srv_->AddSink(&sinks[2]);
    };
    EXPECT_EQ(srv_->Startup(), basicsrv_success);
    EXPECT_EQ(self, basicsrv_success);
    EXPECT_EQ(other, basicsrv_success);
    EXPECT_EQ(journal_,
              (std::vector<std::string>{"0:start", "1:start", "1:complete", "2:complete"}))
        << "the new sink waits for the next firing, the removed ones are not called again";
    EXPECT_EQ(srv_->RemoveSink(&sinks[0]), basicsrv_not_found);
    EXPECT_EQ(srv_->RemoveSink(&sinks[3]), basicsrv_not_found);
}

namespace {
struct Gated {
    svctest::Gate entered, release;
    int calls = 0;
    void Call() {
        ++calls;
        entered.Open();
        release.Wait();
    }
};
}  // namespace

TEST(EventSinkWait, RemovalWaitsForACallOnAnotherThread) {
    EventSink<Gated> registry;
    Gated sinks[2];  // in address order
    for (auto& sink : sinks)
        ASSERT_EQ(registry.AddSink(&sink), basicsrv_success);
    sinks[1].release.Open();
    std::thread firing([&] { registry.Fire(&Gated::Call); });
    sinks[0].entered.Wait();

    // The waits run out while the firing sits in the first sink: success, and the items
    // stay until the firing has moved past them. The second sink is not called any more.
    EXPECT_EQ(registry.RemoveSink(&sinks[0], 20), basicsrv_success);
    EXPECT_EQ(registry.RemoveSink(&sinks[1], 20), basicsrv_success);
    EXPECT_EQ(registry.ItemCount(), 2u);
    EXPECT_EQ(registry.RemoveSink(&sinks[0], 20), basicsrv_not_found);
    // Added again while the old item is in use: two items for one sink.
    ASSERT_EQ(registry.AddSink(&sinks[0]), basicsrv_success);
    EXPECT_EQ(registry.ItemCount(), 3u);
    sinks[0].release.Open();
    firing.join();
    EXPECT_EQ(sinks[1].calls, 0);
    EXPECT_EQ(registry.ItemCount(), 1u);
    registry.Fire(&Gated::Call);
    EXPECT_EQ(sinks[0].calls, 2) << "the new item is called once";
}
TEST(EventSinkWait, ConcurrentFiringsAndChanges) {
    struct Counter {
        std::atomic<int> n{0};
        void Hit() { ++n; }
    };
    EventSink<Counter> counters;
    Counter fixed, moving;
    ASSERT_EQ(counters.AddSink(&fixed), basicsrv_success);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
                counters.Fire(&Counter::Hit);
        });
    threads.emplace_back([&] {
        for (int i = 0; i < 500; ++i) {
            (void)counters.AddSink(&moving);
            (void)counters.RemoveSink(&moving);
        }
    });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(fixed.n.load(), 4000);
    EXPECT_EQ(counters.ItemCount(), 1u);
    counters.Enable(false);
    counters.Fire(&Counter::Hit);
    EXPECT_EQ(fixed.n.load(), 4000) << "nothing fires while disabled";
}
