// Weekly timetables, run-time parsing and run-day lists.
#include <gtest/gtest.h>

#include <vector>

#include "service_test_util.h"
#include "tolven/configreader.h"
#include "tolven/schedulehandler.h"

using namespace TOLVEN;

namespace {

// The day mask as a string of 0 and 1, Sunday first.
std::string Days(const _COMMAND_RUN_TIMES& t) {
    std::string out;
    for (int day : t.runDays)
        out += day != 0 ? '1' : '0';
    return out;
}

std::string Range(const _COMMAND_RUN_TIMES& t) {
    char text[32];
    std::snprintf(text, sizeof(text), "%02u%02u-%02u%02u", t.runHour, t.runMinute, t.finishHour,
                  t.finishMinute);
    return text;
}

}  // namespace

TEST(ScheduleHandler, DayParsingSplitsAtMidnightAndRefusesTouchingRanges) {
    svctest::LogCollector log(LOGGER_ERROR);
    ScheduleHandler week;
    EXPECT_EQ(week.ParseDayScheduleTimes("", 1), 1);
    EXPECT_TRUE(week.Times().empty());
    EXPECT_EQ(week.ParseDayScheduleTimes("0900", 1), 0) << "no '-' part";
    EXPECT_EQ(week.ParseDayScheduleTimes("0900-1700; 1800-2000 ", 1), 1);
    ASSERT_EQ(week.Times().size(), 2u);
    EXPECT_EQ(week.Times()[1].start, 1800u);
    EXPECT_EQ(week.Times()[1].end, 2000u);

    EXPECT_EQ(week.ParseDayScheduleTimes("1700-1800", 1), 0) << "the ends touch";
    const auto lines = log.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text, "Time (1700-1800) on day (1) conflicts with an existing time!");

    ScheduleHandler friday;
    EXPECT_EQ(friday.ParseDayScheduleTimes("2200-0200", 5), 1);
    ASSERT_EQ(friday.Times().size(), 2u);
    const _RUN_CONNECT_TIMES& a = friday.Times()[0];
    const _RUN_CONNECT_TIMES& b = friday.Times()[1];
    EXPECT_EQ(a.day, 5u);
    EXPECT_EQ(a.start, 2200u);
    EXPECT_EQ(a.end, 2359u);
    EXPECT_TRUE(a.spansMidnight);
    EXPECT_EQ(b.day, 6u);
    EXPECT_EQ(b.start, 0u);
    EXPECT_EQ(b.end, 200u);
    EXPECT_FALSE(b.spansMidnight);
    ScheduleHandler saturday;
    EXPECT_EQ(saturday.ParseDayScheduleTimes("2300-0100", 6), 1);
    EXPECT_EQ(saturday.Times()[1].day, 0u) << "Saturday wraps to Sunday";
}

TEST(ScheduleHandler, TheFourKindsOfRunTimes) {
    // Monday to Friday open 0900-1700; Monday also 1800-2000; Friday runs past midnight.
    ScheduleHandler week;
    for (unsigned int day = 1; day <= 4; ++day)
        ASSERT_EQ(week.ParseDayScheduleTimes("0900-1700", day), 1);
    ASSERT_EQ(week.ParseDayScheduleTimes("1800-2000", 1), 1);
    ASSERT_EQ(week.ParseDayScheduleTimes("0900-1700;2200-0200", 5), 1);

    std::vector<_COMMAND_RUN_TIMES> connect;
    ScheduleHandler fresh = week;
    EXPECT_EQ(fresh.GetConnectMaintCommandTimes(&connect), 1);
    ASSERT_GE(connect.size(), 1u);
    EXPECT_EQ(Range(connect[0]), "0900-1700");
    EXPECT_EQ(Days(connect[0]), "0111110") << "one run time for five days";

    std::vector<_COMMAND_RUN_TIMES> sod, eod, disconnect;
    connect.clear();
    EXPECT_EQ(week.GetSODMaintCommandTimes(&sod), 1);
    EXPECT_EQ(week.GetConnectMaintCommandTimes(&connect), 1);
    EXPECT_EQ(week.GetEODMaintCommandTimes(&eod), 1);
    EXPECT_EQ(week.GetDisconnectMaintCommandTimes(&disconnect), 1);

    ASSERT_EQ(sod.size(), 3u);
    EXPECT_EQ(Range(sod[0]) + Days(sod[0]), "0900-17000111110");
    EXPECT_EQ(Range(sod[1]) + Days(sod[1]), "2200-23590000010") << "a first half is a start";
    EXPECT_EQ(Range(sod[2]) + Days(sod[2]), "0000-02000000001");
    ASSERT_EQ(connect.size(), 1u) << "the first ranges went to the start of day";
    EXPECT_EQ(Range(connect[0]) + Days(connect[0]), "1800-20000100000");
    // Ends: Monday at 2000, Tuesday to Friday at 1700, Saturday at 0200; the half before
    // midnight is neither an end of day nor a disconnect.
    ASSERT_EQ(eod.size(), 3u);
    EXPECT_EQ(Range(eod[0]) + Days(eod[0]), "1700-17000011110");
    EXPECT_EQ(Range(eod[1]) + Days(eod[1]), "2000-20000100000");
    EXPECT_EQ(Range(eod[2]) + Days(eod[2]), "0200-02000000001");
    ASSERT_EQ(disconnect.size(), 1u);
    EXPECT_EQ(Range(disconnect[0]) + Days(disconnect[0]), "1700-17000100000");
}

