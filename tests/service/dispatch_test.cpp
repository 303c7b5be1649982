// The command registry and ProcessCommand: look-up, arguments, rights, messages, help.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "service_test_util.h"

using namespace TOLVEN;
using svctest::TextWriter;

namespace {

// What a handler saw.
struct Seen {
    int runs = 0;
    std::string command;
    std::vector<std::string> args;
    bool argsNull = false;
    bool writerNull = false;
    bool callerFlag = false;
    bool interactive = false;
};

basicsrv_status Record(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* seen = static_cast<Seen*>(context);
    ++seen->runs;
    seen->command = info.command;
    seen->args.assign(info.args, info.args + info.argc);
    seen->argsNull = info.args == nullptr;
    seen->writerNull = info.writer == nullptr;
    seen->callerFlag = info.callerFlag;
    seen->interactive = info.interactive;
    (void)info.writer->WriteStatus("ran");
    return basicsrv_invalid_parameter;  // a failure, which ProcessCommand does not pass on
}

basicsrv_status Throw(_BASICSRV_COMMAND_INFO&, void*) {
    throw std::runtime_error("boom");
}

// A service that records and answers the right hooks.
class RightsSrv : public BasicSrv {
  public:
    RightsSrv() : BasicSrv(MakeInfo()) {}
    static _BASICSRV_STARTUP_INFO MakeInfo() {
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "rights";
        info.noFileLog = true;
        info.registerQuit = false;
        return info;
    }
    mutable std::vector<std::string> asked;
    bool rootAnswer = true;
    bool commandAnswer = true;
    bool throwing = false;

