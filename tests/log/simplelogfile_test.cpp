#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "blob/civil_time.h"
#include "log/LogFileInternal.h"
#include "log/logfile_test_util.h"
#include "log/sink_test_util.h"
#include "platform/directory.h"
#include "platform/file.h"
#include "platform/process.h"
#include "tolven/logapi.h"
#include "tolven/simplelogfile.h"

using namespace TOLVEN;
using tolven_test::CrlfLines;
using tolven_test::ScratchDir;
using tolven_test::Slurp;
namespace fs = std::filesystem;

namespace {

const char kSep = platform::PathSeparator();

// The time every log file of a test sees; set by the test's own thread only.
_blob_timestamp g_now{};
void FixedClock(_blob_timestamp* now) {
    *now = g_now;
}
void SetNow(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
            uint16_t second, uint32_t nanoseconds) {
    g_now = {year, month, day, hour, minute, second, nanoseconds};
}

class LogFile : public ::testing::Test {
  protected:
    void SetUp() override {
        SetNow(2024, 1, 15, 13, 5, 9, 123456789);
        detail::SetLogFileClockForTest(&FixedClock);
    }
    void TearDown() override { detail::SetLogFileClockForTest(nullptr); }
    std::string Path(const std::string& name) const { return dir_ / name; }
    void Touch(const std::string& name) const { std::ofstream(Path(name)) << "x"; }
    bool Exists(const std::string& name) const { return fs::exists(Path(name)); }

