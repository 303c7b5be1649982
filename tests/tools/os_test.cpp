#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
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

    EXPECT_FALSE(OS::GetApplicationName(nullptr, 10));
    name[0] = 'x';
    EXPECT_FALSE(OS::GetApplicationName(name, 0));
    EXPECT_EQ(name[0], 'x');
    ASSERT_TRUE(OS::GetApplicationName(name, 5));
    EXPECT_STREQ(name, "unit");

    ASSERT_TRUE(OS::ForceApplicationName("Server.EXE"));
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "Server");
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

// Runs in a copy of this binary under another name, started by the test below.
TEST(ApplicationName, ChildOutsideTests) {
    if (OS::IsTestApplication()) GTEST_SKIP() << "runs only in the renamed copy";
    EXPECT_FALSE(OS::ForceApplicationName("Other"));
    char name[260];
    ASSERT_TRUE(OS::GetApplicationName(name, sizeof name));
    EXPECT_STREQ(name, "tools_copy");
}

TEST(ApplicationName, ForcingIsRefusedOutsideTestApplications) {
    std::string self;
    ASSERT_TRUE(platform::GetOwnExecutablePath(self));
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("tolven_os_" + std::to_string(platform::CurrentProcessId()));
    std::filesystem::create_directories(dir);
    const std::filesystem::path copy = dir / "tools_copy";
    std::filesystem::copy_file(self, copy, std::filesystem::copy_options::overwrite_existing);
    const std::string command =
        "\"" + copy.string() + "\" --gtest_filter=ApplicationName.ChildOutsideTests";
    const int status = std::system(command.c_str());
    std::filesystem::remove_all(dir);
    EXPECT_EQ(status, 0);
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
    char blank[] = ";;;";
    state = nullptr;
    EXPECT_EQ(OS::strtok_reentrant(blank, ";", &state), nullptr);
    EXPECT_EQ(OS::strtok_reentrant(nullptr, ";", nullptr), nullptr);
}

TEST(Processors, CountsAreConsistent) {
    const unsigned int all = CPUID_GetProcessorCount();
    const unsigned int available = CPUID_GetAvailableProcessorCount();
    EXPECT_GE(all, 1u);
    EXPECT_GE(available, 1u);
    EXPECT_LE(available, all);
    (void)CPUID_IsSupported_cmpxchg16b();
}