  protected:
    bool CanRunRootCommand(unsigned int callerId, const char* command,
                           bool callerFlag) const override {
        asked.push_back("root:" + std::string(command) + ":" + std::to_string(callerId) +
                        (callerFlag ? ":flag" : ""));
        if (throwing) throw std::runtime_error("hook");
        return rootAnswer;
    }
    bool CanRunCommand(unsigned int callerId, const char* command, bool callerFlag) const override {
        asked.push_back("cmd:" + std::string(command));
        return commandAnswer;
    }
};

class Dispatch : public ::testing::Test {
  protected:
    void SetUp() override {
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
    RightsSrv srv_;
    Seen seen_;
    TextWriter out_;
};

}  // namespace

TEST_F(Dispatch, NamedWordsLeaveTheArguments) {
    EXPECT_EQ(Run("show config a \"b c\""), basicsrv_success)
        << "the handler's failure is not passed on";
    EXPECT_EQ(seen_.command, "show config");
    EXPECT_EQ(seen_.args, (std::vector<std::string>{"a", "b c"}));
    EXPECT_TRUE(seen_.callerFlag);
    EXPECT_FALSE(seen_.interactive);
    EXPECT_EQ(out_.Take(), "\nran\n");
    EXPECT_EQ(out_.flushes_, 0) << "flushing is the transport's business";

    EXPECT_EQ(Run("echo"), basicsrv_success);
    EXPECT_TRUE(seen_.argsNull);
    EXPECT_EQ(seen_.command, "echo");

    // A word that matches no child ends the walk and stays an argument.
    EXPECT_EQ(Run("show config x config"), basicsrv_success);
    EXPECT_EQ(seen_.args, (std::vector<std::string>{"x", "config"}));

    // The handler always gets a writer.
    EXPECT_EQ(srv_.ProcessCommand("echo", nullptr, false, true, 0), basicsrv_success);
    EXPECT_FALSE(seen_.writerNull);
    EXPECT_TRUE(seen_.interactive);
}

TEST_F(Dispatch, QuotedAnswers) {
    EXPECT_EQ(Run("nothing here"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\nCommand nothing not found!\n");
    EXPECT_EQ(Run("Show config"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\nCommand Show not found!\n") << "words are case-sensitive";

    for (const char* blank : {"", "   ", " ,\t\n"}) {
        EXPECT_EQ(Run(blank), basicsrv_invalid_command);
        EXPECT_EQ(out_.Take(), "\nInvalid command\n");
    }
    std::string twenty = "echo";
    for (int i = 0; i < 20; ++i)
        twenty += " a";
    EXPECT_EQ(Run(twenty), basicsrv_success);
    EXPECT_EQ(seen_.args.size(), 20u);
    (void)out_.Take();
    EXPECT_EQ(Run(twenty + " a"), basicsrv_invalid_command);
    EXPECT_EQ(out_.Take(), "\nError parsing command\n");
    EXPECT_EQ(seen_.runs, 1);

    EXPECT_EQ(srv_.ProcessCommand(nullptr, &out_, false, false, 0), basicsrv_invalid_parameter);
    EXPECT_EQ(out_.Take(), "");
    // With no writer the answers are dropped.
    EXPECT_EQ(srv_.ProcessCommand("  ", nullptr, false, false, 0), basicsrv_invalid_command);
    EXPECT_EQ(srv_.ProcessCommand("zzz", nullptr, false, false, 0), basicsrv_success);
}

TEST_F(Dispatch, GroupsListTheirCommands) {
    const std::string listing =
        "\nshow commands:\n"
        "config              Shows a configuration value.\n"
        "counters            Shows counters.\n"
        "\n";
    EXPECT_EQ(Run("show"), basicsrv_success);
    EXPECT_EQ(out_.Take(), listing);
    EXPECT_EQ(Run("show nothing"), basicsrv_success);
    EXPECT_EQ(out_.Take(), listing) << "an unknown word under a group lists the group";
    EXPECT_EQ(seen_.runs, 0);
    EXPECT_TRUE(srv_.asked.empty()) << "listing a group asks no right";
}

TEST_F(Dispatch, LongAndBinaryLines) {
    // The line is cut at 4095 characters, here inside the only argument.
    const std::string line = "echo " + std::string(5000, 'x');
    EXPECT_EQ(Run(line), basicsrv_success);
    ASSERT_EQ(seen_.args.size(), 1u);
    EXPECT_EQ(seen_.args[0].size(), 4095u - 5u);

    // An unknown word of 4095 characters: the answer is cut at 4095 characters too.
    (void)out_.Take();
    EXPECT_EQ(Run(std::string(4095, 'q')), basicsrv_success);
    const std::string answer = out_.Take();
    EXPECT_EQ(answer.size(), 4095u);
    EXPECT_EQ(answer.rfind("\nCommand qqq", 0), 0u);

    std::string binary;
    for (int c = 1; c < 256; ++c)
        binary += static_cast<char>(c);
    EXPECT_EQ(Run(binary), basicsrv_success);
    EXPECT_NE(out_.Take().find("not found!"), std::string::npos);
}

TEST_F(Dispatch, RightsAreAskedOnceAWordOpensATree) {
    // The first word's right covers everything below it.
    EXPECT_EQ(Run("show config a", 7), basicsrv_success);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"root:show:7:flag"}));
    EXPECT_EQ(seen_.runs, 1);

    // Refused for the tree, asked for the command, refused again.
    srv_.asked.clear();
    srv_.rootAnswer = false;
    srv_.commandAnswer = false;
    (void)out_.Take();
    EXPECT_EQ(Run("show config"), basicsrv_permission_denied);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"root:show:0:flag", "cmd:show config"}));
    EXPECT_EQ(out_.Take(), "You do not have permission to run the show config command!\n");
    EXPECT_EQ(seen_.runs, 1);

    // A single word answers for itself only.
    srv_.asked.clear();
    EXPECT_EQ(Run("echo show"), basicsrv_permission_denied);
    EXPECT_EQ(srv_.asked, (std::vector<std::string>{"cmd:echo"}));

    srv_.commandAnswer = true;
    EXPECT_EQ(Run("show config"), basicsrv_success);
    EXPECT_EQ(seen_.runs, 2);

    // A hook that throws refuses.
    srv_.throwing = true;
    srv_.commandAnswer = false;
    EXPECT_EQ(Run("show config"), basicsrv_permission_denied);
}

TEST_F(Dispatch, AThrowingHandlerIsContained) {
    Register("bad", "", "", &Throw);
    EXPECT_EQ(Run("bad"), basicsrv_success);
    const std::string text = out_.Take();
    EXPECT_EQ(text.rfind("\nCommand bad failed: boom\n", 0), 0u) << text;
    // The run is no longer counted: unregistering does not wait for it.
    EXPECT_EQ(srv_.UnregisterAllCommands(), basicsrv_success);
    EXPECT_FALSE(srv_.CommandExists("echo"));
}

