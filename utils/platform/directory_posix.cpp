#include "platform/directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

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

bool ListDirectoryFiles(const char* directory, std::vector<std::string>& names) {
    names.clear();
    if (directory == nullptr || directory[0] == '\0') return false;
    DIR* dir = ::opendir(directory);
    if (dir == nullptr) return false;
    const int fd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        bool plain = entry->d_type == DT_REG;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            struct stat st {};
            plain = ::fstatat(fd, entry->d_name, &st, 0) == 0 && S_ISREG(st.st_mode);
        }
        if (plain) names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    return true;
}

}  // namespace TOLVEN::platform
