#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log/LogApiInternal.h"
#include "log/logfile_test_util.h"
#include "log/sink_test_util.h"
#include "tolven/logsinks.h"

using namespace TOLVEN;
using sinktest::KeepSink;
using sinktest::Log;

namespace {

// The lines of captured output. Every line ends in CR LF; on Windows the capture is read
// back in text mode, which turns CR LF into LF.
std::vector<std::string> SplitLines(const std::string& text) {
    const bool crlf = text.find('\r') != std::string::npos;
    const std::string end = crlf ? "\r\n" : "\n";
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t stop; (stop = text.find(end, at)) != std::string::npos; at = stop + end.size())
        lines.push_back(text.substr(at, stop - at));
    EXPECT_EQ(at, text.size()) << "every line ends in CR LF";
    return lines;
}

const char* const kStamp = R"(\(\d\d:\d\d:\d\d\.\d{5}\) )";

// "LogThread" runs for the whole binary, so that the line it logs about its own settings as
// it starts comes before any sink of a test is listening.
struct RunningLogThread : ::testing::Environment {
    void SetUp() override { ASSERT_EQ(LogInitApi(), LOG_SUCCESS); }
    void TearDown() override { LogTermApi(); }
};
[[maybe_unused]] ::testing::Environment* const g_logThread =
    ::testing::AddGlobalTestEnvironment(new RunningLogThread);

}  // namespace

TEST(StandardLogSink, LevelSetBeforeRegistrationHoldsAndRegistrationIsOnce) {
    KeepSink sink;
    ASSERT_TRUE(sink.SinkEvents(false));
    sink.SetLoggingLevel(LOGGER_WARN);  // unregistered: takes effect below
    ASSERT_TRUE(sink.SinkEvents(true));
    EXPECT_FALSE(sink.SinkEvents(true));
    logger_event_level level{};
    ASSERT_EQ(GetLoggingLevel(&level, sink.CallbackId()), LOG_SUCCESS);
    EXPECT_EQ(level, LOGGER_WARN);
    EXPECT_EQ(sink.GetLoggingLevel(), LOGGER_WARN);
    ASSERT_EQ(Log(LOGGER_NORMAL, "dropped"), LOG_SUCCESS);
    ASSERT_EQ(Log(LOGGER_WARN, "kept"), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(sink.Texts(), std::vector<std::string>({"kept"}));
    EXPECT_TRUE(sink.SinkEvents(false));
    EXPECT_FALSE(sink.SinkEvents(false));
    EXPECT_EQ(sink.CallbackId(), 0u);
}

// Standard output of a test is no terminal: the lines carry no colour sequences.
TEST(ConsoleSinks, ConsoleWritesStampedLinesAndTheDebuggerSinkNothing) {
    EXPECT_FALSE(WriteConsoleLine(nullptr, CONSOLE_COLOR_RED));
    testing::internal::CaptureStdout();
    {
        ConsoleLogger console(true);
        OdsLogger ods;
        EXPECT_TRUE(ods.Init());
        ASSERT_EQ(Log(LOGGER_NORMAL, "plain %d", 1), LOG_SUCCESS);
        ASSERT_EQ(Log(LOGGER_ERROR, "broken"), LOG_SUCCESS);
        ASSERT_TRUE(LogFlush());
        EXPECT_TRUE(WriteConsoleLine("raw", CONSOLE_COLOR_GREEN));
    }
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(out.substr(out.size() - 3), "raw");
    const std::vector<std::string> lines = SplitLines(out.substr(0, out.size() - 3));
    ASSERT_EQ(lines.size(), 2u) << out;
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(std::string(kStamp) + "plain 1")));
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(std::string(kStamp) + "broken")))
        << "the plain console names no level";
}

