#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "platform/process.h"
#include "tolven/osutils.h"

using namespace TOLVEN;

namespace {
// Clears a forced application name when a test ends.
struct ForcedNameReset {
    ~ForcedNameReset() { (void)OS::ForceApplicationName(nullptr); }
};
}  // namespace

TEST(ApplicationName, ModuleNameForcedNamesAndCuts) {
    ForcedNameReset reset;
    ASSERT_TRUE(OS::IsTestApplication());
    char name[260];
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "unittest_tools");

    name[0] = 'x';
    EXPECT_FALSE(OS::GetApplicationName(name, 0));
    EXPECT_EQ(name[0], 'x');
    ASSERT_TRUE(OS::GetApplicationName(name, 5));
    EXPECT_STREQ(name, "unit");

    ASSERT_TRUE(OS::ForceApplicationName("my.exe.tool.exe"));
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "my");
    ASSERT_TRUE(OS::ForceApplicationName(std::string(400, 'n').c_str()));
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_EQ(std::strlen(name), 259u);

    ASSERT_TRUE(OS::ForceApplicationName(nullptr));
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "unittest_tools");
}

// Runs only in a copy of this binary under another name, started by the test below (a
// disabled case, so that the suite itself neither runs nor skips it).
TEST(ApplicationName, DISABLED_ChildOutsideTests) {
    EXPECT_FALSE(OS::IsTestApplication());
    EXPECT_FALSE(OS::ForceApplicationName("Other"));
    char name[260];
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "tools_copy");
}

TEST(ApplicationName, ForcingIsRefusedOutsideTestApplications) {
    std::string self, library;
    ASSERT_TRUE(platform::GetOwnExecutablePath(self));
    ASSERT_TRUE(platform::GetLibraryModulePath(library));
    // A space in the folder's name checks that the path and arguments reach the copy whole.
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("tolven os " + std::to_string(platform::CurrentProcessId()));
    std::filesystem::create_directories(dir);
    // The copy keeps the executable's extension (".exe" on Windows, none on Linux), and gets
    // the library beside it, where Windows looks first; the Linux copy finds it by its path.
    const std::filesystem::path copy =
        dir / ("tools_copy" + std::filesystem::path(self).extension().string());
    const auto overwrite = std::filesystem::copy_options::overwrite_existing;
    std::filesystem::copy_file(self, copy, overwrite);
    std::filesystem::copy_file(library, dir / std::filesystem::path(library).filename(), overwrite);
    const std::filesystem::path report = dir / "report.xml";
    int exitCode = -1;
    ASSERT_TRUE(platform::RunProgram(copy.string(),
                                     {"--gtest_also_run_disabled_tests",
                                      "--gtest_filter=ApplicationName.DISABLED_ChildOutsideTests",
                                      "--gtest_output=xml:" + report.string()},
                                     &exitCode));
    EXPECT_EQ(exitCode, 0);
    // A copy that ran nothing would end with 0 too: its report must show the case run.
    std::ifstream in(report, std::ios::binary);
    const std::string xml{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    in.close();
    std::filesystem::remove_all(dir);
    const size_t testcase = xml.find("<testcase name=\"DISABLED_ChildOutsideTests\"");
    ASSERT_NE(testcase, std::string::npos) << xml;
    const std::string tag = xml.substr(testcase, xml.find('>', testcase) - testcase);
    EXPECT_NE(tag.find("result=\"completed\""), std::string::npos) << tag;
}

TEST(Strtok, EachThreadKeepsItsOwnText) {
    char mine[] = "a,b,,c";
    EXPECT_STREQ(OS::strtok(mine, ","), "a");
    std::thread other([] {
        char theirs[] = " x y ";
        EXPECT_STREQ(OS::strtok(theirs, " "), "x");
        EXPECT_STREQ(OS::strtok(nullptr, " "), "y");
        EXPECT_EQ(OS::strtok(nullptr, " "), nullptr);
    });
    other.join();
    EXPECT_STREQ(OS::strtok(nullptr, ","), "b");
    EXPECT_STREQ(OS::strtok(nullptr, ","), "c");
    EXPECT_EQ(OS::strtok(nullptr, ","), nullptr);
}

TEST(Strtok, ReentrantFormUsesTheCallersState) {
    char text[] = ";;one;two";
    char* state = nullptr;
    EXPECT_STREQ(OS::strtok_reentrant(text, ";", &state), "one");
    // Delimiters may change between calls.
    EXPECT_STREQ(OS::strtok_reentrant(nullptr, "", &state), "two");
    EXPECT_EQ(OS::strtok_reentrant(nullptr, ";", &state), nullptr);
    EXPECT_EQ(OS::strtok_reentrant(nullptr, ";", nullptr), nullptr);
}
