#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/process.h"
#include "tolven/osutils.h"

using namespace TOLVEN;

namespace {

struct Recorded {
    release_assert_action answer = release_assert_ignore;
    int calls = 0;
    std::string text;
};

release_assert_action Record(const char* text, void* context) {
    auto* r = static_cast<Recorded*>(context);
    ++r->calls;
    r->text = text;
    return r->answer;
}

release_assert_action AnswerAbortAloud(const char*, void*) {
    std::fputs("handler answered abort\n", stderr);
    std::fflush(stderr);
    return release_assert_abort;
}

// Names the parent's directory to a death-test child that runs this binary anew (as on
// Windows), so that the child works where the parent looks for its record.
constexpr char kDirVariable[] = "TOLVEN_TEST_ASSERT_DIR";

// Runs a test in a fresh current directory with a recording handler, restoring both.
class ReleaseAssert : public ::testing::Test {
  protected:
    void SetUp() override {
        old_ = std::filesystem::current_path();
        if (const char* inherited = std::getenv(kDirVariable)) {
            dir_ = inherited;
        } else {
            dir_ = std::filesystem::temp_directory_path() /
                   ("tolven_assert_" + std::to_string(platform::CurrentProcessId()));
        }
        std::filesystem::create_directories(dir_);
        std::filesystem::current_path(dir_);
        previous_ = SetReleaseAssertHandler(&Record, &recorded_, &previousContext_);
    }
    void TearDown() override {
        (void)platform::SetEnvironmentValue(kDirVariable, nullptr);
        SetReleaseAssertHandler(previous_, previousContext_);
        (void)OS::ForceApplicationName(nullptr);
        std::filesystem::current_path(old_);
        std::filesystem::remove_all(dir_);
    }
    std::string ReadFile(const char* name) {
        std::ifstream in(dir_ / name, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }

    Recorded recorded_;
    std::filesystem::path old_, dir_;
    ReleaseAssertHandler previous_ = nullptr;
    void* previousContext_ = nullptr;
};

}  // namespace

TEST_F(ReleaseAssert, AppendsTheTextAndAnswersAsTheHandlerSays) {
    const std::string pid = std::to_string(platform::CurrentProcessId());
    EXPECT_EQ(_CSReleaseAssert("src/a.cpp", 42, "Mod", "value %d of %s", 7, "x"), 0);
    const std::string first =
        "PID=" + pid + " File=src/a.cpp Line=42 Module=Mod\nText=value 7 of x\n";
    EXPECT_EQ(recorded_.text, first);
    EXPECT_EQ(ReadFile("unittest_tools_assert.txt"), first);

    recorded_.answer = release_assert_retry;
    EXPECT_EQ(_CSReleaseAssert(nullptr, -1, nullptr, nullptr), 1);
    EXPECT_EQ(recorded_.calls, 2);
    EXPECT_EQ(ReadFile("unittest_tools_assert.txt"),
              first + "PID=" + pid + " File= Line=-1 Module=\nText=\n");
}

TEST_F(ReleaseAssert, FileFollowsTheApplicationNameAndLongTextsAreCut) {
    ASSERT_TRUE(OS::ForceApplicationName("svc.exe"));
    const std::string longText(5000, 'q');
    EXPECT_EQ(_CSReleaseAssert("f", 1, "m", "%s", longText.c_str()), 0);
    const std::string written = ReadFile("svc_assert.txt");
    EXPECT_EQ(written.size(), 2047u);  // the text buffer holds 2048 bytes with its terminator
    EXPECT_EQ(written.find("Text=qqq"), written.find('\n') + 1);
    EXPECT_EQ(written, recorded_.text);
}

TEST_F(ReleaseAssert, AbortEndsTheProcess) {
    // A forked child inherits the directory; a child that runs this binary anew (the only
    // kind on Windows) finds it in the environment, in its SetUp.
    ASSERT_TRUE(platform::SetEnvironmentValue(kDirVariable, dir_.string().c_str()));
    EXPECT_EXIT(
        {
            SetReleaseAssertHandler(&AnswerAbortAloud, nullptr);
            _CSReleaseAssert("f", 1, "m", "fatal");
        },
        [](int status) { return status != 0; }, "handler answered abort");
    // The record was on disk before the process ended.
    EXPECT_NE(ReadFile("unittest_tools_assert.txt").find("Line=1 Module=m\nText=fatal\n"),
              std::string::npos);
}