TEST(ScheduleHandler, StaticParsingAndConfigurationItems) {
    svctest::LogCollector log(LOGGER_ERROR);
    _COMMAND_RUN_TIMES a, b;
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("1700-0900", "Mon", a, b), 0);
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("0900-1200;1300-1730", "Th", a, b), 2);
    EXPECT_EQ(Range(a) + Days(a), "0900-12000000100");
    EXPECT_EQ(Range(b) + Days(b), "1300-17300000100");
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("0900-1200;1200-1300", "Th", a, b), 0);
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("0900-1260", "Th", a, b), 0);
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("0900-1200;1300", "Th", a, b), 0);
    EXPECT_EQ(ScheduleHandler::ParseDayScheduleTimes("0900-1200", "Tues", a, b), 0);
    EXPECT_EQ(log.Lines().back().text, "Invalid day 'Tues'.");

    EXPECT_EQ(ScheduleHandler::GetDayIndex("tu"), 2);
    EXPECT_EQ(ScheduleHandler::GetDayIndex("THUR"), 4);
    EXPECT_EQ(ScheduleHandler::GetDayIndex("R"), -1);
    int days[7];
    ParseRunDays(days, "M,W|F SU tues bogus");
    EXPECT_EQ(std::vector<int>(days, days + 7), (std::vector<int>{1, 1, 1, 1, 0, 1, 0}));
    ParseRunDays(days, "r U");
    EXPECT_EQ(std::vector<int>(days, days + 7), (std::vector<int>{1, 0, 0, 0, 1, 0, 0}));

    MemoryConfigReader* config = MemoryConfigReader::CreateObject();
    ASSERT_EQ(config->WriteString("Times", "Mon", "0900-1700;1800-1900"), configreader_success);
    ASSERT_EQ(config->WriteString("Times", "Bad", "x"), configreader_success);
    std::vector<_COMMAND_RUN_TIMES> first, second;
    EXPECT_TRUE(ScheduleHandler::ProcessTimes("M", "Times", "Mon", config, first, second, -1));
    EXPECT_EQ(first.size(), 1u);
    EXPECT_EQ(second.size(), 1u);
    EXPECT_FALSE(ScheduleHandler::ProcessTimes("M", "Times", "Mon", config, first, second, 1));
    EXPECT_EQ(log.Lines().back().text,
              "Expected 1 number of times from '0900-1700;1800-1900' but received 2. Section: "
              "'Times' Item: 'Mon'");
    EXPECT_TRUE(ScheduleHandler::ProcessTimes("M", "Times", "Bad", config, first, second, 0));
    EXPECT_FALSE(ScheduleHandler::ProcessTimes("M", "Times", "Bad", config, first, second, -1));
    EXPECT_EQ(log.Lines().back().text,
              "Expected at least 1 of the times to be valid from 'x' but received 0. Section: "
              "'Times' Item: 'Bad'");
    EXPECT_FALSE(ScheduleHandler::ProcessTimes("M", "Times", "None", config, first, second, 0));
    EXPECT_EQ(log.Lines().back().text, "Missing config item 'None' from section 'Times'.");
    EXPECT_EQ(first.size(), 1u);
    config->Release();
}
