// Building a service from its record and configuration, and the status writers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/directory.h"
#include "platform/process.h"
#include "service/BasicSrvImpl.h"
#include "service_test_util.h"
#include "tolven/iniconfigreader.h"
#include "tolven/versioninfo.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

// A memory reader named "cfg" with default-section items, released at scope end.
struct Memory {
    MemoryConfigReader* r = MemoryConfigReader::CreateObject();
    explicit Memory(std::initializer_list<std::pair<const char*, const char*>> items) {
        r->SetReaderName("cfg");
        for (const auto& [item, value] : items)
            (void)r->WriteString(nullptr, item, value);
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
        dir_ = fs::temp_directory_path() /
               ("tolven_svc_" +
                std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
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

TEST_F(ServiceConfig, DirectoriesDaysAndWorkingDirectory) {
    // The record's directories lose their trailing separators; keys fill what it lacks.
    Memory m({{"LogFileDirectory", "from/key/"},
              {"LogArchiveDirectory", "arch/key"},
              {"DaysTillDelete", "0"}});
    _BASICSRV_STARTUP_INFO info = Info(m.r);
    info.logFileDirectory = "logs/dir/\\/";
    BasicSrv srv(info);
    EXPECT_STREQ(srv.GetLogFileLocation(), "logs/dir");
    EXPECT_STREQ(srv.GetLogArchiveDir(), "arch/key");
    EXPECT_EQ(srv.GetLogFileDaysTillDelete(), 0);

    const std::string work = (dir_ / "work").string();
    Memory w({{"WorkingDirectory", work.c_str()}});
    BasicSrv worker(Info(w.r));
    std::string now;
    ASSERT_TRUE(platform::CurrentDirectory(now));
    EXPECT_EQ(fs::path(now), fs::path(work)) << "made and entered";
    EXPECT_EQ(fs::path(worker.GetLogFileLocation()), fs::path(work));
}

TEST_F(ServiceConfig, ReadersAndTheMaintenanceFile) {
    Memory user({}), maint({});
    {
        BasicSrv srv("svc", user.r, nullptr, true);
        EXPECT_EQ(user.r->GetRefCount(), 3) << "held as user and as maintenance reader";
    }
    EXPECT_EQ(user.r->GetRefCount(), 1);

    // A memory reader makes no maintenance file: the record's readers serve.
    const std::string logDir = dir_.string();
    _BASICSRV_STARTUP_INFO info = Info(user.r);
    info.maintConfigReader = maint.r;
    info.createMaintConfig = true;
    info.logFileDirectory = logDir.c_str();
    EXPECT_EQ(BasicSrvImpl(nullptr, &info).GetMaintConfigReader(), maint.r);
    EXPECT_TRUE(fs::is_empty(dir_));
    EXPECT_EQ(maint.r->GetRefCount(), 1);

    // An INI reader gets one beside the logs, named after the configuration.
    std::ofstream(dir_ / "trader.ini") << "[default]\nDaysTillDelete=2\n";
    IniConfigReader* ini = IniConfigReader::CreateObject();
    ASSERT_EQ(ini->SetIniFile((dir_ / "trader.ini").string().c_str(), false, true, nullptr),
              configreader_success);
    info = Info(ini);
    info.logFileDirectory = logDir.c_str();
    info.createMaintConfig = true;
    {
        BasicSrvImpl impl(nullptr, &info);
        EXPECT_EQ(impl.GetLogStem(), "svc_trader_");
        EXPECT_NE(impl.GetMaintConfigReader(), ini);
        EXPECT_TRUE(fs::exists(dir_ / "trader_cmd.ini"));
    }
    ini->Release();
}

TEST_F(ServiceConfig, ProductNameAndVersion) {
    std::string library;
    ASSERT_TRUE(platform::GetLibraryModulePath(library));
    VersionInfo::SetDefaultModule(library.c_str());
    VersionInfo record;
    ASSERT_TRUE(record.Initialize(nullptr));
    char buffer[256] = {};
    unsigned int size = sizeof(buffer);
    ASSERT_TRUE(record.GetProductName(buffer, &size));
    const std::string product = buffer;
    size = sizeof(buffer);
    ASSERT_TRUE(record.GetProductVersion(buffer, &size));
    const std::string version = buffer;

    Memory m({});
    EXPECT_EQ(BasicSrv(Info(m.r, "given")).GetSrvNameWithVersion(), product + " c:cfg v:" + version)
        << "the product name replaces the given one";
    Memory off({{"UseProductName", "false"}});
    EXPECT_EQ(BasicSrv(Info(off.r, "given")).GetSrvNameWithVersion(), "given c:cfg v:" + version);
}

TEST(StatusWriters, FormatCutsAndLogWriterSplitsLines) {
    svctest::TextWriter writer;
    EXPECT_EQ(writer.FormatStatus("%s", std::string(5000, 'x').c_str()), basicsrv_success);
    EXPECT_EQ(writer.Take(), std::string(4095, 'x'));

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
    for (const auto& line : log.Lines())
        if (line.function == "TOLVEN::LogStatusWriter::FlushStatus") texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "second 2", "%s unformatted"}));
}
