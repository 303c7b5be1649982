// The command registry and ProcessCommand: look-up, arguments, rights, answers, help.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "service_test_util.h"

using namespace TOLVEN;

namespace {

// What the handler saw last.
struct Seen {
    int runs = 0;
    std::string command;
    std::vector<std::string> args;
    bool argsNull = false;
};

basicsrv_status Record(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* seen = static_cast<Seen*>(context);
    ++seen->runs;
    seen->command = info.command;
    seen->args.assign(info.args, info.args + info.argc);
    seen->argsNull = info.args == nullptr;
    (void)info.writer->WriteStatus("ran");
    return basicsrv_invalid_parameter;  // a failure, which ProcessCommand does not pass on
}

basicsrv_status Throw(_BASICSRV_COMMAND_INFO&, void*) {
    throw std::runtime_error("boom");
}

_BASICSRV_STARTUP_INFO QuietInfo() {
    _BASICSRV_STARTUP_INFO info;
    info.srvName = "test";
    info.noFileLog = true;
    info.registerQuit = false;
    return info;
}

// A service that records and answers the right hooks.
class RightsSrv : public BasicSrv {
  public:
    RightsSrv() : BasicSrv(QuietInfo()) {}
    mutable std::vector<std::string> asked;
    bool rootAnswer = true, commandAnswer = true, throwing = false;

  protected:
    bool CanRunRootCommand(unsigned int id, const char* command, bool flag) const override {
        asked.push_back("root:" + std::string(command) + ":" + std::to_string(id) +
                        (flag ? ":flag" : ""));
        if (throwing) throw std::runtime_error("hook");
        return rootAnswer;
    }
    bool CanRunCommand(unsigned int, const char* command, bool) const override {
        asked.push_back("cmd:" + std::string(command));
        return commandAnswer;
    }
};

class Dispatch : public ::testing::Test {
  protected:
    void SetUp() override {
        // Only help, ? and maint of the built-in commands stay; the tree below is the test's.
        for (const char* name : {"show uptime", "show version", "show alloc", "show threads",
                                 "show logn", "reset logn", "filelevel", "show counters",
                                 "reset counters", "show config", "show configs", "show metrics"})
            ASSERT_EQ(srv_.UnregisterCommand(name), basicsrv_success) << name;
        Register("show config", "Shows a configuration value.", "$COMMAND <section> <item>");
        Register("show counters", "Shows counters.", "");
        Register("echo", "Echoes.", "");
    }
    void Register(const char* name, const char* shortHelp, const char* longHelp,
                  BasicSrvCommandHandler handler = &Record) {
        ASSERT_EQ(srv_.RegisterCommand({name, shortHelp, longHelp, &seen_, handler}),
                  basicsrv_success)
            << name;
    }
    basicsrv_status Run(const std::string& line, unsigned int callerId = 0) {
        return srv_.ProcessCommand(line.c_str(), &out_, true, false, callerId);
    }
    // Runs a line and gives its answer.
    std::string Answer(const std::string& line) {
        (void)Run(line);
        return out_.Take();
    }
    RightsSrv srv_;
    Seen seen_;
    svctest::TextWriter out_;
};

}  // namespace

TEST_F(Dispatch, NamedWordsLeaveTheArguments) {
    EXPECT_EQ(Run("show config a \"b c\""), basicsrv_success) << "the handler's status is dropped";
    EXPECT_EQ(seen_.command, "show config");
    EXPECT_EQ(seen_.args, (std::vector<std::string>{"a", "b c"}));
    EXPECT_EQ(out_.Take(), "\nran\n");
    EXPECT_EQ(Answer("echo"), "\nran\n");
    EXPECT_TRUE(seen_.argsNull);
    // A word that matches no child ends the walk and stays an argument.
    EXPECT_EQ(Run("show config x config"), basicsrv_success);
    EXPECT_EQ(seen_.args, (std::vector<std::string>{"x", "config"}));
    // Without a writer the handler still gets one, and the answers are dropped.
    EXPECT_EQ(srv_.ProcessCommand("echo", nullptr, false, true, 0), basicsrv_success);
    EXPECT_EQ(srv_.ProcessCommand("  ", nullptr, false, true, 0), basicsrv_invalid_command);
}

