// inotify: one instance for the process. Each watched path has a watch on its directory,
// which reports writes, renames and deletions under that name, and one on the file itself,
// which reports writes through any other link to it. An eventfd wakes the pump.
#include "platform/filewatch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace TOLVEN::platform {
namespace {

constexpr uint32_t kDirMask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                              IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kFileMask =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kDirGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

struct Entry : FileWatch {
    std::string path;
    std::string name;
    int dirWd = -1;
    int fileWd = -1;
    int refs = 0;
};

struct WdUse {
    bool isDir = false;
    std::vector<Entry*> entries;
};

struct State {
    std::mutex mutex;
    int fd = -1;
    int wakeFd = -1;
    bool tried = false;
    std::map<std::string, Entry*> byPath;
    std::map<int, WdUse> byWd;
};

std::atomic<bool> g_live{true};

void OnForkChild() {
    g_live.store(false, std::memory_order_release);
}

// Never destroyed: the pump thread may still wait in it at process exit.
State& TheState() {
    static State* state = new State;
    return *state;
}

bool Init(State& s) {
    if (!s.tried) {
        s.tried = true;
        (void)::pthread_atfork(nullptr, nullptr, &OnForkChild);
        s.fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        s.wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (s.fd < 0 || s.wakeFd < 0) {
            if (s.fd >= 0) ::close(s.fd);
            if (s.wakeFd >= 0) ::close(s.wakeFd);
            s.fd = s.wakeFd = -1;
        }
    }
    return s.fd >= 0 && g_live.load(std::memory_order_acquire);
}

// File systems whose local changes all reach inotify. Network and user-space file systems
// can change under us without an event.
bool NotifiesEveryChange(const char* dir) {
    struct statfs fs;
    if (::statfs(dir, &fs) != 0) return false;
    switch (static_cast<uint64_t>(fs.f_type)) {
        case 0xEF53:      // ext2, ext3, ext4
        case 0x58465342:  // xfs
        case 0x9123683E:  // btrfs
        case 0x01021994:  // tmpfs
        case 0x858458F6:  // ramfs
        case 0xF2F52010:  // f2fs
        case 0x2FC12FC1:  // zfs
        case 0x794C7630:  // overlay
            return true;
        default:
            return false;
    }
}

void Attach(State& s, int wd, bool isDir, Entry* e) {
    WdUse& use = s.byWd[wd];
    use.isDir = isDir;
    if (std::find(use.entries.begin(), use.entries.end(), e) == use.entries.end())
        use.entries.push_back(e);
}

void Detach(State& s, int wd, Entry* e) {
    auto it = s.byWd.find(wd);
    if (it == s.byWd.end()) return;
    auto& v = it->second.entries;
    v.erase(std::remove(v.begin(), v.end(), e), v.end());
    if (v.empty()) {
        (void)::inotify_rm_watch(s.fd, wd);
        s.byWd.erase(it);
    }
}

void Bump(Entry* e) {
    e->generation.fetch_add(1, std::memory_order_acq_rel);
}

void Dispatch(State& s, const inotify_event& ev) {
    if (ev.mask & IN_Q_OVERFLOW) {
        // Events were lost: anything may have changed.
        for (auto& [path, e] : s.byPath)
            Bump(e);
        return;
    }
    auto it = s.byWd.find(ev.wd);
    if (it == s.byWd.end()) return;
    WdUse& use = it->second;
    if (use.isDir) {
        if (ev.len > 0) {
            for (Entry* e : use.entries)
                if (std::strcmp(e->name.c_str(), ev.name) == 0) Bump(e);
        } else if (ev.mask & kDirGone) {
            // The directory itself went away or was moved: its watch says nothing more.
            for (Entry* e : use.entries) {
                e->broken.store(true, std::memory_order_release);
                if (ev.mask & IN_IGNORED) e->dirWd = -1;
                Bump(e);
            }
            if (ev.mask & IN_IGNORED) s.byWd.erase(it);
        }
        return;
    }
    for (Entry* e : use.entries) {
        Bump(e);
        if (ev.mask & IN_IGNORED) e->fileWd = -1;
    }
    if (ev.mask & IN_IGNORED) s.byWd.erase(it);
}

}  // namespace