    ScratchDir dir_;
};

// Keeps the messages of the log door.
struct Messages {
    std::mutex lock;
    std::vector<_LOGGER_CB_DATA> seen;
    std::vector<std::string> texts;
    uint32_t id = 0;
    explicit Messages(logger_event_level level) {
        EXPECT_EQ(LogInitApi(), LOG_SUCCESS);
        EXPECT_EQ(LogAddCallbackFunc(&Messages::Take, this, &id, level), LOG_SUCCESS);
    }
    ~Messages() {
        (void)LogRemoveCallback(id);
        LogTermApi();
    }
    static void Take(_LOGGER_CB_DATA* const data, void* context) {
        auto* self = static_cast<Messages*>(context);
        if (sinktest::IsThreadStartLine(data)) return;
        std::lock_guard<std::mutex> guard(self->lock);
        self->seen.push_back(*data);
        self->texts.emplace_back(data->text);
    }
    // Every message so far, once delivered.
    std::vector<std::string> Texts() {
        EXPECT_TRUE(LogFlush());
        std::lock_guard<std::mutex> guard(lock);
        return texts;
    }
};

TEST(LogFileName, DatedAndUndatedNames) {
    const _SYSTEMTIME day{2024, 1, 1, 15, 0, 0, 0, 0};
    char out[260];
    int size = sizeof(out);
    ASSERT_TRUE(CreateFileName("logs", "trades", "txt", out, &size, &day, true));
    const std::string dated = std::string("logs") + kSep + "trades2024_01_15.txt";
    EXPECT_EQ(out, dated);
    EXPECT_EQ(size, static_cast<int>(dated.size()));

    // Trailing separators and blanks of the directory and leading dots and blanks of the
    // extension go; no extension, no dot.
    size = sizeof(out);
    ASSERT_TRUE(CreateFileName("logs\\/ ", "trades", " ..log", out, &size, &day, false));
    EXPECT_EQ(out, std::string("logs") + kSep + "trades.log");
    size = sizeof(out);
    ASSERT_TRUE(CreateFileName("logs", "trades", nullptr, out, &size, &day, false));
    EXPECT_EQ(out, std::string("logs") + kSep + "trades");

    // No directory: the current one.
    std::string cwd;
    ASSERT_TRUE(platform::CurrentDirectory(cwd));
    size = sizeof(out);
    ASSERT_TRUE(CreateFileName(nullptr, "t", "txt", out, &size, &day, false));
    EXPECT_EQ(out, cwd + kSep + "t.txt");

    // A path that does not fit, or a missing argument.
    char small[12];
    size = sizeof(small);
    EXPECT_FALSE(CreateFileName("logs", "trades", "txt", small, &size, &day, true));
    EXPECT_EQ(size, -1);
    size = sizeof(small);
    EXPECT_FALSE(CreateFileName("logs", "tra", "txt", small, &size, &day, false));  // extension
    EXPECT_EQ(size, -1);
    size = sizeof(out);
    EXPECT_FALSE(CreateFileName("logs", nullptr, "txt", out, &size, &day, true));
    EXPECT_FALSE(CreateFileName("logs", "t", "txt", nullptr, &size, &day, true));
    EXPECT_FALSE(CreateFileName("logs", "t", "txt", out, nullptr, &day, true));
}

TEST_F(LogFile, TodaysDateWhenNoneIsGiven) {
    char out[260];
    int size = sizeof(out);
    ASSERT_TRUE(CreateFileName("d", "x", "txt", out, &size, nullptr, true));
    EXPECT_EQ(out, std::string("d") + kSep + "x2024_01_15.txt");
}

TEST_F(LogFile, LinesAreStampedCutToTheirRoomAndEndInCrlf) {
    simplelogfile file(true);
    ASSERT_TRUE(file.Init("trades", dir_.str().c_str(), nullptr, 0, true, nullptr));
    const std::string path = Path("trades2024_01_15.txt");
    char name[260];
    ASSERT_TRUE(file.GetFileName(name, sizeof(name)));
    EXPECT_EQ(name, path);
    char cut[8];
    ASSERT_TRUE(file.GetFileName(cut, sizeof(cut)));
    EXPECT_EQ(std::string(cut), path.substr(0, 7));

    const std::string stamp = "(13:05:09.12345) ";  // ten microseconds: five digits
    EXPECT_TRUE(file.Log("hello"));
    EXPECT_TRUE(file.LogEx("PFX", "abcdef", 2));
    EXPECT_TRUE(file.LogV("%d-%s", 5, "five"));
    // Stamp, prefix and text fill the room of 4046 bytes; the line still ends in CRLF.
    const std::string longText(5000, 't');
    EXPECT_TRUE(file.LogEx("P", longText.c_str(), -1));
    // A prefix must fit whole with its blank, or the line is dropped.
    const std::string exact(4046 - stamp.size() - 1, 'p');
    EXPECT_TRUE(file.LogEx(exact.c_str(), "gone", -1));
    const std::string tooLong(4046 - stamp.size(), 'q');
    EXPECT_FALSE(file.LogEx(tooLong.c_str(), "never", -1));
    EXPECT_FALSE(file.Log(nullptr));
    ASSERT_TRUE(file.Flush());

    const std::string text = Slurp(path);
    const std::vector<std::string> lines = CrlfLines(text);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], stamp + "hello");
    EXPECT_EQ(lines[1], stamp + "PFX ab");
    EXPECT_EQ(lines[2], stamp + "5-five");
    EXPECT_EQ(lines[3].size(), 4046u);
    EXPECT_EQ(lines[3], stamp + "P " + std::string(4046 - stamp.size() - 2, 't'));
    EXPECT_EQ(lines[4], stamp + exact + " ");
    EXPECT_EQ(text.size(), file.GetFile().GetWrittenSize());
    EXPECT_EQ(text.find('q'), std::string::npos);

    // Without stamps the line is the text alone.
    simplelogfile plain(false);
    ASSERT_TRUE(plain.Init("plain", dir_.str().c_str(), nullptr, 0, false, nullptr));
    EXPECT_TRUE(plain.LogEx("A", "b", -1));
    plain.Term();
    EXPECT_EQ(Slurp(Path("plain.txt")), "A b\r\n");
}

