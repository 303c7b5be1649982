// The built-in commands' answers, word for word.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "log/logfile_test_util.h"
#include "service_test_util.h"
#include "tolven/blobtyped.h"
#include "tolven/regcounters.h"

using namespace TOLVEN;

namespace {

class Value : public RegCounterEvents {
  public:
    explicit Value(uint64_t start) : value(start) {}
    void AddValue(const char*, const char* field, _BLOB_INFO* blob) override {
        (void)AddU64(blob, field, value.load());
    }
    void Reset() override { value = 0; }
    std::atomic<uint64_t> value;
};

// A counter whose value is text.
class TextValue : public RegCounterEvents {
  public:
    explicit TextValue(const char* text) : text_(text) {}
    void AddValue(const char*, const char* field, _BLOB_INFO* blob) override {
        (void)AddStr(blob, field, text_, 100);
    }
    void Reset() override {}

  private:
    const char* text_;
};

// Checks text against the exposition format's rules: every line a comment, a blank, or
// `name{label="value",...} value`, and one "# TYPE" line a metric before its samples. Gives
// the samples by metric name, or a failure.
::testing::AssertionResult ParseExposition(const std::string& text,
                                           std::map<std::string, std::string>* samples) {
    static const std::regex kSample(
        R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{([a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\.)*")(,[a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\.)*")*\})? ([-+]?[0-9.eE+-]+|NaN|[-+]Inf))");
    static const std::regex kType(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|untyped))");
    std::set<std::string> typed;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (line.empty()) continue;
        if (std::regex_match(line, m, kType)) {
            if (!typed.insert(m[1]).second)
                return ::testing::AssertionFailure() << "twice: " << line;
            continue;
        }
        if (line[0] == '#') continue;
        if (!std::regex_match(line, m, kSample))
            return ::testing::AssertionFailure() << "not a sample: " << line;
        if (typed.count(m[1]) == 0) return ::testing::AssertionFailure() << "untyped: " << line;
        (*samples)[m[1]] = line;
    }
    return ::testing::AssertionSuccess();
}

class Builtins : public ::testing::Test {
  protected:
    Builtins() {
        config_ = MemoryConfigReader::CreateObject();
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "builtins";
        info.configReader = config_;
        info.noFileLog = true;
        srv_ = std::make_unique<BasicSrv>(info);
    }
    ~Builtins() override {
        srv_.reset();
        config_->Release();
    }
    // The answer without the blank lines the dispatcher puts around it.
    std::string Run(const char* line) {
        EXPECT_EQ(srv_->ProcessCommand(line, &out_, true, false, 0), basicsrv_success);
        const std::string text = out_.Take();
        return text.size() < 2 ? text : text.substr(1, text.size() - 2);
    }
    MemoryConfigReader* config_;
    std::unique_ptr<BasicSrv> srv_;
    svctest::TextWriter out_;
};

}  // namespace

TEST_F(Builtins, LevelsUptimeLognAllocAndThreads) {
    EXPECT_EQ(Run("filelevel"), "Current level = NORMAL");
    EXPECT_EQ(Run("filelevel WARN"), "Current level = WARN");
    EXPECT_EQ(Run("filelevel warning"),
              "Invalid argument.  Expected { trace / normal / warning / error }.Current level = "
              "WARN");
    EXPECT_EQ(srv_->GetFileLoggingLevel(), LOGGER_WARN);
    EXPECT_TRUE(std::regex_match(
        Run("show uptime"),
        std::regex(R"(up since \d\d/\d\d/\d{4} \d\d:\d\d:\d\d \(0 total hours\)\n)")));
    const std::string version = Run("show version");
    EXPECT_TRUE(version == "Error displaying version information" ||
                version.rfind("Version ", 0) == 0)
        << version;
    EXPECT_EQ(Run("reset logn"), "Successfully reset Logn details\n");
    EXPECT_EQ(Run("show logn"), "No Logn details found!\n");

    const std::string table = Run("show alloc");
    EXPECT_EQ(table.rfind("Name                |  Id  | Block Size | Free Blocks | Commit Mem | "
                          "ReserveMem\n",
                          0),
              0u);
    EXPECT_TRUE(std::regex_search(table, std::regex(R"(\nTotal: {36} *\d+ +\d+ +\d+\n$)")))
        << table;
    {
        svctest::LogCollector log(LOGGER_NORMAL);
        srv_->LogAllocList();
        const auto lines = log.Lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front().text + "\n", table.substr(0, table.find('\n') + 1));
        EXPECT_EQ(lines.front().function, "TOLVEN::BasicSrvImpl::LogAllocList");
    }
    EXPECT_EQ(Run("show alloc 999999"), "Invalid blockallocator id '999999'.");
    EXPECT_EQ(Run("show alloc 1 2"), "Expected <blockallocator id>\n");
    EXPECT_TRUE(std::regex_search(Run("show threads"),
                                  std::regex(R"(Total threads=\d+ spin threads=\d+$)")));
}

