#include "platform/directory.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace TOLVEN::platform {

bool MakeDirectory(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    if (::mkdir(path, 0777) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat st {};
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool ChangeCurrentDirectory(const char* path) noexcept {
    if (path == nullptr || path[0] == '\0') return false;
    return ::chdir(path) == 0;
}

bool CurrentDirectory(std::string& path) {
    char buffer[PATH_MAX];
    if (::getcwd(buffer, sizeof(buffer)) == nullptr) return false;
    path.assign(buffer);
    return true;
}

}  // namespace TOLVEN::platform
