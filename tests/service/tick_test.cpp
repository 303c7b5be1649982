// The service's dated log file and its maintenance tick.
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "log/logfile_test_util.h"
#include "service/BasicSrvImpl.h"
#include "service_test_util.h"

using namespace TOLVEN;

namespace {

// Counts maintenance ticks and lets a test wait for the next few.
class TickCounter : public BasicSrvEvents {
  public:
    void OnBasicSrvDoMaintenance() override {
        std::function<void()> action;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++ticks_;
            action = onTick;
        }
        cond_.notify_all();
        if (action) action();
    }
    void OnBasicSrvShutdown() override {
        std::lock_guard<std::mutex> guard(mutex_);
        stopped_ = true;
        cond_.notify_all();
    }
    int Ticks() {
        std::lock_guard<std::mutex> guard(mutex_);
        return ticks_;
    }
    void WaitForTicks(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] { return ticks_ >= count; });
    }
    void WaitForStop() {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] { return stopped_; });
    }
    std::function<void()> onTick;

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    int ticks_ = 0;
    bool stopped_ = false;
};

// Services started here tick every few milliseconds instead of every ten seconds.
class ServiceTick : public ::testing::Test {
  protected:
    void SetUp() override { BasicSrvImpl::SetMaintenanceIntervalForTest(2); }
    void TearDown() override { BasicSrvImpl::SetMaintenanceIntervalForTest(0); }
    std::unique_ptr<BasicSrv> Make(bool noFileLog) {
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "ticker";
        info.logFileDirectory = dirText_.c_str();
        info.noFileLog = noFileLog;
        return std::make_unique<BasicSrv>(info);
    }
    tolven_test::ScratchDir dir_;
    const std::string dirText_ = dir_.str();
    TickCounter sink_;
};

}  // namespace

TEST_F(ServiceTick, TicksOnlyWhileRunningAndWritesTheDatedLog) {
    auto srv = Make(false);
    EXPECT_EQ(srv->GetFileLoggingLevel(), LOGGER_NORMAL);
    ASSERT_EQ(srv->AddSink(&sink_), basicsrv_success);
    EXPECT_EQ(sink_.Ticks(), 0) << "no tick before Startup";
    ASSERT_EQ(srv->Startup(), basicsrv_success);
    sink_.WaitForTicks(3);
    ASSERT_EQ(srv->Shutdown(), basicsrv_success);
    const int ticks = sink_.Ticks();
    // A second run ticks again; the callback survived the stop.
    ASSERT_EQ(srv->Startup(), basicsrv_success);
    sink_.WaitForTicks(ticks + 2);
    ASSERT_EQ(srv->Shutdown(), basicsrv_success);
    const int after = sink_.Ticks();

    srv->SetFileLoggingLevel(LOGGER_WARN);
    EXPECT_EQ(srv->GetFileLoggingLevel(), LOGGER_WARN);
    TOLVEN_LOG(LOGGER_NORMAL, "tick_test", "test", "below the file's level");
    TOLVEN_LOG(LOGGER_ERROR, "tick_test", "test", "at the file's level");
    srv.reset();
    EXPECT_EQ(sink_.Ticks(), after) << "no tick after Shutdown";

    // One dated file, "ticker<date>.txt", with the service's name line and the error only.
    std::string text;
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path)) {
        ++files;
        EXPECT_EQ(entry.path().filename().string().rfind("ticker", 0), 0u);
        text = tolven_test::Slurp(entry.path().string());
    }
    EXPECT_EQ(files, 1);
    EXPECT_NE(text.find(") ticker\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("at the file's level"), std::string::npos);
    EXPECT_EQ(text.find("below the file's level"), std::string::npos);
}

TEST_F(ServiceTick, WithoutAFileTheTickRunsAndAStopFromTheTickDoesNotHang) {
    auto srv = Make(true);
    EXPECT_EQ(srv->GetFileLoggingLevel(), LOGGER_NORMAL);
    ASSERT_EQ(srv->AddSink(&sink_), basicsrv_success);
    // The tick's own thread stops the service: it cannot wait for itself.
    sink_.onTick = [&] { (void)srv->Shutdown(); };
    ASSERT_EQ(srv->Startup(), basicsrv_success);
    sink_.WaitForStop();
    EXPECT_EQ(sink_.Ticks(), 1);
    // A new run on another thread joins the old timer thread and ticks again.
    sink_.onTick = nullptr;
    ASSERT_EQ(srv->Startup(), basicsrv_success);
    sink_.WaitForTicks(3);
    srv.reset();
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path)) << "noFileLog writes no file";
}