TEST_F(Builtins, CountersByGroupAndPrefix) {
    csdb_context venue;
    ASSERT_TRUE(RegisterGroup("venue", 7001, 0, &venue));
    Value hits(3), quotes(9), fills(4);
    ASSERT_TRUE(RegisterCounter("hits", 0, &hits, false, true));
    ASSERT_TRUE(RegisterCounter("quotes", 7001, &quotes, true, false));
    ASSERT_TRUE(RegisterCounter("fills", 7001, &fills, true, true));
    ASSERT_TRUE(RegisterCounter("orphan", 7002, &fills, false, false));
    EXPECT_EQ(Run("show counters"),
              "\n[Default]\nhits {resetable} = 3\n"
              "\n[venue]\nfills {published,resetable} = 4\nquotes {published} = 9\n"
              "\n[unknown]\norphan = 4\n");
    EXPECT_EQ(Run("show counters VEN q"), "\n[venue]\nquotes {published} = 9\n");
    EXPECT_EQ(Run("reset counters venue quotes"),
              "\nreseting counters:\nquotes(7001) is not resetable!\n0 counters reset.");
    EXPECT_EQ(
        Run("reset counters"),
        "\nreseting counters:\nhits(0) was reset!\nfills(7001) was reset!\n2 counters reset.");
    EXPECT_EQ(hits.value.load(), 0u);
    EXPECT_TRUE(UnregisterCounter(&hits));
    EXPECT_TRUE(UnregisterCounter(&quotes));
    EXPECT_TRUE(UnregisterCounter(&fills));
    EXPECT_TRUE(UnregisterGroup(venue));
    EXPECT_EQ(Run("reset counters"), "\nreseting counters:\n0 counters reset.");
}

TEST_F(Builtins, ConfigShowsSectionsAndMasksSecrets) {
    ASSERT_EQ(config_->WriteString("abc", "Host", "db1"), configreader_success);
    ASSERT_EQ(config_->WriteString("abc", "DbPwd", "secret"), configreader_success);
    ASSERT_EQ(config_->WriteString("x", "z", "1"), configreader_success);
    EXPECT_EQ(Run("show config"),
              "\n[abc]\n DbPwd=********\n Host=db1\n\n[x]\n z=1\n\n3 items displayed, 3 items "
              "total\n");
    EXPECT_EQ(Run("show config a"), "\n0 items displayed, 3 items total\n")
        << "a section matches whole, not by prefix";
    EXPECT_EQ(Run("show config x y"), "\n[x]\n\n0 items displayed, 3 items total\n");
}

TEST_F(Builtins, EmbeddedFilesAreFoundThroughLoopsAndShownMasked) {
    tolven_test::ScratchDir dir;
    const std::string a = dir / "a.ini", b = dir / "b.ini", c = dir / "c.txt";
    std::ofstream(a) << "[files]\nnext=" << b << "\nDbPwd=" << c << "\nhost=db1\n";
    std::ofstream(b) << "[back]\nloop=" << a << "\nuser.Password=x\n";
    std::ofstream(c) << "plain text\n";
    ASSERT_EQ(
        config_->WriteString("main", "list", ("File Name=" + a + ", " + c + "|x.dat").c_str()),
        configreader_success);
    srv_.reset();
    _BASICSRV_STARTUP_INFO info;
    info.srvName = "builtins";
    info.configReader = config_;
    info.noFileLog = true;
    srv_ = std::make_unique<BasicSrv>(info);

    // a and c from the list; then b from a, a again from b, and so on past 100 items.
    const std::string all = Run("show configs");
    EXPECT_EQ(all.rfind("[1] main > list=" + a + "\n[2] main > list=" + c +
                            "\n[3] main > list > "
                            "files > next=" +
                            b + "\n[4] main > list > files > next > back > loop=" + a + "\n",
                        0),
              0u)
        << all;
    const size_t count = static_cast<size_t>(std::count(all.begin(), all.end(), '\n'));
    EXPECT_GT(count, 100u);
    EXPECT_LT(count, 110u) << "the walk stops once more than 100 are known";

    EXPECT_EQ(Run("show configs 1"),
              "[1] main > list=" + a + "\n\n[files]\nnext=" + b + "\nDbPwd=********\nhost=db1\n");
    EXPECT_EQ(Run("show configs 0002"), "[2] main > list=" + c + "\n\nplain text\n");
    EXPECT_EQ(Run("show configs 9x"),
              "Invalid index 162, maximum allowed " + std::to_string(count) + "!\n");
}

TEST_F(Builtins, MetricsFollowTheExpositionFormat) {
    csdb_context group;
    ASSERT_TRUE(RegisterGroup("venue \"A\"", 7101, 0, &group));
    Value orders(12), depth(5), hidden(1);
    TextValue word("open");
    ASSERT_TRUE(RegisterCounter("orders.sent", 7101, &orders, true, true));
    ASSERT_TRUE(RegisterCounter("9depth", 7101, &depth, true, false));
    ASSERT_TRUE(RegisterCounter("hidden", 7101, &hidden, false, true));
    ASSERT_TRUE(RegisterCounter("state", 7101, &word, true, false));
    std::map<std::string, std::string> samples;
    const std::string text = Run("show metrics");
    ASSERT_TRUE(ParseExposition(text, &samples)) << text;
    EXPECT_EQ(samples.size(), 2u) << "published numbers only: " << text;
    EXPECT_EQ(samples["orders_sent_total"], "orders_sent_total{group=\"venue \\\"A\\\"\"} 12");
    EXPECT_EQ(samples["_9depth"], "_9depth{group=\"venue \\\"A\\\"\"} 5");
    EXPECT_NE(text.find("# TYPE orders_sent_total counter\n"), std::string::npos);
    EXPECT_NE(text.find("# TYPE _9depth gauge\n"), std::string::npos);
    for (RegCounterEvents* sink :
         std::initializer_list<RegCounterEvents*>{&orders, &depth, &hidden, &word})
        EXPECT_TRUE(UnregisterCounter(sink));
    EXPECT_TRUE(UnregisterGroup(group));
}