TEST_F(LogFile, ClosedFileRefusesEverything) {
    simplelogfile never(true);
    char name[260] = "x";
    EXPECT_FALSE(never.Log("nothing"));
    EXPECT_FALSE(never.Flush());
    EXPECT_FALSE(never.GetFileName(name, sizeof(name)));
    EXPECT_STREQ(name, "");
    EXPECT_FALSE(never.Init(nullptr, dir_.str().c_str(), nullptr, 0, true, nullptr));
    EXPECT_FALSE(never.Init("", dir_.str().c_str(), nullptr, 0, true, nullptr));
    // A directory that does not exist.
    EXPECT_FALSE(never.Init("x", Path("missing").c_str(), nullptr, 0, true, nullptr));

    simplelogfile file(true);
    ASSERT_TRUE(file.Init("t", dir_.str().c_str(), nullptr, 0, false, nullptr));
    EXPECT_TRUE(file.Log("one"));
    file.Term();
    EXPECT_FALSE(file.Log("two"));
    EXPECT_FALSE(file.GetFile().IsOpen());
    EXPECT_EQ(CrlfLines(Slurp(Path("t.txt"))).size(), 1u);
    EXPECT_FALSE(fs::exists(Path("t2024_01_15.txt")));
}

TEST_F(LogFile, SecondWriterOfAFileGetsANameWithItsProcessId) {
    simplelogfile first(false);
    simplelogfile second(false);
    ASSERT_TRUE(first.Init("trades", dir_.str().c_str(), nullptr, 0, false, nullptr));
    ASSERT_TRUE(second.Init("trades", dir_.str().c_str(), nullptr, 0, false, nullptr));
    // The second name is dated even though the first is not.
    const std::string own =
        "trades2024_01_15." + std::to_string(platform::CurrentProcessId()) + ".txt";
    char name[260];
    ASSERT_TRUE(second.GetFileName(name, sizeof(name)));
    EXPECT_EQ(name, Path(own));
    EXPECT_TRUE(first.Log("first"));
    EXPECT_TRUE(second.Log("second"));
    first.Term();
    second.Term();
    EXPECT_EQ(Slurp(Path("trades.txt")), "first\r\n");
    EXPECT_EQ(Slurp(Path(own)), "second\r\n");
}

TEST_F(LogFile, FirstLineOfANewDayOpensItsFileBehindTheRollLine) {
    simplelogfile file(true);
    ASSERT_TRUE(file.Init("roll", dir_.str().c_str(), "next day", 0, true, nullptr));
    SetNow(2024, 1, 15, 23, 59, 59, 999000000);
    EXPECT_TRUE(file.Log("late"));
    ASSERT_TRUE(file.Flush());
    // Nothing moves until a line comes.
    SetNow(2024, 1, 16, 0, 0, 1, 0);
    EXPECT_FALSE(Exists("roll2024_01_16.txt"));
    EXPECT_TRUE(file.Log("early"));
    char name[260];
    ASSERT_TRUE(file.GetFileName(name, sizeof(name)));
    EXPECT_EQ(name, Path("roll2024_01_16.txt"));
    // A month and a year change the file as a day does.
    SetNow(2025, 1, 16, 0, 0, 2, 0);
    EXPECT_TRUE(file.Log("a year on"));
    file.Term();

    EXPECT_EQ(Slurp(Path("roll2024_01_15.txt")), "(23:59:59.99900) late\r\n");
    EXPECT_EQ(Slurp(Path("roll2024_01_16.txt")),
              "(00:00:01.00000) LOGROLL: next day\r\n(00:00:01.00000) early\r\n");
    EXPECT_EQ(CrlfLines(Slurp(Path("roll2025_01_16.txt"))).size(), 2u);

    // Without a roll text the new file starts with the line itself.
    simplelogfile quiet(false);
    ASSERT_TRUE(quiet.Init("quiet", dir_.str().c_str(), nullptr, 0, true, nullptr));
    SetNow(2025, 1, 17, 0, 0, 0, 0);
    EXPECT_TRUE(quiet.Log("only"));
    quiet.Term();
    EXPECT_EQ(Slurp(Path("quiet2025_01_17.txt")), "only\r\n");
}

