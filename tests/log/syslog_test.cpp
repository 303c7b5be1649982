#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "log/LogSinksInternal.h"
#include "log/logfile_test_util.h"
#include "log/sink_test_util.h"
#include "log/syslog_collector.h"
#include "platform/socket.h"
#include "tolven/configreader.h"
#include "tolven/logsinks.h"

using namespace TOLVEN;
using sinktest::KeepSink;
using sinktest::Log;

namespace {

// The datagram the sink must send for a message it received, built from the wire format.
std::string Datagram(int priority, const char* ident, const _LOGGER_CB_DATA& d,
                     const std::string& text) {
    char buffer[1024];
    const int n =
        std::snprintf(buffer, sizeof buffer, "<%i> %s %-2.2i:%-2.2i:%-2.2i.%03i %s %s", priority,
                      ident, d.timestamp.hour, d.timestamp.minute, d.timestamp.second,
                      static_cast<int>(d.timestamp.nanoseconds / 1000000), LoggerLevelName(d.level),
                      text.c_str());
    return std::string(buffer, n < 1024 ? static_cast<size_t>(n) : 1024);
}

// A UDP port with nobody behind it.
uint16_t ClosedPort() {
    using namespace platform;
    const SocketHandle s = OpenUdpSocket();
    uint32_t loopback = 0;
    EXPECT_TRUE(ParseIPv4Address("127.0.0.1", &loopback));
    EXPECT_TRUE(BindSocket(s, loopback, 0));
    const uint16_t port = SocketLocalPort(s);
    CloseSocket(s);
    return port;
}

class Syslog : public ::testing::Test {
  protected:
    void SetUp() override { config_ = MemoryConfigReader::CreateObject(); }
    void TearDown() override { config_->Release(); }
    void Set(const char* item, unsigned int value) {
        ASSERT_EQ(config_->WriteUINT(nullptr, item, value), configreader_success);
    }
    void Set(const char* item, const char* value) {
        ASSERT_EQ(config_->WriteString(nullptr, item, value), configreader_success);
    }
    // Init, and true when the sink's own messages include `message`.
    bool InitSays(SyslogLogger& sink, bool expected, const std::string& message) {
        KeepSink messages;
        EXPECT_EQ(sink.Init(config_, "tolven-test"), expected) << message;
        EXPECT_TRUE(LogFlush());
        return messages.Saw(message);
    }

    tolven_test::ScratchDir folder_;
    MemoryConfigReader* config_ = nullptr;
};

}  // namespace

TEST_F(Syslog, SettingsAreCheckedWithTheirMessages) {
    SyslogLogger sink;
    EXPECT_TRUE(InitSays(sink, false, "Failed to read parameter SyslogPort, error 3"));
    const uint16_t port = ClosedPort();
    Set("SyslogPort", port);
    EXPECT_TRUE(InitSays(sink, false, "Failed to read parameter SyslogPriority, error 3"));
    Set("SyslogPriority", 13);
    EXPECT_TRUE(InitSays(sink, false, "Failed to read parameter SyslogHost, error 3"));

    Set("SyslogHost", "tolven-no-such-host.invalid");
    EXPECT_TRUE(InitSays(sink, false,
                         "SyslogLogger: getaddrinfo() failed for hostname "
                         "'tolven-no-such-host.invalid'"));
    EXPECT_TRUE(InitSays(sink, false, "Failed to create syslogger socket connection!"));
    EXPECT_TRUE(InitSays(sink, false, "SyslogMinLevel is not defined - using default WARN"));

    // A dotted address goes to no resolver; a name does.
    Set("SyslogHost", "127.0.0.1");
    Set("SyslogMinLevel", "debug");
    const uint64_t lookups = detail::SyslogNameLookups();
    EXPECT_TRUE(InitSays(sink, true, "SyslogMinLevel debug is invalid - using default WARN"));
    EXPECT_EQ(detail::SyslogNameLookups(), lookups);
    EXPECT_EQ(sink.GetLoggingLevel(), LOGGER_WARN);
    Set("SyslogMinLevel", "error");
    EXPECT_TRUE(InitSays(sink, true,
                         "Logging events with a level of atleast ERROR to syslog at 127.0.0.1:" +
                             std::to_string(port) + " with priority 13"));
    EXPECT_EQ(sink.GetLoggingLevel(), LOGGER_ERROR);
    Set("SyslogHost", "localhost");
    EXPECT_TRUE(InitSays(sink, true, "to syslog at localhost:"));
    EXPECT_EQ(detail::SyslogNameLookups(), lookups + 1);

    // Nobody listens at the port: the datagrams are lost, and the log thread goes on.
    KeepSink after;
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(Log(LOGGER_ERROR, "into the void %d", i), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(after.Texts().size(), 200u);
    sink.Term();
}

TEST_F(Syslog, DatagramsReachARealCollectorByteForByte) {
    std::string why;
    const std::unique_ptr<sinktest::SyslogCollector> collector =
        sinktest::StartSyslogCollector(folder_.str(), &why);
    if (collector == nullptr) GTEST_SKIP() << "no syslog collector: " << why;
    RecordProperty("collector", collector->Name());
    Set("SyslogHost", "127.0.0.1");
    Set("SyslogPort", collector->Port());
    Set("SyslogPriority", 13);
    Set("SyslogMinLevel", "WARN");
    static const char ident[] = "tolven-test";

    const std::string controls = "one\r\ntwo\nthree\x01\x1b[0m\x7f end";
    const std::string longText(2000, 'x');
    std::vector<std::string> texts;
    std::vector<_LOGGER_CB_DATA> data;
    {
        KeepSink keep;
        SyslogLogger sink;
        ASSERT_TRUE(sink.Init(config_, ident));
        ASSERT_TRUE(LogFlush());
        keep.Clear();
        ASSERT_EQ(Log(LOGGER_NORMAL, "below the level"), LOG_SUCCESS);
        ASSERT_EQ(Log(LOGGER_WARN, "hello %s", "world"), LOG_SUCCESS);
        ASSERT_EQ(Log(LOGGER_WARN, "%s", controls.c_str()), LOG_SUCCESS);
        ASSERT_EQ(Log(LOGGER_ERROR, "%s", longText.c_str()), LOG_SUCCESS);
        ASSERT_TRUE(LogFlush());
        sink.Term();
        texts = keep.Texts();
        data = keep.Data();
    }
    ASSERT_EQ(texts.size(), 4u);
    std::vector<std::string> expected;
    for (size_t i = 1; i < 4; ++i)
        expected.push_back(Datagram(13, ident, data[i], texts[i]));
    ASSERT_EQ(expected[2].size(), 1024u) << "a long message is cut to the whole buffer";
    EXPECT_EQ(expected[2].back(), '\0');

    const std::vector<std::string> got = collector->Receive(3);
    ASSERT_EQ(got.size(), 3u) << collector->Name();
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(got[i], collector->Kept(expected[i])) << collector->Name() << " message " << i;
}
