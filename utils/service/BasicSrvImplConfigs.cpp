// Configuration files named inside the configuration: their discovery at construction and
// the show configs command.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <string>

#include "service/BasicSrvImpl.h"
#include "service/ServiceText.h"
#include "tolven/iniconfigreader.h"

namespace TOLVEN {
namespace {

// More items than this end the discovery; files that name each other end here too.
constexpr size_t kMaxEmbeddedItems = 100;
constexpr size_t kNameRoom = 255;
constexpr size_t kFileRoom = 259;  // of a file name or a label, in characters

bool ContainsNoCase(const std::string& text, const char* word) {
    std::string folded(text);
    for (char& c : folded)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return folded.find(word) != std::string::npos;
}

bool NamesAFile(const std::string& text) {
    return ContainsNoCase(text, ".ini") || ContainsNoCase(text, ".cfg") ||
           ContainsNoCase(text, ".txt");
}

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

void BasicSrvImpl::ScanForEmbeddedFiles(ConfigReader& reader, const std::string* parentLabel) {
    const int sections = reader.GetNumSections();
    for (int s = 0; s < sections; ++s) {
        char section[kNameRoom] = {};
        if (reader.GetSectionName(s, section, sizeof section) != configreader_success) continue;
        const int items = reader.GetNumItems(section);
        for (int i = 0; i < items; ++i) {
            char item[kNameRoom] = {};
            if (reader.GetItemName(section, i, item, sizeof item) != configreader_success ||
                IsConfigFieldProtected(item))
                continue;
            char value[kNameRoom] = {};
            size_t size = sizeof value;
            if (reader.ReadString(section, item, value, &size) != configreader_success) continue;
            value[sizeof value - 1] = '\0';
            const std::string text(value);
            if (!NamesAFile(text)) continue;
            // Blanks around a name are not part of it: "a.ini, b.ini" names two files.
            size_t at = 0;
            while (at <= text.size()) {
                const size_t end = std::min(text.find_first_of("=,;|", at), text.size());
                const std::string token = Trim(text.substr(at, end - at));
                at = end + 1;
                if (token.empty() || detail::EqualNoCase(token.c_str(), "FILE NAME") ||
                    !NamesAFile(token))
                    continue;
                EmbeddedConfigItem found;
                found.id = embedded_.size() + 1;
                found.file = token.substr(0, kFileRoom);
                found.label = parentLabel != nullptr ? *parentLabel + " > " + section + " > " + item
                                                     : std::string(section) + " > " + item;
                found.label.resize(std::min(found.label.size(), kFileRoom));
                embedded_.emplace(found.id, std::move(found));
            }
        }
    }
}

void BasicSrvImpl::DiscoverEmbeddedFiles() {
    ScanForEmbeddedFiles(*configReader_, nullptr);
    // The walk sees the items its own scans add; a file named twice is visited twice.
    for (auto it = embedded_.begin(); it != embedded_.end(); ++it) {
        if (embedded_.size() > kMaxEmbeddedItems) break;
        EmbeddedConfigItem& item = it->second;
        if ((item.flags & kEmbeddedVisited) != 0) continue;
        IniConfigReader* reader = IniConfigReader::CreateObject();
        if (reader != nullptr) {
            (void)reader->SetIniFile(item.file.c_str(), false, true, nullptr);
            if (reader->IsConfigurationPresent()) {
                item.flags |= kEmbeddedIsConfig;
                const std::string label = item.label;
                ScanForEmbeddedFiles(*reader, &label);
            }
            reader->Release();
        }
        it->second.flags |= kEmbeddedVisited;
    }
}

void BasicSrvImpl::ShowEmbeddedFiles(_BASICSRV_COMMAND_INFO& info) {
    BasicSrvStatusWriter& out = *info.writer;
    // The index is read digit by digit, unchecked, after blanks and zeros.
    unsigned int index = 0;
    if (info.argc > 0) {
        const char* text = info.args[0];
        while (*text == ' ' || *text == '\t' || *text == '0')
            ++text;
        for (; *text != '\0'; ++text)
            index = index * 10u + static_cast<unsigned int>(*text - '0');
    }
    if (index == 0) {
        if (embedded_.empty()) (void)out.WriteStatus("No embedded configuration found!\n");
        for (const auto& [id, item] : embedded_)
            (void)out.FormatStatus("[%d] %s=%s\n", static_cast<int>(id), item.label.c_str(),
                                   item.file.c_str());
        return;
    }
    const auto found = embedded_.find(index);
    if (found == embedded_.end()) {
        (void)out.FormatStatus("Invalid index %u, maximum allowed %u!\n", index,
                               static_cast<unsigned int>(embedded_.size()));
        return;
    }
    const EmbeddedConfigItem& item = found->second;
    (void)out.FormatStatus("[%d] %s=%s\n\n", static_cast<int>(item.id), item.label.c_str(),
                           item.file.c_str());
    std::ifstream file(item.file);
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if ((item.flags & kEmbeddedIsConfig) != 0 && IsConfigFieldProtected(line.c_str())) {
            // A secret shows its name only; a line without '=' is hidden whole.
            const size_t equals = line.find('=');
            line = equals == std::string::npos ? "********" : line.substr(0, equals) + "=********";
        }
        (void)out.FormatStatus("%s\n", line.c_str());
    }
}

}  // namespace TOLVEN
