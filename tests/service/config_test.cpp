// Building a service from its record and configuration, and the status writers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "platform/directory.h"
#include "platform/process.h"
#include "service/BasicSrvImpl.h"
#include "service_test_util.h"
#include "tolven/iniconfigreader.h"
#include "tolven/versioninfo.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

// A memory reader filled with default-section items, released at scope end.
struct Memory {
    MemoryConfigReader* r = MemoryConfigReader::CreateObject();
    explicit Memory(std::initializer_list<std::pair<const char*, const char*>> items,
                    const char* name = "cfg") {
        r->SetReaderName(name);
        for (const auto& [item, value] : items)
            EXPECT_EQ(r->WriteString(nullptr, item, value), configreader_success);
    }
    ~Memory() { r->Release(); }
};

_BASICSRV_STARTUP_INFO Info(ConfigReader* reader = nullptr, const char* name = "svc") {
    _BASICSRV_STARTUP_INFO info;
    info.srvName = name;
    info.configReader = reader;
    info.noFileLog = true;
    return info;
}

class ServiceConfig : public ::testing::Test {
  protected:
    void SetUp() override {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::temp_directory_path() / ("tolven_svc_" + std::string(test->name()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        dir_ = fs::canonical(dir_);
        ASSERT_TRUE(platform::CurrentDirectory(cwd_));
    }
    void TearDown() override {
        (void)platform::ChangeCurrentDirectory(cwd_.c_str());
        VersionInfo::SetDefaultModule(nullptr);
        fs::remove_all(dir_);
    }
    fs::path dir_;
    std::string cwd_;
};

}  // namespace

TEST_F(ServiceConfig, EveryDefaultWithoutARecord) {
    BasicSrv srv(static_cast<_BASICSRV_STARTUP_INFO*>(nullptr));
    EXPECT_STREQ(srv.GetSrvName(), "") << "the test program carries no version record";
    EXPECT_STREQ(srv.GetSrvNameWithVersion(), "");
    EXPECT_STREQ(srv.GetVersion(), "");
    EXPECT_STREQ(srv.GetConfigName(), "");
    EXPECT_EQ(srv.GetLogFileLocation(), cwd_);
    EXPECT_EQ(srv.GetLogArchiveDir(), nullptr);
    EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 7);
    EXPECT_EQ(srv.GetConfigReader(), nullptr);
    EXPECT_TRUE(srv.CommandExists("quit"));
    EXPECT_TRUE(srv.CommandExists("help"));
    EXPECT_TRUE(srv.CommandExists("?"));
}

TEST_F(ServiceConfig, DirectoriesAndDays) {
    {
        // The record's directories lose their trailing separators; keys fill what it lacks.
        Memory m({{"LogFileDirectory", "from/key/"}, {"LogArchiveDirectory", "arch/key"}});
        _BASICSRV_STARTUP_INFO info = Info(m.r);
        info.logFileDirectory = "logs/dir/\\/";
        info.daysTillDelete = 3;
        BasicSrv srv(info);
        EXPECT_STREQ(srv.GetLogFileLocation(), "logs/dir");
        EXPECT_STREQ(srv.GetLogArchiveDir(), "arch/key");
        EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 3);
    }
    {
        Memory m({{"LogFileDirectory", "from/key/"}, {"DaysTillDelete", "0"}});
        _BASICSRV_STARTUP_INFO info = Info(m.r);
        info.logArchiveDirectory = "arch//";
        BasicSrv srv(info);
        EXPECT_STREQ(srv.GetLogFileLocation(), "from/key/") << "a key is taken as it stands";
        EXPECT_STREQ(srv.GetLogArchiveDir(), "arch");
        EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 0);
    }
    {
        Memory m({{"DaysTillDelete", "-5"}});
        BasicSrv srv(Info(m.r));
        EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 7) << "below 0 is the default";
    }
}

