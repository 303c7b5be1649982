#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "log/LogAccounting.h"
#include "log/logfile_test_util.h"
#include "log/sink_test_util.h"
#include "service/service_test_util.h"
#include "tolven/blobtyped.h"
#include "tolven/logdb.h"

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

// Rows are read back through the table contract, as an operator's command reads them.
TEST(LogDbTable, ListsOpenFilesWithTheirFigures) {
    ASSERT_TRUE(ForceLogDbCleanup());
    LogDb& db = const_cast<LogDb&>(GetLogDb());
    EXPECT_EQ(db.Count(), 0u);
    tolven_test::ScratchDir dir;
    char path[260];
    {
        simplelogfile file(true);
        ASSERT_TRUE(file.Init("dbtest", dir.str().c_str(), nullptr, 0, false, nullptr));
        ASSERT_TRUE(file.Log("twelve bytes"));
        ASSERT_TRUE(file.Flush());
        ASSERT_TRUE(file.GetFileName(path, sizeof path));
        EXPECT_TRUE(LogAddFile(path, &file, true)) << "a listed path is not added twice";
        ASSERT_EQ(db.Count(), 1u);

        // The key is found without regard to case.
        std::string upper = path;
        for (char& c : upper)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        _BLOB_INFO *key = nullptr, *row = nullptr;
        ASSERT_EQ(CreateBlob(&key), BLOB_STATUS_SUCCESS);
        ASSERT_EQ(CreateBlob(&row), BLOB_STATUS_SUCCESS);
        ASSERT_EQ(AddStr(key, "LogFileName", upper.c_str(), upper.size()), BLOB_STATUS_SUCCESS);
        csdb_context ctx;
        ASSERT_EQ(db.FindExact(0, key, row, &ctx), CSDB_SUCCESS);
        char name[260] = {};
        uint64_t size = 0, pending = 0;
        uint32_t operations = 9, maxOperations = 0;
        EXPECT_EQ(GetByNameStr(row, "LogFileName", name, sizeof name), BLOB_STATUS_SUCCESS);
        EXPECT_STREQ(name, path);
        EXPECT_EQ(GetByNameU64(row, "FileSize", &size), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetByNameU64(row, "FileSizePending", &pending), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetByNameU32(row, "PendingOperations", &operations), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetByNameU32(row, "MaxPendingOperations", &maxOperations), BLOB_STATUS_SUCCESS);
        const uint64_t line = std::string("(00:00:00.00000) twelve bytes\r\n").size();
        EXPECT_EQ(size, line);
        EXPECT_EQ(pending, line);
        EXPECT_EQ(operations, 0u);
        EXPECT_GE(maxOperations, 1u);
        EXPECT_EQ(row->fieldCount, 5u);

        // A row without a file shows only its name.
        EXPECT_TRUE(LogAddFile(nullptr, nullptr, true));
        EXPECT_EQ(db.Count(), 2u);
        ASSERT_EQ(db.Begin(0, key, row, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(GetByNameStr(row, "LogFileName", name, sizeof name), BLOB_STATUS_SUCCESS);
        EXPECT_STREQ(name, "");
        EXPECT_EQ(row->fieldCount, 1u);
        EXPECT_TRUE(LogAddFile("", nullptr, false));
        EXPECT_FALSE(LogAddFile("never listed", nullptr, false));
        (void)ReleaseBlob(&key);
        (void)ReleaseBlob(&row);
    }
    EXPECT_EQ(db.Count(), 0u) << "a closed file leaves the table";
    ASSERT_TRUE(LogAddFile("left behind", nullptr, true));
    EXPECT_TRUE(ForceLogDbCleanup());
    EXPECT_EQ(const_cast<LogDb&>(GetLogDb()).Count(), 0u) << "rebuilt empty";
}
