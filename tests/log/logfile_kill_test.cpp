// A process killed at a random moment while it logs: every line the writer had confirmed is
// in the file, whole and in order, and at most the end of the last line is torn.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

#include "log/logfile_test_util.h"
#include "tolven/simplelogfile.h"

using namespace TOLVEN;
using tolven_test::ScratchDir;
using tolven_test::Slurp;

namespace {

constexpr size_t kStamp = 17;  // "(HH:MM:SS.fffff) "
constexpr uint32_t kConfirmEvery = 64;

// The text of line `i`, of varying length.
std::string LineText(uint32_t i) {
    char head[32];
    std::snprintf(head, sizeof(head), "line %08u ", i);
    return head + std::string(i * 7 % 50, 'x');
}

// The child: logs numbered lines for ever, and after every kConfirmEvery lines waits for the
// writer and reports the number of the last line through `report`.
[[noreturn]] void Child(const std::string& dir, const std::string& name, int report) {
    simplelogfile file(true);
    if (!file.Init(name.c_str(), dir.c_str(), nullptr, 0, false, nullptr)) _exit(2);
    for (uint32_t i = 1;; ++i) {
        if (!file.Log(LineText(i).c_str())) _exit(3);
        if (i % kConfirmEvery == 0) {
            if (!file.Flush()) _exit(4);
            if (write(report, &i, sizeof(i)) != sizeof(i)) _exit(5);
        }
    }
}

bool ReadReport(int fd, uint32_t* value) {
    size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(value);
    while (got < sizeof(*value)) {
        const ssize_t n = read(fd, bytes + got, sizeof(*value) - got);
        if (n <= 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

TEST(LogFileKill, KilledWriterLosesNoConfirmedLineAndTearsOnlyTheLast) {
    // TOLVEN_KILL_TRIALS runs more trials by hand.
    const char* asked = std::getenv("TOLVEN_KILL_TRIALS");
    const int trials = asked != nullptr && std::atoi(asked) > 0 ? std::atoi(asked) : 200;
    ScratchDir dir;
    std::mt19937 rng(20240115);
    std::uniform_int_distribution<int> delayUs(0, 20000);
    int torn = 0;
    uint64_t lines = 0, confirmedLines = 0;
    for (int trial = 0; trial < trials; ++trial) {
        const std::string name = "k" + std::to_string(trial);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(fds[0]);
            Child(dir.str(), name, fds[1]);
        }
        close(fds[1]);
        uint32_t confirmed = 0;
        ASSERT_TRUE(ReadReport(fds[0], &confirmed)) << "the child did not get going";
        usleep(static_cast<useconds_t>(delayUs(rng)));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself: " << status;
        for (uint32_t value; ReadReport(fds[0], &value);)
            confirmed = value;
        close(fds[0]);

        const std::string path = dir / (name + ".txt");
        const std::string text = Slurp(path);
        ASSERT_EQ(text.find('\0'), std::string::npos) << "trial " << trial;
        uint32_t line = 0;
        size_t at = 0;
        for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
            ++line;
            const std::string want = LineText(line);
            ASSERT_EQ(end - at, kStamp + want.size()) << "trial " << trial << " line " << line;
            ASSERT_EQ(text[at], '(');
            ASSERT_EQ(text.compare(at + kStamp, want.size(), want), 0)
                << "trial " << trial << " line " << line;
        }
        ASSERT_GE(line, confirmed) << "trial " << trial << ": confirmed lines are missing";
        if (at < text.size()) {
            // The torn end of the next line, and nothing else: at most its "\r" without the "\n".
            ++torn;
            const std::string rest = text.substr(at);
            const std::string next = LineText(line + 1) + "\r";
            ASSERT_LE(rest.size(), kStamp + next.size()) << "trial " << trial;
            ASSERT_EQ(rest[0], '(') << "trial " << trial;
            if (rest.size() > kStamp) {
                ASSERT_EQ(next.compare(0, rest.size() - kStamp, rest, kStamp), 0)
                    << "trial " << trial;
            }
        }
        lines += line;
        confirmedLines += confirmed;
        std::remove(path.c_str());
    }
    std::cout << trials << " kills: " << lines << " whole lines, " << confirmedLines
              << " of them confirmed before the kill, " << torn << " torn last lines\n";
}
