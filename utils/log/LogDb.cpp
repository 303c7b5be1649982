// The process's list of open log files.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tolven/quicklock.h"
#include "tolven/simplelogfile.h"

namespace TOLVEN {
namespace {

// One row per open log file, found by its path without regard to ASCII case. A plain list
// for now; the operator's table of log files is to be built over it.
struct LogFileList {
    detail::CriticalSection lock{4000};
    std::vector<std::pair<std::string, simplelogfile*>> rows;
};

// Never destroyed: log files close from exit handlers and static destructors.
LogFileList& List() {
    static LogFileList* list = new LogFileList;
    return *list;
}

bool SamePath(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

}  // namespace

bool LogAddFile(const char* path, simplelogfile* file, bool add) {
    try {
        const std::string name = path != nullptr
                                     ? std::string(path, strnlen(path, kLogFilePathSize - 1))
                                     : std::string();
        LogFileList& list = List();
        HouseLockGuard guard(list.lock);
        auto row = list.rows.begin();
        while (row != list.rows.end() && !SamePath(row->first, name))
            ++row;
        if (add) {
            if (row == list.rows.end()) list.rows.emplace_back(name, file);
            return true;
        }
        if (row == list.rows.end()) return false;
        list.rows.erase(row);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace TOLVEN
