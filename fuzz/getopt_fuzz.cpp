// Splits the input at NUL bytes into a word list (the first byte run is the option list) and reads
// options until GetOpt gives -1, checking that it never walks past the list.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tolven/osutils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            parts.emplace_back();
        } else {
            parts.back().push_back(static_cast<char>(data[i]));
        }
    }
    const std::string spec = parts[0];
    std::vector<char*> words;
    for (size_t i = 1; i < parts.size(); ++i)
        words.push_back(parts[i].data());
    words.push_back(nullptr);  // as main's argv ends

    int argc = static_cast<int>(words.size()) - 1;
    char** argv = words.data();
    char** const end = words.data() + words.size();
    for (;;) {
        const char* value = nullptr;
        const int before = argc;
        const int c = TOLVEN::GetOpt(argc, argv, spec.c_str(), &value);
        if (c == -1) {
            if (argc != before) __builtin_trap();
            break;
        }
        if (argc >= before || argc < 0 || argv > end) __builtin_trap();
        if (value != nullptr) {
            volatile size_t n = std::string(value).size();
            (void)n;
        }
    }
    return 0;
}
