#include <cstring>

#include "tolven/osutils.h"

namespace TOLVEN {

int GetOpt(int& argc, char**& argv, const char* spec, const char** value) {
    if (value != nullptr) *value = nullptr;
    if (argc < 2 || argv == nullptr || argv[0] == nullptr || spec == nullptr) return -1;
    const char* word = argv[0];
    if (word[0] != '-' || word[1] == '\0') return -1;
    const char option = word[1];
    const char withValue[3] = {option, ':', '\0'};
    if (std::strstr(spec, withValue) != nullptr) {
        if (word[2] == '\0') {
            // The value is the next word; argc of at least 2 means it is there.
            if (value != nullptr) *value = argv[1];
            argc -= 2;
            argv += 2;
        } else {
            if (value != nullptr) *value = word + 2;
            argc -= 1;
            argv += 1;
        }
        return static_cast<unsigned char>(option);
    }
    if (std::strchr(spec, option) != nullptr) {
        argc -= 1;
        argv += 1;
        return static_cast<unsigned char>(option);
    }
    return -1;
}

}  // namespace TOLVEN