TEST_F(LogFile, ArchiveDirectoryIsMadeOrRefusedWithItsMessage) {
    Messages messages(LOGGER_TRACE);
    simplelogfile file(true);
    const std::string archive = Path("archive");
    ASSERT_TRUE(file.Init("a", dir_.str().c_str(), nullptr, 3, true, archive.c_str()));
    EXPECT_TRUE(fs::is_directory(archive));
    const std::string nested = Path("no") + kSep + "such";
    EXPECT_FALSE(file.Init("a", dir_.str().c_str(), nullptr, 3, true, nested.c_str()));
    EXPECT_FALSE(file.GetFile().IsOpen());
    EXPECT_EQ(messages.Texts(),
              (std::vector<std::string>{"Log Archive Directory is set to " + archive,
                                        "ERROR log archive directory " + nested + " is invalid"}));
    std::lock_guard<std::mutex> guard(messages.lock);
    ASSERT_EQ(messages.seen.size(), 2u);
    EXPECT_EQ(messages.seen[0].level, LOGGER_NORMAL);
    EXPECT_EQ(messages.seen[1].level, LOGGER_ERROR);
    for (const _LOGGER_CB_DATA& seen : messages.seen) {
        EXPECT_STREQ(seen.file, "simplelogfile");
        EXPECT_STREQ(seen.function, "TOLVEN::simplelogfile::Init");
    }
}

// The old files NukeFiles sees, and what a callback is told of them.
struct Nuked {
    std::vector<std::string> paths;
    std::vector<_SYSTEMTIME> dates;
    int answerFalseAt = -1;
    static bool Take(NUKE_INFO* info) {
        auto* self = static_cast<Nuked*>(info->context);
        if (static_cast<int>(self->paths.size()) == self->answerFalseAt) return false;
        self->paths.emplace_back(info->path);
        self->dates.push_back(info->fileDate);
        return true;
    }
};

TEST_F(LogFile, NukeFilesClearsOnlyOldDatedFilesOfTheLog) {
    SetNow(2024, 1, 15, 10, 0, 0, 0);
    const std::vector<std::string> old = {"TRADES2024_01_14.TXT", "trades2024_01_10.txt"};
    const std::vector<std::string> kept = {
        "trades2024_01_15.txt",       // today
        "trades2024_01_20.txt",       // the future
        "trades2024_13_01.txt",       // no such month
        "trades2024-01-14.txt",       // other separators
        "trades2024_01_14.1234.txt",  // a second writer's file
        "trades2024_1_4.1.txt",       // one whose date part is short enough to pass for a date
        "trades2024_01.txt",          // a part missing
        "other2024_01_10.txt",        // another log
        "trades2024_01_10.log",       // another extension
        "trades.txt",                 // undated
    };
    for (const auto& name : old)
        Touch(name);
    for (const auto& name : kept)
        Touch(name);

    int count = -1;
    ASSERT_TRUE(NukeFiles(dir_.str().c_str(), "trades", ".txt", &count, 1, nullptr, nullptr));
    EXPECT_EQ(count, 2);
    for (const auto& name : old)
        EXPECT_FALSE(Exists(name)) << name;
    for (const auto& name : kept)
        EXPECT_TRUE(Exists(name)) << name;

    // Days 0 takes today's file as well; a callback decides instead of deleting.
    Nuked nuked;
    ASSERT_TRUE(NukeFiles(dir_.str().c_str(), "Trades", "txt", &count, 0, &Nuked::Take, &nuked));
    EXPECT_EQ(count, 1);
    ASSERT_EQ(nuked.paths.size(), 1u);
    EXPECT_EQ(nuked.paths[0], Path("trades2024_01_15.txt"));
    EXPECT_EQ(nuked.dates[0].wYear, 2024);
    EXPECT_EQ(nuked.dates[0].wMonth, 1);
    EXPECT_EQ(nuked.dates[0].wDay, 15);
    EXPECT_EQ(nuked.dates[0].wHour + nuked.dates[0].wDayOfWeek, 0);
    EXPECT_TRUE(Exists("trades2024_01_15.txt"));

    // A callback that answers false stops the walk.
    Touch("trades2024_01_01.txt");
    Nuked refusing;
    refusing.answerFalseAt = 0;
    EXPECT_FALSE(
        NukeFiles(dir_.str().c_str(), "trades", "txt", &count, 0, &Nuked::Take, &refusing));

    // Nothing to do is true with a count of 0; a missing directory or argument is false.
    ASSERT_TRUE(NukeFiles(dir_.str().c_str(), "none", "txt", &count, 0, nullptr, nullptr));
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(NukeFiles(Path("missing").c_str(), "trades", "txt", &count, 0, nullptr, nullptr));
    EXPECT_FALSE(NukeFiles(dir_.str().c_str(), nullptr, "txt", &count, 0, nullptr, nullptr));
    EXPECT_FALSE(NukeFiles(dir_.str().c_str(), "trades", nullptr, &count, 0, nullptr, nullptr));
}

