// The command word tree's text helpers.
#include "service/CommandTree.h"

#include <algorithm>
#include <cstring>

#include "tolven/osutils.h"

namespace TOLVEN::detail {
namespace {

// Where the help text starts when the name is shorter.
constexpr std::size_t kHelpTextColumn = 20;
// Longest name in a help line.
constexpr std::size_t kHelpNameMax = 119;
// Longest piece of help text on one line.
constexpr std::size_t kHelpChunk = 59;

bool IsBlankOrTab(char c) noexcept {
    return c == ' ' || c == '\t';
}

void AppendSubList(const CommandNode& node, const char* separator, std::string& out) {
    bool first = true;
    for (const auto& [word, child] : node.children) {
        if (!first) out += separator;
        first = false;
        out += word;
        if (!child->children.empty()) {
            out += " (";
            AppendSubList(*child, "/", out);
            out += ')';
        }
    }
}

}  // namespace

CommandName SplitCommandName(const char* name) {
    CommandName result;
    if (name == nullptr) return result;
    char copy[kMaxCommandName + 1];
    const std::size_t length = strnlen(name, kMaxCommandName);
    std::memcpy(copy, name, length);
    copy[length] = '\0';

    char* state = nullptr;
    for (char* token = OS::strtok_reentrant(copy, ";_ ", &state); token != nullptr;
         token = OS::strtok_reentrant(nullptr, ";_ ", &state)) {
        std::string_view word(token);
        while (!word.empty() && IsBlankOrTab(word.front()))
            word.remove_prefix(1);
        while (!word.empty() && IsBlankOrTab(word.back()))
            word.remove_suffix(1);
        if (word.empty()) continue;
        if (!result.words.empty()) result.fullName += ' ';
        result.fullName += word;
        result.words.emplace_back(word);
    }
    return result;
}

std::string ExpandCommandHelp(const char* text, const std::string& fullName) {
    static constexpr std::string_view kMarker = "$COMMAND";
    std::string out;
    if (text == nullptr) return out;
    std::string_view rest(text);
    for (;;) {
        const std::size_t at = rest.find(kMarker);
        if (at == std::string_view::npos) break;
        out.append(rest.substr(0, at));
        out += fullName;
        rest.remove_prefix(at + kMarker.size());
    }
    out.append(rest);
    return out;
}

void WriteHelpLine(BasicSrvStatusWriter& writer, std::string_view name, std::string_view text) {
    std::string lead(name.substr(0, kHelpNameMax));
    if (text.empty()) {
        lead += '\n';
        (void)writer.WriteStatus(lead.c_str());
        return;
    }
    const std::size_t column = std::max(lead.size(), kHelpTextColumn);
    lead.resize(column, ' ');

    std::size_t pos = 0;
    std::string line;
    while (pos < text.size()) {
        const std::size_t left = text.size() - pos;
        std::size_t length = std::min(left, kHelpChunk);
        if (left > kHelpChunk && text[pos + length - 1] != ' ') {
            const std::string_view chunk = text.substr(pos, kHelpChunk);
            const std::size_t blank = chunk.rfind(' ');
            if (blank != std::string_view::npos) {
                length = blank + 1;
            } else if (chunk.back() != '/') {
                const std::size_t mark = chunk.find_last_of(",/");
                if (mark != std::string_view::npos) length = mark + 1;
            }
        }
        std::string_view chunk = text.substr(pos, length);
        pos += length;
        while (!chunk.empty() && chunk.front() == ' ')
            chunk.remove_prefix(1);

        line.assign(lead);
        line.append(chunk);
        line += '\n';
        (void)writer.WriteStatus(line.c_str());
        lead.assign(column, ' ');
    }
}

std::string CommandSubList(const CommandNode& node) {
    std::string out;
    AppendSubList(node, ", ", out);
    return out;
}

void WriteCommandList(BasicSrvStatusWriter& writer, const CommandMap& map) {
    for (const auto& [word, node] : map) {
        const std::string sub = CommandSubList(*node);
        if (!node->shortHelp.empty()) {
            WriteHelpLine(writer, word, node->shortHelp);
            if (!sub.empty()) WriteHelpLine(writer, {}, sub);
        } else {
            WriteHelpLine(writer, word, sub);
        }
    }
}

}  // namespace TOLVEN::detail

namespace TOLVEN {
namespace {
bool IsCommandSeparator(char c) noexcept {
    return c == ' ' || c == ',' || c == '\t' || c == '\n';
}
}  // namespace

bool CutCommand(char* line, const char** command, const char** args, unsigned int* count) {
    const unsigned int room = (count != nullptr && args != nullptr) ? *count : 0;
    if (command != nullptr) *command = nullptr;
    if (count != nullptr) *count = 0;
    if (line == nullptr || command == nullptr) return true;

    unsigned int found = 0;
    bool first = true;
    char* p = line;
    while (*p != '\0') {
        while (IsCommandSeparator(*p))
            ++p;
        char* start = p;
        if (first) {
            // A line of separators has no first word.
            if (*p == '\0') break;
            first = false;
            while (*p != '\0' && !IsCommandSeparator(*p))
                ++p;
            *command = start;
        } else {
            if (found == room) {
                if (count != nullptr) *count = found;
                return false;
            }
            if (*p == '"') {
                start = ++p;
                while (*p != '\0' && *p != '"')
                    ++p;
            } else {
                while (*p != '\0' && !IsCommandSeparator(*p))
                    ++p;
            }
            args[found++] = start;
        }
        if (*p == '\0') break;
        *p++ = '\0';
    }
    if (count != nullptr) *count = found;
    return true;
}

}  // namespace TOLVEN