TEST(ConsoleSinks, BufferedConsoleHoldsTheLastThousandLines) {
    BufferedConsoleLogger sink;
    ASSERT_TRUE(sink.Init());
    sink.FlushHeld();  // not holding: nothing to do
    sink.StartHolding();
    testing::internal::CaptureStdout();
    for (int i = 0; i < 1499; ++i)
        ASSERT_EQ(Log(LOGGER_NORMAL, "line %d", i), LOG_SUCCESS);
    ASSERT_EQ(Log(LOGGER_WARN, "line %d", 1499), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "held lines stay back";

    testing::internal::CaptureStdout();
    sink.FlushHeld();
    ASSERT_EQ(Log(LOGGER_ERROR, "after"), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    sink.Stop();
    const std::string out = testing::internal::GetCapturedStdout();
    const std::vector<std::string> lines = SplitLines(out);
    ASSERT_EQ(lines.size(), 1001u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(std::string(kStamp) + "line 500")));
    EXPECT_TRUE(std::regex_match(lines[999], std::regex(std::string(kStamp) + "WARN: line 1499")));
    EXPECT_TRUE(std::regex_match(lines[1000], std::regex(std::string(kStamp) + "ERROR: after")))
        << "after the flush lines go straight out";

    // Stop drops what is held.
    ASSERT_TRUE(sink.Init());
    sink.StartHolding();
    ASSERT_EQ(Log(LOGGER_NORMAL, "lost"), LOG_SUCCESS);
    testing::internal::CaptureStdout();
    sink.Stop();
    sink.FlushHeld();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// A sink stuck in its callback costs producers nothing while the ring has room.
TEST(LogSinks, ASlowSinkHoldsNoProducer) {
    struct Stuck : KeepSink {
        std::atomic<bool> entered{false}, open{false};
        void OnItemLogged(_LOGGER_CB_DATA* const data) override {
            entered = true;
            while (!open)
                std::this_thread::yield();
            KeepSink::OnItemLogged(data);
        }
    } sink;
    const uint64_t blockedBefore = detail::LogBlockedWriteCount();
    ASSERT_EQ(Log(LOGGER_WARN, "first"), LOG_SUCCESS);
    while (!sink.entered)
        std::this_thread::yield();
    std::vector<std::thread> producers;
    for (int p = 0; p < 2; ++p)
        producers.emplace_back([p] {
            for (int i = 0; i < 2000; ++i)
                (void)Log(LOGGER_WARN, "producer %d message %d", p, i);
        });
    for (std::thread& t : producers)
        t.join();  // returns while the sink is still stuck
    EXPECT_EQ(detail::LogBlockedWriteCount(), blockedBefore);
    sink.open = true;
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(sink.Texts().size(), 4001u);
}

TEST(LogSinks, DatedFileSinkWritesPrefixedLinesAtItsLevel) {
    tolven_test::ScratchDir dir;
    DatedFileLogger sink;
    sink.SetLoggingLevel(LOGGER_WARN);
    EXPECT_FALSE(sink.Init("", dir.str().c_str(), nullptr, 0, false, nullptr));
    ASSERT_TRUE(sink.Init("sink", dir.str().c_str(), nullptr, 0, false, nullptr));
    EXPECT_EQ(sink.GetLoggingLevel(), LOGGER_WARN);
    ASSERT_EQ(Log(LOGGER_NORMAL, "below"), LOG_SUCCESS);
    ASSERT_EQ(Log(LOGGER_WARN, "careful %d", 1), LOG_SUCCESS);
    ASSERT_EQ(Log(LOGGER_ERROR, "broken"), LOG_SUCCESS);
    sink.SetLoggingLevel(LOGGER_TRACE);
    ASSERT_EQ(Log(LOGGER_TRACE, "detail"), LOG_SUCCESS);
    char path[260];
    ASSERT_TRUE(sink.GetLogFile().GetFileName(path, sizeof path));
    sink.Term();  // delivers, then waits for the disk
    std::vector<std::string> lines = tolven_test::CrlfLines(tolven_test::Slurp(path));
    std::erase_if(lines, sinktest::IsThreadStartText);  // the writer thread's own start line
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(std::string(kStamp) + "WARN: careful 1")));
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(std::string(kStamp) + "ERROR: broken")));
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(std::string(kStamp) + "detail")));
}
