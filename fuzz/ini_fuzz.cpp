// Loads the input as an INI file (with its includes followed) and reads every section and
// item back in every type, then writes one item and reads it again.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "tolven/iniconfigreader.h"

using namespace TOLVEN;

namespace {
const std::string& Dir() {
    static const std::string dir = [] {
        const auto d = std::filesystem::temp_directory_path() /
                       ("tolven_ini_fuzz_" + std::to_string(::getpid()));
        std::filesystem::create_directories(d);
        return d.string();
    }();
    return dir;
}

void Check(bool ok) {
    if (!ok) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = Dir() + "/fuzz.ini";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return 0;
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);

    IniConfigReader* r = IniConfigReader::CreateObject();
    r->SetFileWatch(false);
    if (r->SetIniFile(path.c_str(), false, true, Dir().c_str()) == configreader_success) {
        char section[1024];
        char item[1024];
        static char value[40000];
        const int sections = r->GetNumSections();
        for (int s = 0; s < sections; ++s) {
            Check(r->GetSectionName(s, section, sizeof(section)) == configreader_success);
            Check(r->IsSectionPresent(section) || section[0] == '\0');
            const int items = r->GetNumItems(section);
            for (int i = 0; i < items; ++i) {
                Check(r->GetItemName(section, i, item, sizeof(item)) == configreader_success);
                for (std::size_t room : {std::size_t{1}, std::size_t{16}, sizeof(value)}) {
                    std::size_t n = room;
                    const configreader_status st = r->ReadString(section, item, value, &n);
                    Check(st != configreader_success || (n < room && value[n] == '\0'));
                }
                unsigned int u = 0;
                bool b = false;
                (void)r->ReadUINT(section, item, &u);
                (void)r->ReadBool(section, item, &b);
                (void)r->IsItemPresent(section, item);
            }
        }
        Check(r->GetSectionName(sections, section, sizeof(section)) == configreader_not_found);
        char name[64];
        (void)r->GetReaderName(name, sizeof(name));
        // A write saves the whole document and must read back.
        if (r->WriteString("fuzz", "written", "value") == configreader_success) {
            std::size_t n = sizeof(value);
            Check(r->ReadString("fuzz", "written", value, &n) == configreader_success);
            Check(std::strcmp(value, "value") == 0);
        }
    }
    r->Release();
    return 0;
}
