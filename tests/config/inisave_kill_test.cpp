// A process killed at any point of a save leaves the file whole: old or new.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "tolven/iniconfigreader.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {
std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

IniConfigReader* Open(const std::string& path) {
    IniConfigReader* r = IniConfigReader::CreateObject();
    r->SetFileWatch(false);  // no thread: the reader is also used in forked children
    EXPECT_EQ(r->SetIniFile(path.c_str(), true, false, nullptr), configreader_success);
    return r;
}
}  // namespace

TEST(IniSave, KilledWriterLeavesTheOldOrTheNewFileWhole) {
    const fs::path dir = fs::temp_directory_path() / ("tolven_inikill_" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    const std::string path = (dir / "k.ini").string();
    // Large values, so that a save takes long enough to be cut in the middle.
    const std::string values[2] = {std::string(64 * 1024, 'a'), std::string(64 * 1024, 'b')};
    std::string versions[2];
    {
        IniConfigReader* r = Open(path);
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(r->WriteString("s", "k", values[i].c_str()), configreader_success);
            versions[i] = Slurp(path);
        }
        r->Release();
    }
    ASSERT_NE(versions[0], versions[1]);

    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> delayUs(0, 4000);
    int cutMidSave = 0;
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            IniConfigReader* r = IniConfigReader::CreateObject();
            r->SetFileWatch(false);
            if (r->SetIniFile(path.c_str(), false, false, nullptr) != configreader_success)
                _exit(2);
            for (unsigned i = 0;; ++i)
                if (r->WriteString("s", "k", values[i % 2].c_str()) != configreader_success)
                    _exit(3);
        }
        usleep(static_cast<useconds_t>(delayUs(rng)));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;
        const std::string now = Slurp(path);
        ASSERT_TRUE(now == versions[0] || now == versions[1])
            << "round " << round << ": " << now.size() << " bytes of something else";
        if (fs::exists(path + ".bak")) ++cutMidSave;
    }
    RecordProperty("rounds_cut_mid_save", cutMidSave);
    std::cout << cutMidSave << " of " << kRounds << " kills left a temporary behind\n";
    // The next save goes through whatever temporary a killed one left.
    IniConfigReader* r = Open(path);
    EXPECT_EQ(r->WriteString("s", "k", "done"), configreader_success);
    EXPECT_FALSE(fs::exists(path + ".bak"));
    r->Release();
    fs::remove_all(dir);
}
