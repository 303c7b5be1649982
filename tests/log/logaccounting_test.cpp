#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "log/LogAccounting.h"
#include "log/sink_test_util.h"
#include "service/service_test_util.h"

using namespace TOLVEN;
using sinktest::KeepSink;
using svctest::TextWriter;

namespace {

log_status LogN(int maxCount, logger_event_level level, const char* file, uint32_t line,
                const char* format, ...) {
    va_list args;
    va_start(args, format);
    const log_status st =
        LogProcessEventEx(maxCount, level, file, line, "Test::LogN", format, args, 0);
    va_end(args);
    return st;
}

std::string ShowLogn() {
    TextWriter writer;
    EXPECT_EQ(LogNShowDetails(&writer), 0);
    return writer.Take();
}

class LogOccurrences : public ::testing::Test {
  protected:
    void SetUp() override { LogNReset(); }
    void TearDown() override { LogNReset(); }
};

}  // namespace

TEST_F(LogOccurrences, ASiteLogsItsLimitPlusOneTimes) {
    KeepSink sink(LOGGER_NORMAL);
    EXPECT_EQ(ShowLogn(), "No Logn details found!\n");
    std::vector<log_status> results;
    for (int i = 0; i < 5; ++i)
        results.push_back(LogN(2, LOGGER_WARN, "alpha", 10, "call %d", i));
    EXPECT_EQ(results, std::vector<log_status>({LOG_SUCCESS, LOG_SUCCESS, LOG_SUCCESS,
                                                LOG_COUNT_EXCEEDED, LOG_COUNT_EXCEEDED}));
    // A limit of 0 lets the first call through; a copy of a file name is the same site.
    char copy[] = "beta";
    EXPECT_EQ(LogN(0, LOGGER_WARN, "beta", 10, "zero"), LOG_SUCCESS);
    EXPECT_EQ(LogN(0, LOGGER_WARN, copy, 10, "zero again"), LOG_COUNT_EXCEEDED);
    // Nobody listens to TRACE, yet the calls use up the allowance.
    EXPECT_EQ(LogN(1, LOGGER_TRACE, "alpha", 3, "unheard"), LOG_SUCCESS);
    EXPECT_EQ(LogN(1, LOGGER_TRACE, "alpha", 3, "unheard"), LOG_SUCCESS);
    EXPECT_EQ(LogN(1, LOGGER_TRACE, "alpha", 3, "unheard"), LOG_COUNT_EXCEEDED);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(sink.Texts(), std::vector<std::string>({"call 0", "call 1", "call 2", "zero"}));

    // Ordered by line, then by file.
    EXPECT_EQ(ShowLogn(),
              "Line=3 File=alpha Count=1 MaxCount=1\n"
              "Line=10 File=alpha Count=2 MaxCount=2\n"
              "Line=10 File=beta Count=0 MaxCount=0\n"
              "3 Logn items found\n");
}

TEST_F(LogOccurrences, ACountedCallMayRaiseTheLimitAndAResetStartsAnew) {
    KeepSink sink;
    EXPECT_EQ(LogN(1, LOGGER_WARN, "gamma", 7, "a"), LOG_SUCCESS);
    EXPECT_EQ(LogN(3, LOGGER_WARN, "gamma", 7, "b"), LOG_SUCCESS);  // counted: 1 of 3
    EXPECT_EQ(LogN(3, LOGGER_WARN, "gamma", 7, "c"), LOG_SUCCESS);
    EXPECT_EQ(LogN(3, LOGGER_WARN, "gamma", 7, "d"), LOG_SUCCESS);
    EXPECT_EQ(LogN(9, LOGGER_WARN, "gamma", 7, "e"), LOG_COUNT_EXCEEDED) << "used up: stays";
    LogNReset();
    EXPECT_EQ(ShowLogn(), "No Logn details found!\n");
    EXPECT_EQ(LogN(0, LOGGER_WARN, "gamma", 7, "again"), LOG_SUCCESS);
    EXPECT_EQ(LogN(5, LOGGER_WARN, nullptr, 7, "no file"), LOG_BAD_ARGUMENT);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(sink.Texts(), std::vector<std::string>({"a", "b", "c", "d", "again"}));
}
