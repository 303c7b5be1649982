#include "platform/process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "platform/versionnote.h"

extern char** environ;

namespace TOLVEN::platform {
namespace {

std::string BaseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Reads from an open file descriptor at an offset, whole or not at all.
bool ReadFd(void* context, uint64_t offset, void* out, size_t size) {
    const int fd = *static_cast<int*>(context);
    auto* p = static_cast<char*>(out);
    while (size > 0) {
        const ssize_t n = ::pread(fd, p, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        offset += static_cast<uint64_t>(n);
        size -= static_cast<size_t>(n);
    }
    return true;
}

struct LoadedLookup {
    const std::string* name;
    std::string path;
};

int MatchLoaded(struct dl_phdr_info* info, size_t, void* data) {
    auto* lookup = static_cast<LoadedLookup*>(data);
    if (info->dlpi_name == nullptr || info->dlpi_name[0] == '\0') return 0;
    const std::string path(info->dlpi_name);
    if (BaseName(path) != *lookup->name) return 0;
    lookup->path = path;
    return 1;
}

int Anchor() {
    return 0;
}

}  // namespace

uint32_t CurrentProcessId() noexcept {
    return static_cast<uint32_t>(::getpid());
}

bool GetOwnExecutablePath(std::string& path) {
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return false;
    path.assign(buffer, static_cast<size_t>(n));
    return true;
}

bool GetOwnModuleBaseName(std::string& name) {
    std::string path;
    if (!GetOwnExecutablePath(path)) return false;
    name = BaseName(path);
    return !name.empty();
}

bool GetLibraryModulePath(std::string& path) {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&Anchor), &info) == 0 || info.dli_fname == nullptr ||
        info.dli_fname[0] == '\0') {
        return false;
    }
    path = info.dli_fname;
    return true;
}

bool StdinIsTerminal() noexcept {
    return ::isatty(STDIN_FILENO) == 1;
}

bool SetEnvironmentValue(const char* name, const char* value) {
    if (name == nullptr || name[0] == '\0') return false;
    return (value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1)) == 0;
}

bool RunProgram(const std::string& path, const std::vector<std::string>& arguments, int* exitCode) {
    if (exitCode != nullptr) *exitCode = -1;
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    if (::posix_spawn(&child, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    pid_t waited;
    do {
        waited = ::waitpid(child, &status, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited != child) return true;
    if (exitCode != nullptr && WIFEXITED(status)) *exitCode = WEXITSTATUS(status);
    return true;
}

void FatalExitProcess(int code) noexcept {
    ::_exit(code);
}

uint32_t ProcessorCount() noexcept {
    const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<uint32_t>(n) : 1u;
}

bool ProcessAffinityCount(uint32_t* count) noexcept {
    if (count == nullptr) return false;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof set, &set) != 0) return false;
    *count = static_cast<uint32_t>(CPU_COUNT(&set));
    return true;
}

bool CpuidVendorEcx(uint32_t* ecx) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (ecx == nullptr || __get_cpuid(0, &a, &b, &c, &d) == 0) return false;
    *ecx = c;
    return true;
#else
    (void)ecx;
    return false;
#endif
}

std::string VersionModuleFileName(const std::string& name) {
    // ELF executables carry no extension, so a path is taken as it is; a short name is a
    // library's.
    if (name.find(".so") != std::string::npos || name.find('/') != std::string::npos) {
        return name;
    }
    return "lib" + name + ".so";
}

bool ReadFileVersionBlock(const std::string& file, std::vector<uint8_t>& block) {
    block.clear();
    if (file.empty()) return false;
    std::string path = file;
    if (file.find('/') == std::string::npos) {
        LoadedLookup lookup{&file, {}};
        if (::dl_iterate_phdr(&MatchLoaded, &lookup) != 0) path = lookup.path;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    bool found = false;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        int context = fd;
        found = versionnote::FindInElf(&ReadFd, &context, static_cast<uint64_t>(st.st_size), block);
    }
    ::close(fd);
    return found;
}

bool QueryVersionValue(const uint8_t* block, size_t size, const char* subBlock, const void** value,
                       uint32_t* length) {
    return versionnote::Query(block, size, subBlock, value, length);
}

}  // namespace TOLVEN::platform