TEST_F(Dispatch, RegisteringAndUnregistering) {
    EXPECT_EQ(srv_.RegisterCommand({"show_config", "", "", nullptr, &Record}),
              basicsrv_already_exists);
    EXPECT_TRUE(srv_.CommandExists("show;config"));
    EXPECT_FALSE(srv_.CommandExists("show")) << "a group is no command";
    EXPECT_FALSE(srv_.CommandExists(nullptr));
    Register("show", "The group itself.", "");
    EXPECT_TRUE(srv_.CommandExists("show"));
    EXPECT_EQ(srv_.UnregisterCommand("show"), basicsrv_success);
    EXPECT_TRUE(srv_.CommandExists("show config")) << "the children stay";
    EXPECT_EQ(srv_.UnregisterCommand("show"), basicsrv_not_found);

    // Taking the last child away takes its childless ancestors, commands included.
    Register("a", "", "");
    Register("a b", "", "");
    EXPECT_EQ(srv_.UnregisterCommand("a b"), basicsrv_success);
    EXPECT_FALSE(srv_.CommandExists("a"));
    Register("a", "", "");
    Register("a b", "", "");
    Register("a c", "", "");
    EXPECT_EQ(srv_.UnregisterCommand("a b"), basicsrv_success);
    EXPECT_TRUE(srv_.CommandExists("a"));
    EXPECT_TRUE(srv_.CommandExists("a c"));
}

TEST_F(Dispatch, Help) {
    Register("g x a z", "", "");
    Register("g x b", "", "");
    Register("g y", "", "");
    Register("silent", "", "");
    EXPECT_EQ(Run("help"), basicsrv_success);
    EXPECT_EQ(out_.Take(),
              "\nHelp Commands:\n"
              "?                   Displays help.\n"
              "echo                Echoes.\n"
              "g                   x (a (z)/b), y\n"
              "help                Displays help.\n"
              "show                config, counters\n"
              "silent\n"
              "\n");
    EXPECT_EQ(Run("help show config"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\nshow config <section> <item>\n\n") << "$COMMAND is replaced";
    EXPECT_EQ(Run("? show counters"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\nShows counters.\n\n");
    EXPECT_EQ(Run("help show"), basicsrv_success);
    EXPECT_EQ(out_.Take(),
              "\n\nshow commands:\n"
              "config              Shows a configuration value.\n"
              "counters            Shows counters.\n\n");
    EXPECT_EQ(Run("help silent"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\n\nSorry, no help found for command silent.\n\n");
    EXPECT_EQ(Run("help nothing at_all"), basicsrv_success);
    EXPECT_EQ(out_.Take(), "\n\nCommand nothing at all not found!\n\n");
    EXPECT_EQ(Run("help g q"), basicsrv_success);
    EXPECT_EQ(out_.Take(),
              "\n\nCommand g q not found!\n\ng commands:\n"
              "x                   a (z), b\n"
              "y\n\n");
}

namespace {
struct Blocking {
    svctest::Gate entered, release;
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

TEST(DispatchRuns, UnregisterAllWaitsForRunningCommands) {
    svctest::LogCollector log(LOGGER_TRACE);
    BasicSrv srv(static_cast<_BASICSRV_STARTUP_INFO*>(nullptr));
    Blocking b;
    ASSERT_EQ(srv.RegisterCommand({"slow", "", "", &b, &Block}), basicsrv_success);
    std::thread runner([&] { (void)srv.ProcessCommand("slow", nullptr, false, false, 0); });
    b.entered.Wait();

    std::atomic<bool> done{false};
    std::thread remover([&] {
        (void)srv.UnregisterAllCommands();
        done = true;
    });
    log.WaitFor("Waiting for active commands to complete!");
    EXPECT_FALSE(done) << "the tree stays while a command runs";
    EXPECT_TRUE(srv.CommandExists("slow"));
    b.release.Open();
    runner.join();
    remover.join();
    EXPECT_TRUE(done);
    EXPECT_FALSE(srv.CommandExists("slow"));
}

TEST(DispatchRuns, UnregisterGivesARunningCommandOneGrace) {
    BasicSrv srv(static_cast<_BASICSRV_STARTUP_INFO*>(nullptr));
    Blocking b;
    ASSERT_EQ(srv.RegisterCommand({"slow cmd", "", "", &b, &Block}), basicsrv_success);
    std::thread runner([&] { (void)srv.ProcessCommand("slow cmd", nullptr, false, false, 0); });
    b.entered.Wait();
    // Returns while the handler still runs, and the command is gone under it.
    EXPECT_EQ(srv.UnregisterCommand("slow cmd"), basicsrv_success);
    EXPECT_FALSE(srv.CommandExists("slow cmd"));
    EXPECT_FALSE(b.release.IsOpen());
    b.release.Open();
    runner.join();
    EXPECT_EQ(b.commandAfter, "slow cmd");
    // The run's count was kept apart from the node: nothing is left to wait for.
    EXPECT_EQ(srv.UnregisterAllCommands(), basicsrv_success);
}

TEST(DispatchRuns, ManyThreadsRunAndRegisterAtOnce) {
    BasicSrv srv(static_cast<_BASICSRV_STARTUP_INFO*>(nullptr));
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