TEST_F(ServiceConfig, WorkingDirectoryIsMadeAndEntered) {
    const std::string work = (dir_ / "work").string();
    Memory m({{"WorkingDirectory", work.c_str()}});
    BasicSrv srv(Info(m.r));
    std::string now;
    ASSERT_TRUE(platform::CurrentDirectory(now));
    EXPECT_EQ(fs::path(now), fs::path(work));
    EXPECT_EQ(fs::path(srv.GetLogFileLocation()), fs::path(work));
}

TEST_F(ServiceConfig, ReaderReferences) {
    Memory user({}), maint({});
    {
        BasicSrv srv("svc", user.r, nullptr, true);
        EXPECT_EQ(user.r->GetRefCount(), 3) << "held as user and as maintenance reader";
        EXPECT_EQ(srv.GetConfigReader(), user.r);
        EXPECT_EQ(user.r->GetRefCount(), 3) << "GetConfigReader adds no reference";
        EXPECT_STREQ(srv.GetConfigName(), "cfg");
        EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 7);
    }
    EXPECT_EQ(user.r->GetRefCount(), 1);

    _BASICSRV_STARTUP_INFO info = Info(user.r);
    info.maintConfigReader = maint.r;
    info.createMaintConfig = true;  // a memory reader makes no file
    info.logFileDirectory = dir_.string().c_str();
    const std::string logDir = dir_.string();
    info.logFileDirectory = logDir.c_str();
    {
        BasicSrvImpl impl(nullptr, &info);
        EXPECT_EQ(impl.GetMaintConfigReader(), maint.r);
        EXPECT_EQ(maint.r->GetRefCount(), 2);
    }
    EXPECT_EQ(maint.r->GetRefCount(), 1);
    EXPECT_TRUE(fs::is_empty(dir_));
    info.maintConfigReader = nullptr;
    BasicSrvImpl impl(nullptr, &info);
    EXPECT_EQ(impl.GetMaintConfigReader(), user.r);
}

TEST_F(ServiceConfig, MaintenanceFileBesideTheLogs) {
    const fs::path config = dir_ / "trader.ini";
    std::ofstream(config) << "[default]\nDaysTillDelete=2\n";
    IniConfigReader* ini = IniConfigReader::CreateObject();
    ASSERT_EQ(ini->SetIniFile(config.string().c_str(), false, true, nullptr), configreader_success);
    const std::string logDir = (dir_ / "logs").string();
    fs::create_directories(logDir);
    _BASICSRV_STARTUP_INFO info = Info(ini);
    info.logFileDirectory = logDir.c_str();
    info.createMaintConfig = true;
    {
        BasicSrvImpl impl(nullptr, &info);
        EXPECT_EQ(impl.GetLogFileDaysTillDelete(), 2);
        EXPECT_STREQ(impl.GetConfigName(), "trader");
        EXPECT_EQ(impl.GetLogStem(), "svc_trader_");
        ConfigReader* maint = impl.GetMaintConfigReader();
        ASSERT_NE(maint, nullptr);
        EXPECT_NE(maint, ini);
        EXPECT_EQ(maint->GetType(), configreader_type_ini);
        EXPECT_TRUE(fs::exists(fs::path(logDir) / "trader_cmd.ini"));
    }
    ini->Release();

    // An INI reader without a file has no name: the record's readers serve.
    svctest::LogCollector log(LOGGER_ERROR);
    IniConfigReader* empty = IniConfigReader::CreateObject();
    _BASICSRV_STARTUP_INFO bare = Info(empty);
    bare.createMaintConfig = true;
    {
        BasicSrvImpl impl(nullptr, &bare);
        EXPECT_EQ(impl.GetMaintConfigReader(), empty);
    }
    empty->Release();
    bool logged = false;
    for (const auto& line : log.Lines())
        logged |= line.text ==
                  "User config reader is not initialized, cannot create maint config reader!";
    EXPECT_TRUE(logged);
}