TEST_F(Dispatch, AnswersToBadLines) {
    EXPECT_EQ(Answer("nothing here"), "\nCommand nothing not found!\n");
    for (const char* blank : {"", "   ", " ,\t\n"}) {
        EXPECT_EQ(Run(blank), basicsrv_invalid_command);
        EXPECT_EQ(out_.Take(), "\nInvalid command\n");
    }
    std::string twenty = "echo";
    for (int i = 0; i < 20; ++i)
        twenty += " a";
    EXPECT_EQ(Answer(twenty), "\nran\n");
    EXPECT_EQ(Run(twenty + " a"), basicsrv_invalid_command);
    EXPECT_EQ(out_.Take(), "\nError parsing command\n");
    EXPECT_EQ(srv_.ProcessCommand(nullptr, &out_, false, false, 0), basicsrv_invalid_parameter);
    EXPECT_EQ(out_.Take(), "");

    // Lines are cut at 4095 characters, and so are answers.
    EXPECT_EQ(Run("echo " + std::string(5000, 'x')), basicsrv_success);
    ASSERT_EQ(seen_.args.size(), 1u);
    EXPECT_EQ(seen_.args[0].size(), 4095u - 5u);
    (void)out_.Take();
    const std::string answer = Answer(std::string(4095, 'q'));
    EXPECT_EQ(answer.size(), 4095u);
    EXPECT_EQ(answer.rfind("\nCommand qqq", 0), 0u);
    std::string binary;
    for (int c = 1; c < 256; ++c)
        binary += static_cast<char>(c);
    EXPECT_NE(Answer(binary).find("not found!"), std::string::npos);
}

TEST_F(Dispatch, RightsAreAskedOnceAWordOpensATree) {
    EXPECT_EQ(Run("show config a", 7), basicsrv_success);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"root:show:7:flag"}));

    srv_.asked.clear();
    srv_.rootAnswer = srv_.commandAnswer = false;
    (void)out_.Take();
    EXPECT_EQ(Run("show config"), basicsrv_permission_denied);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"root:show:0:flag", "cmd:show config"}));
    EXPECT_EQ(out_.Take(), "You do not have permission to run the show config command!\n");

    // A single word answers for itself only.
    srv_.asked.clear();
    EXPECT_EQ(Run("echo show"), basicsrv_permission_denied);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"cmd:echo"}));

    srv_.throwing = true;  // a hook that throws refuses, and the throw goes no further
    EXPECT_EQ(Run("show config"), basicsrv_permission_denied);
    EXPECT_EQ(seen_.runs, 1);
}

