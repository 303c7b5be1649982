// The command word tree and the text helpers of the command line: name splitting, the
// command list and the help-line layout.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tolven/basicsrv.h"

namespace TOLVEN::detail {

struct CommandNode;

// Children of a node, or the root: word to node, compared byte by byte (case-sensitive).
using CommandMap = std::map<std::string, std::unique_ptr<CommandNode>, std::less<>>;

// One word of the command tree. A node with an empty fullName only groups others. Not
// thread-safe: the service's state lock guards the tree.
struct CommandNode {
    std::string word;
    CommandMap children;
    std::string fullName;
    std::string shortHelp;
    std::string longHelp;
    void* context = nullptr;
    BasicSrvCommandHandler handler = nullptr;
};

// Longest command name taken by SplitCommandName, in characters.
inline constexpr std::size_t kMaxCommandName = 1023;

// A command name split into words, and the words joined by single blanks.
struct CommandName {
    std::vector<std::string> words;
    std::string fullName;
};

// Splits at most 1023 characters of `name` at runs of ';', '_' and ' ', and trims blanks
// and tabs from the ends of each word; words left empty are dropped. Null gives no words.
CommandName SplitCommandName(const char* name);

// Replaces every "$COMMAND" in `text` by `fullName`.
std::string ExpandCommandHelp(const char* text, const std::string& fullName);

// Writes one help line (or several, wrapped) of `name` and `text`: the name padded to
// column 20, the text in chunks of at most 59 characters broken after a blank, else at a
// ',' or '/'.
void WriteHelpLine(BasicSrvStatusWriter& writer, std::string_view name, std::string_view text);

// The children of `node` as the list shows them: "a, b (c/d (e))".
std::string CommandSubList(const CommandNode& node);

// Writes the list of the commands of `map`: each word with its short help, and the words
// under it.
void WriteCommandList(BasicSrvStatusWriter& writer, const CommandMap& map);

}  // namespace TOLVEN::detail
