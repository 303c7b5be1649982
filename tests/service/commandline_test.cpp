// Cutting command lines, splitting command names and laying out help lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/CommandTree.h"
#include "service_test_util.h"

using namespace TOLVEN;

namespace {

struct Cut {
    bool ok;
    const char* command;
    std::vector<std::string> args;
};

Cut CutLine(std::string& line, unsigned int room = 20) {
    const char* command = nullptr;
    const char* args[64] = {};
    unsigned int count = room;
    Cut result{CutCommand(line.data(), &command, args, &count), command, {}};
    for (unsigned int i = 0; i < count; ++i)
        result.args.emplace_back(args[i]);
    return result;
}

std::string HelpLines(std::string_view name, std::string_view text) {
    svctest::TextWriter writer;
    detail::WriteHelpLine(writer, name, text);
    return writer.Take();
}

std::string Repeat(const std::string& piece, int times) {
    std::string out;
    for (int i = 0; i < times; ++i)
        out += piece;
    return out;
}

}  // namespace

TEST(CutCommand, SeparatorsQuotesAndTheTrailingQuirk) {
    std::string line = " show,config\tpath\nx ";
    Cut cut = CutLine(line);
    ASSERT_TRUE(cut.ok);
    EXPECT_STREQ(cut.command, "show");
    EXPECT_EQ(cut.args, (std::vector<std::string>{"config", "path", "x"}));

    // One trailing separator leaves nothing, two leave one empty argument.
    line = "show ";
    EXPECT_TRUE(CutLine(line).args.empty());
    line = "show  ";
    EXPECT_EQ(CutLine(line).args, (std::vector<std::string>{""}));

    // A quoted argument keeps its separators and loses its quotes; an open quote runs to
    // the end; a quote inside a word, or opening the first word, is an ordinary character.
    line = R"(set "a b,c" d"e "open end)";
    cut = CutLine(line);
    ASSERT_TRUE(cut.ok);
    EXPECT_EQ(cut.args, (std::vector<std::string>{"a b,c", "d\"e", "open end"}));
    line = R"("set x)";
    EXPECT_STREQ(CutLine(line).command, "\"set");
    line = R"(a "b"c)";
    EXPECT_EQ(CutLine(line).args, (std::vector<std::string>{"b", "c"}));
}

TEST(CommandName, SplitsAtBlanksSemicolonsAndUnderscores) {
    for (const char* name : {"show_config", " show;;_ config ", "show \t_config"}) {
        detail::CommandName split = detail::SplitCommandName(name);
        EXPECT_EQ(split.words, (std::vector<std::string>{"show", "config"})) << name;
        EXPECT_EQ(split.fullName, "show config");
    }
    for (const char* empty : {"", " ;_ ", static_cast<const char*>(nullptr)})
        EXPECT_TRUE(detail::SplitCommandName(empty).words.empty());
    // Only the first 1023 characters count.
    const std::string longName = std::string(1023, 'a') + "b";
    EXPECT_EQ(detail::SplitCommandName(longName.c_str()).fullName, std::string(1023, 'a'));
}

TEST(HelpLine, PadsTheNameAndWrapsAfterBlanks) {
    EXPECT_EQ(HelpLines("quit", "Quits the application."),
              "quit                Quits the application.\n");
    EXPECT_EQ(HelpLines("show", ""), "show\n") << "no text: the name unpadded";
    // A name of 20 or more characters moves the text column behind it.
    EXPECT_EQ(HelpLines("a_name_of_24_characters_", "text"), "a_name_of_24_characters_text\n");

    // 150 characters of five-letter words: 55, 55 and 40 characters a line, each chunk
    // ending behind its last blank.
    const std::string pad(20, ' ');
    EXPECT_EQ(HelpLines("cmd", Repeat("word ", 30)),
              "cmd" + std::string(17, ' ') + Repeat("word ", 11) + "\n" + pad +
                  Repeat("word ", 11) + "\n" + pad + Repeat("word ", 8) + "\n");
    // A chunk's leading blanks are dropped.
    EXPECT_EQ(HelpLines("c", std::string(59, 'x') + "   tail"),
              "c" + std::string(19, ' ') + std::string(59, 'x') + "\n" + pad + "tail\n");
}

TEST(HelpLine, WithoutBlanksBreaksAtCommasAndSlashes) {
    const std::string pad(20, ' ');
    std::string items;
    for (int i = 0; i < 12; ++i)
        items += "item0" + std::to_string(i % 10) + ",";
    // Eight items of seven characters fit in 59; the cut is behind the last comma.
    EXPECT_EQ(HelpLines("x", items), "x" + std::string(19, ' ') + items.substr(0, 56) + "\n" + pad +
                                         items.substr(56) + "\n");
    // A slash as the 59th character keeps all 59.
    const std::string slash = std::string(58, 'a') + "/" + std::string(20, 'b');
    EXPECT_EQ(HelpLines("x", slash), "x" + std::string(19, ' ') + slash.substr(0, 59) + "\n" + pad +
                                         slash.substr(59) + "\n");
    // Nothing to break at: 59 characters a line.
    const std::string solid(100, 'z');
    EXPECT_EQ(HelpLines("x", solid), "x" + std::string(19, ' ') + std::string(59, 'z') + "\n" +
                                         pad + std::string(41, 'z') + "\n");
}