TEST_F(Dispatch, AThrowingHandlerIsContained) {
    Register("bad", "", "", &Throw);
    EXPECT_EQ(Run("bad"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\nCommand bad failed: boom\n");
    // The run is no longer counted: unregistering does not wait for it.
    EXPECT_EQ(srv_.UnregisterAllCommands(), basicsrv_success);
    EXPECT_FALSE(srv_.CommandExists("echo"));
}

TEST_F(Dispatch, RegisteringAndUnregistering) {
    EXPECT_EQ(srv_.RegisterCommand({"show_config", "", "", nullptr, &Record}),
              basicsrv_already_exists);
    EXPECT_FALSE(srv_.CommandExists("show")) << "a group is no command";
    Register("show", "The group itself.", "");
    EXPECT_EQ(srv_.UnregisterCommand("show"), basicsrv_success);
    EXPECT_TRUE(srv_.CommandExists("show;config")) << "the children stay";
    EXPECT_EQ(srv_.UnregisterCommand("show"), basicsrv_not_found);

    // The last child takes its childless ancestors along, commands included.
    Register("a", "", "");
    Register("a b", "", "");
    EXPECT_EQ(srv_.UnregisterCommand("a b"), basicsrv_success);
    EXPECT_FALSE(srv_.CommandExists("a"));
}

TEST_F(Dispatch, Help) {
    Register("g x a z", "", "");
    Register("g x b", "", "");
    Register("g y", "", "");
    Register("silent", "", "");
    EXPECT_EQ(Answer("help"),
              "\nHelp Commands:\n"
              "?                   Displays help.\n"
              "echo                Echoes.\n"
              "g                   x (a (z)/b), y\n"
              "help                Displays help.\n"
              "maint               Run or display application maintenance commands.\n"
              "show                config, counters\n"
              "silent\n"
              "\n");
    EXPECT_EQ(Answer("help show config"), "\nshow config <section> <item>\n\n");
    EXPECT_EQ(Answer("? show counters"), "\nShows counters.\n\n");
    // A group, or an unknown word under it, lists the group's commands.
    const std::string listing =
        "\nshow commands:\n"
        "config              Shows a configuration value.\n"
        "counters            Shows counters.\n\n";
    EXPECT_EQ(Answer("show nothing"), listing);
    EXPECT_EQ(Answer("help show"), "\n" + listing);
    EXPECT_EQ(Answer("help silent"), "\n\nSorry, no help found for command silent.\n\n");
    EXPECT_EQ(Answer("help nothing at_all"), "\n\nCommand nothing at all not found!\n\n");
    EXPECT_EQ(Answer("help g q"),
              "\n\nCommand g q not found!\n\ng commands:\nx                   a (z), b\ny\n\n");
}

namespace {
struct Blocking {
    svctest::Gate entered, release;
    std::atomic<bool> returned{false};
    std::string commandAfter;
};
basicsrv_status Block(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* b = static_cast<Blocking*>(context);
    b->entered.Open();
    b->release.Wait();
    b->commandAfter = info.command;  // still readable after the node went away
    return basicsrv_success;
}
}  // namespace

TEST(DispatchRuns, UnregisteringWaitsForRunningCommands) {
    svctest::LogCollector log(LOGGER_TRACE);
    BasicSrv srv(QuietInfo());
    Blocking b;
    ASSERT_EQ(srv.RegisterCommand({"slow", "", "", &b, &Block}), basicsrv_success);
    std::thread runner([&] { (void)srv.ProcessCommand("slow", nullptr, false, false, 0); });
    b.entered.Wait();
    std::thread remover([&] {
        (void)srv.UnregisterAllCommands();
        b.returned = true;
    });
    log.WaitFor("Waiting for active commands to complete!");
    EXPECT_FALSE(b.returned) << "the tree stays while a command runs";
    EXPECT_TRUE(srv.CommandExists("slow"));
    b.release.Open();
    runner.join();
    remover.join();
    EXPECT_FALSE(srv.CommandExists("slow"));

    // One command alone gets one grace period and goes from under its running handler.
    Blocking c;
    ASSERT_EQ(srv.RegisterCommand({"slow cmd", "", "", &c, &Block}), basicsrv_success);
    runner = std::thread([&] { (void)srv.ProcessCommand("slow cmd", nullptr, false, false, 0); });
    c.entered.Wait();
    EXPECT_EQ(srv.UnregisterCommand("slow cmd"), basicsrv_success);
    EXPECT_FALSE(srv.CommandExists("slow cmd"));
    c.release.Open();
    runner.join();
    EXPECT_EQ(c.commandAfter, "slow cmd");
}
TEST(DispatchRuns, ManyThreadsRunAndRegisterAtOnce) {
    BasicSrv srv(QuietInfo());
    std::atomic<int> runs{0};
    auto count = [](_BASICSRV_COMMAND_INFO&, void* c) {
        ++*static_cast<std::atomic<int>*>(c);
        return basicsrv_success;
    };
    ASSERT_EQ(srv.RegisterCommand({"count it", "", "", &runs, count}), basicsrv_success);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i)
                (void)srv.ProcessCommand("count it now", nullptr, false, false, 0);
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 100; ++i) {
            const std::string name = "temp " + std::to_string(i);
            (void)srv.RegisterCommand({name.c_str(), "", "", &runs, count});
            (void)srv.UnregisterCommand(name.c_str());
        }
    });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(runs.load(), 900);
}