TEST_F(LogFile, DebugLogFilesAreOnePerNameWhateverTheCase) {
    std::string cwd;
    ASSERT_TRUE(platform::CurrentDirectory(cwd));
    ASSERT_TRUE(platform::ChangeCurrentDirectory(dir_.str().c_str()));
    simplelogfile* upper = GetDebugPrintLogFile("DebugABC");
    simplelogfile* lower = GetDebugPrintLogFile("debugabc");
    ASSERT_TRUE(platform::ChangeCurrentDirectory(cwd.c_str()));
    ASSERT_NE(upper, nullptr);
    EXPECT_EQ(upper, lower);
    EXPECT_EQ(GetDebugPrintLogFile(nullptr), nullptr);
    EXPECT_TRUE(upper->Log("debug"));
    // Closed here so the scratch folder can go; the exit handler closes the rest.
    upper->Term();
    EXPECT_EQ(Slurp(Path("DebugABC2024_01_15.txt")), "(13:05:09.12345) debug\r\n");
}

TEST_F(LogFile, FullDiskGivesAnErrorAndOneLogLineAndWritingResumes) {
    Messages messages(LOGGER_ERROR);
    simplelogfile file(false);
    ASSERT_TRUE(file.Init("full", dir_.str().c_str(), nullptr, 0, false, nullptr));
    const asyncfile& async = file.GetFile();
    ASSERT_TRUE(file.Log("before"));
    ASSERT_TRUE(file.Flush());

    platform::SetWriteSpaceForTest(10);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(file.LogV("line %02d", i));  // 9 bytes each
    EXPECT_FALSE(file.Flush());
    // What did not reach the disk stays visible.
    EXPECT_EQ(async.GetEndPosition(), 8u + 20 * 9);
    EXPECT_EQ(async.GetWrittenSize(), 8u + 10);
    EXPECT_EQ(async.GetFailedSize(), 20u * 9 - 10);
    ASSERT_TRUE(file.Log("still full"));
    EXPECT_FALSE(file.Flush());
    EXPECT_EQ(async.GetFailedSize(), 20u * 9 - 10 + 12);

    platform::SetWriteSpaceForTest(-1);
    ASSERT_TRUE(file.Log("after"));
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(async.GetWrittenSize(), async.GetEndPosition());
    char path[260];
    ASSERT_TRUE(file.GetFileName(path, sizeof(path)));
    file.Term();

    const std::string text = Slurp(path);
    EXPECT_EQ(text.substr(0, 18), "before\r\nline 00\r\nl");
    EXPECT_EQ(text.substr(text.size() - 7), "after\r\n");
    const std::vector<std::string> errors = messages.Texts();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "Cannot write to file <" + std::string(path) +
                             "> at offset 18, error 28; later failures are counted until a "
                             "write succeeds");
}