FileWatch* AddFileWatch(const char* path) noexcept {
    try {
        if (path == nullptr || path[0] != '/') return nullptr;
        char* real = ::realpath(path, nullptr);
        if (real == nullptr) return nullptr;
        const bool canonical = std::strcmp(real, path) == 0;
        std::free(real);
        if (!canonical) return nullptr;
        const std::string full(path);
        const std::size_t cut = full.find_last_of('/');
        const std::string dir = cut == 0 ? std::string("/") : full.substr(0, cut);
        const std::string name = full.substr(cut + 1);
        if (name.empty() || !NotifiesEveryChange(dir.c_str())) return nullptr;

        State& s = TheState();
        std::lock_guard<std::mutex> guard(s.mutex);
        if (!Init(s)) return nullptr;
        auto found = s.byPath.find(full);
        if (found != s.byPath.end() && !found->second->broken.load()) {
            ++found->second->refs;
            return found->second;
        }
        const int dirWd = ::inotify_add_watch(s.fd, dir.c_str(), kDirMask);
        if (dirWd < 0) return nullptr;
        const int fileWd = ::inotify_add_watch(s.fd, full.c_str(), kFileMask | IN_DONT_FOLLOW);
        struct stat st;
        if (fileWd < 0 || ::stat(full.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            if (fileWd >= 0 && s.byWd.find(fileWd) == s.byWd.end())
                (void)::inotify_rm_watch(s.fd, fileWd);
            if (s.byWd.find(dirWd) == s.byWd.end()) (void)::inotify_rm_watch(s.fd, dirWd);
            return nullptr;
        }
        auto* e = new Entry;
        e->path = full;
        e->name = name;
        e->dirWd = dirWd;
        e->fileWd = fileWd;
        e->refs = 1;
        Attach(s, dirWd, true, e);
        Attach(s, fileWd, false, e);
        // A broken watch of the same path stays with its users; this one replaces it here.
        if (found != s.byPath.end())
            found->second = e;
        else
            s.byPath.emplace(full, e);
        return e;
    } catch (...) {
        return nullptr;
    }
}

void ReleaseFileWatch(FileWatch* watch) noexcept {
    if (watch == nullptr) return;
    auto* e = static_cast<Entry*>(watch);
    State& s = TheState();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (--e->refs > 0) return;
    if (e->dirWd >= 0) Detach(s, e->dirWd, e);
    if (e->fileWd >= 0) Detach(s, e->fileWd, e);
    auto it = s.byPath.find(e->path);
    if (it != s.byPath.end() && it->second == e) s.byPath.erase(it);
    delete e;
}

void RearmFileWatch(FileWatch* watch) noexcept {
    if (watch == nullptr) return;
    auto* e = static_cast<Entry*>(watch);
    State& s = TheState();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (e->broken.load(std::memory_order_acquire)) return;
    // The watch is placed before the file is looked at, so nothing falls between the two.
    const int wd = ::inotify_add_watch(s.fd, e->path.c_str(), kFileMask | IN_DONT_FOLLOW);
    struct stat st;
    if (wd < 0 || ::lstat(e->path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        // A missing file is not an error: its return shows in the directory's watch. Any
        // other kind of thing under the name cannot be followed.
        if (!(wd < 0 && errno == ENOENT)) e->broken.store(true, std::memory_order_release);
        if (wd >= 0 && wd != e->fileWd && s.byWd.find(wd) == s.byWd.end())
            (void)::inotify_rm_watch(s.fd, wd);
        Bump(e);
        return;
    }
    if (wd == e->fileWd) return;
    if (e->fileWd >= 0) Detach(s, e->fileWd, e);
    e->fileWd = wd;
    Attach(s, wd, false, e);
}

bool PumpFileWatches(uint32_t timeoutMs) noexcept {
    State& s = TheState();
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        if (!Init(s)) return false;
    }
    pollfd fds[2] = {{s.fd, POLLIN, 0}, {s.wakeFd, POLLIN, 0}};
    const int timeout = timeoutMs == 0xFFFFFFFFu                     ? -1
                        : timeoutMs > static_cast<uint32_t>(INT_MAX) ? INT_MAX
                                                                     : static_cast<int>(timeoutMs);
    const int ready = ::poll(fds, 2, timeout);
    if (ready < 0 && errno != EINTR) {
        // Events can no longer be taken: every watch is void from here on.
        g_live.store(false, std::memory_order_release);
        return false;
    }
    if (ready <= 0) return true;
    if (fds[1].revents & POLLIN) {
        uint64_t drained;
        (void)!::read(s.wakeFd, &drained, sizeof(drained));
    }
    if (fds[0].revents & POLLIN) {
        alignas(inotify_event) char buffer[16384];
        for (;;) {
            const ssize_t n = ::read(s.fd, buffer, sizeof(buffer));
            if (n <= 0) break;
            std::lock_guard<std::mutex> guard(s.mutex);
            for (ssize_t at = 0; at < n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(buffer + at);
                Dispatch(s, *ev);
                at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
        }
    }
    return true;
}

bool FileWatchesLive() noexcept {
    return g_live.load(std::memory_order_acquire);
}

void InterruptFileWatches() noexcept {
    State& s = TheState();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.wakeFd < 0) return;
    const uint64_t one = 1;
    (void)!::write(s.wakeFd, &one, sizeof(one));
}

}  // namespace TOLVEN::platform