TEST_F(ServiceConfig, ProductNameAndVersion) {
    std::string library;
    ASSERT_TRUE(platform::GetLibraryModulePath(library));
    VersionInfo::SetDefaultModule(library.c_str());
    VersionInfo record;
    ASSERT_TRUE(record.Initialize(nullptr));
    char product[256] = {}, version[256] = {};
    unsigned int size = sizeof(product);
    ASSERT_TRUE(record.GetProductName(product, &size));
    size = sizeof(version);
    ASSERT_TRUE(record.GetProductVersion(version, &size));

    {
        Memory m({});
        BasicSrv srv(Info(m.r, "given"));
        EXPECT_STREQ(srv.GetSrvName(), product) << "the product name replaces the given one";
        EXPECT_STREQ(srv.GetVersion(), version);
        EXPECT_EQ(std::string(srv.GetSrvNameWithVersion()),
                  std::string(product) + " c:cfg v:" + version);
        srv.SetSrvName(nullptr);
        EXPECT_STREQ(srv.GetSrvName(), product);
        srv.SetSrvName("renamed");
        EXPECT_STREQ(srv.GetSrvName(), "renamed");
        EXPECT_EQ(std::string(srv.GetSrvNameWithVersion()),
                  std::string(product) + " c:cfg v:" + version)
            << "renaming keeps the name with version";
    }
    {
        Memory m({{"UseProductName", "false"}});
        BasicSrv srv(Info(m.r, "given"));
        EXPECT_STREQ(srv.GetSrvName(), "given");
        EXPECT_EQ(std::string(srv.GetSrvNameWithVersion()),
                  std::string("given c:cfg v:") + version);
    }
    {
        // Without a configuration name the process's own module stands in.
        std::string module;
        ASSERT_TRUE(platform::GetOwnModuleBaseName(module));
        BasicSrv srv(Info(nullptr, "given"));
        EXPECT_EQ(std::string(srv.GetSrvNameWithVersion()),
                  std::string(product) + " c:" + module + " v:" + version);
    }
}

TEST_F(ServiceConfig, StartupMessages) {
    svctest::LogCollector log(LOGGER_TRACE);
    _BASICSRV_STARTUP_INFO info = Info(nullptr, "quiet");
    info.registerQuit = false;
    {
        BasicSrv srv(info);
        EXPECT_FALSE(srv.CommandExists("quit"));
    }
    std::vector<std::string> texts;
    for (const auto& line : log.Lines())
        if (line.file == std::string("BasicSrvImpl") ||
            line.file == std::string("BasicSrvImplCmds"))
            texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"quiet", "Quit has not been registered"}));
}

TEST(StatusWriters, FormatAndLogLines) {
    svctest::TextWriter writer;
    EXPECT_EQ(writer.FormatStatus("%s-%d", "a", 1), basicsrv_success);
    EXPECT_EQ(writer.Take(), "a-1");
    EXPECT_EQ(writer.FormatStatus("%s", std::string(5000, 'x').c_str()), basicsrv_success);
    EXPECT_EQ(writer.Take(), std::string(4095, 'x'));
    EXPECT_EQ(writer.flushes_, 0);

    EmptyStatusWriter empty;
    EXPECT_EQ(empty.FormatStatus("%d", 1), basicsrv_success);
    EXPECT_EQ(empty.FlushStatus(), basicsrv_success);

    svctest::LogCollector log(LOGGER_NORMAL);
    {
        LogStatusWriter lines;
        EXPECT_EQ(lines.WriteStatus("first\nsec"), basicsrv_success);
        EXPECT_EQ(lines.FormatStatus("ond %d\n\n", 2), basicsrv_success);
        EXPECT_EQ(lines.WriteStatus("%s unformatted"), basicsrv_success);
        EXPECT_EQ(lines.FlushStatus(), basicsrv_success);
        EXPECT_EQ(lines.FlushStatus(), basicsrv_success);
    }
    std::vector<std::string> texts;
    for (const auto& line : log.Lines()) {
        if (line.function != std::string("TOLVEN::LogStatusWriter::FlushStatus")) continue;
        EXPECT_EQ(line.file, "BasicSrvImpl");
        EXPECT_EQ(line.level, LOGGER_NORMAL);
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "second 2", "%s unformatted"}));
}