// A clock that moves 2 h 24 min at each reading, ten readings a day, from 1 January 2024;
// each thread keeps the time it read last.
std::atomic<uint64_t> g_readings{0};
thread_local _blob_timestamp t_read{};
void SteppingClock(_blob_timestamp* now) {
    const int64_t seconds = static_cast<int64_t>(g_readings.fetch_add(1)) * 8640 + 1;
    int64_t year, month, day;
    detail::CivilFromDays(detail::DaysFromCivil(2024, 1, 1) + seconds / 86400, &year, &month, &day);
    const int64_t time = seconds % 86400;
    *now = {static_cast<uint16_t>(year),
            static_cast<uint16_t>(month),
            static_cast<uint16_t>(day),
            static_cast<uint16_t>(time / 3600),
            static_cast<uint16_t>(time / 60 % 60),
            static_cast<uint16_t>(time % 60),
            0};
    t_read = *now;
}

uint32_t DateKey(const _blob_timestamp& t) {
    return t.year * 10000u + t.month * 100u + t.day;
}

TEST(LogFileMidnight, EachLineLandsOnceInTheFileOfItsDateAcrossAThousandMidnights) {
    ScratchDir dir;
    g_readings = 0;
    detail::SetLogFileClockForTest(&SteppingClock);
    constexpr int kPerProducer = 5000;  // 10000 lines, ten a day: 1000 midnights
    std::vector<uint32_t> dates[2];
    {
        simplelogfile file(true);
        ASSERT_TRUE(file.Init("m", dir.str().c_str(), "midnight", 0, true, nullptr));
        std::vector<std::thread> producers;
        for (int p = 0; p < 2; ++p)
            producers.emplace_back([&file, &mine = dates[p], p] {
                for (int i = 0; i < kPerProducer; ++i) {
                    ASSERT_TRUE(file.LogV("p%d %05d", p, i));
                    mine.push_back(DateKey(t_read));
                }
            });
        for (std::thread& t : producers)
            t.join();
    }
    detail::SetLogFileClockForTest(nullptr);

    std::vector<std::string> names;
    ASSERT_TRUE(platform::ListDirectoryFiles(dir.str().c_str(), names));
    std::sort(names.begin(), names.end());  // "mYYYY_MM_DD.txt" sorts by date
    EXPECT_EQ(names.size(), 1001u);
    std::vector<int> next(2, 0);
    for (size_t f = 0; f < names.size(); ++f) {
        const std::string& name = names[f];
        ASSERT_EQ(name.size(), 15u) << name;
        const uint32_t date = std::stoul(name.substr(1, 4)) * 10000 +
                              std::stoul(name.substr(6, 2)) * 100 + std::stoul(name.substr(9, 2));
        std::vector<std::string> lines = CrlfLines(Slurp(dir / name));
        ASSERT_FALSE(lines.empty()) << name;
        size_t first = 0;
        if (f > 0) {
            ASSERT_EQ(lines[0].substr(17), "LOGROLL: midnight") << name;
            first = 1;
        }
        for (size_t l = first; l < lines.size(); ++l) {
            const std::string text = lines[l].substr(17);
            ASSERT_EQ(text.size(), 8u) << name << ": " << lines[l];
            const int p = text[1] - '0';
            const int i = std::stoi(text.substr(3));
            ASSERT_TRUE(p == 0 || p == 1) << lines[l];
            // In order, once each, and nothing skipped.
            ASSERT_EQ(i, next[p]) << name << ": " << lines[l];
            ++next[p];
            ASSERT_EQ(dates[p][i], date) << name << ": " << lines[l];
        }
    }
    EXPECT_EQ(next[0], kPerProducer);
    EXPECT_EQ(next[1], kPerProducer);
}

}  // namespace
