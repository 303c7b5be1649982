// The INI file reader.
//
// The document is read under the shared side of a writer-first lock and changed, reloaded
// or replaced only under the exclusive side. A read that finds the file changed leaves the
// shared side, reloads under the exclusive side (looking again first, since another thread
// may have reloaded meanwhile) and then reads under the shared side again.
//
// Parsing and writing the text is SimpleIni's, built header-only and without character
// conversion on every platform, so that names are compared with plain ASCII case folding.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-qualifiers"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
#include <SimpleIni.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "platform/file.h"
#include "platform/filewatch.h"
#include "platform/thread.h"
#include "tolven/autothread.h"
#include "tolven/iniconfigreader.h"
#include "tolven/rwlock.h"

namespace TOLVEN {

using IniDocument = CSimpleIniTempl<char, SI_NoCase<char>, SI_ConvertA<char>>;

namespace {

constexpr std::size_t kPathRoom = 260;       // paths hold 259 characters at most
constexpr std::size_t kExpandLimit = 32768;  // rooms above this get the raw value
constexpr std::size_t kShortRoom = 255;      // numbers and booleans are expanded into this
constexpr int kSaveTries = 3;
constexpr uint32_t kSaveRetryMs = 100;

const char* Section(const char* section) noexcept {
    return detail::ConfigSectionName(section);
}

// Copies `text` into `out`, cut to the room (terminator included); returns the length.
std::size_t CopyCut(const char* text, std::size_t length, char* out, std::size_t room) noexcept {
    const std::size_t n = length < room ? length : room - 1;
    std::memcpy(out, text, n);
    out[n] = '\0';
    return n;
}

bool EqualsFolded(const char* a, const char* b) noexcept {
    return fstring_case_insensitive::compare(a, b) == 0;
}

// Text that SimpleIni would write as something else than it is, or not read back.
bool HasLineBreak(const char* text) noexcept {
    return std::strpbrk(text, "\r\n") != nullptr;
}
bool IsBadSectionName(const char* section) noexcept {
    return section != nullptr && (HasLineBreak(section) || std::strchr(section, ']') != nullptr);
}
bool IsBadItemName(const char* item) noexcept {
    return HasLineBreak(item) || std::strchr(item, '=') != nullptr || item[0] == ';' ||
           item[0] == '#' || item[0] == '[';
}

// The process-wide thread that applies file change events. Started once; it lives as long
// as the process. False when it could not be started.
bool StartWatcherThread() {
    static std::once_flag once;
    static auto_thread* thread = nullptr;  // kept for the life of the process
    std::call_once(once, [] {
        thread = new auto_thread;
        if (!thread->launch("IniFileWatcher", [] {
                while (platform::PumpFileWatches(kInfinite)) {
                }
            })) {
            delete thread;
            thread = nullptr;
        }
    });
    return thread != nullptr;
}

}  // namespace

// The reader's state. Everything but the atomics is guarded by `lock`.
class IniConfigReaderImpl {
  public:
    IniConfigReaderImpl() { workingDir[0] = '\0'; }
    ~IniConfigReaderImpl() { platform::ReleaseFileWatch(watch); }
    IniConfigReaderImpl(const IniConfigReaderImpl&) = delete;
    IniConfigReaderImpl& operator=(const IniConfigReaderImpl&) = delete;

    std::unique_ptr<IniDocument> doc = NewDocument();
    mutable ReadWriteLock_pw lock{4000};
    std::string path;
    std::string fallbackDir;
    platform::FileStamp stamp;
    bool hasStamp = false;
    IniConfigReader::ConstMap consts;
    char workingDir[kPathRoom];
    bool useIncludes = false;

    // Change events of the file, or null when every check must look at the file.
    bool watchEnabled = true;
    platform::FileWatch* watch = nullptr;
    // The watch's generation as of the last look that found the file as loaded.
    mutable std::atomic<uint64_t> cleanGeneration{0};

    static std::unique_ptr<IniDocument> NewDocument() {
        return std::make_unique<IniDocument>(false, false, false);
    }

    // ---- the file check ----

    // Under either side of the lock: is the file as loaded? `look` forces a look at the file
    // even when no change event came.
    configreader_status Peek(bool look, bool* changed) const {
        *changed = false;
        if (path.empty()) return configreader_not_configured;
        const platform::FileWatch* w = watch;
        if (!look && w != nullptr && hasStamp &&
            w->generation.load(std::memory_order_acquire) ==
                cleanGeneration.load(std::memory_order_acquire) &&
            !w->broken.load(std::memory_order_acquire) && platform::FileWatchesLive())
            return configreader_success;
        const uint64_t generation =
            w != nullptr ? w->generation.load(std::memory_order_acquire) : 0;
        platform::FileStamp now;
        if (!platform::GetFileStamp(path.c_str(), &now) || !now.regular)
            return configreader_io_error;
        if (hasStamp && now.Same(stamp)) {
            MarkClean(generation);
            return configreader_success;
        }
        *changed = true;
        return configreader_success;
    }

    // Records that the file was found as loaded at `generation`; never moves back.
    void MarkClean(uint64_t generation) const {
        uint64_t seen = cleanGeneration.load(std::memory_order_relaxed);
        while (seen < generation && !cleanGeneration.compare_exchange_weak(
                                        seen, generation, std::memory_order_acq_rel)) {
        }
    }

    // Under the exclusive side: reloads when the file changed.
    configreader_status RefreshExclusive(bool* changed) {
        *changed = false;
        if (path.empty()) return configreader_not_configured;
        // Watch the file now under the name before looking, so no change falls between.
        platform::RearmFileWatch(watch);
        const configreader_status st = Peek(true, changed);
        if (st != configreader_success || !*changed) return st;
        const uint64_t generation =
            watch != nullptr ? watch->generation.load(std::memory_order_acquire) : 0;
        const configreader_status loaded = Load(nullptr);
        if (loaded == configreader_success) MarkClean(generation);
        return loaded;
    }

    // Takes the shared side with the file checked and, if needed, reloaded. On success the
    // caller holds the shared side.
    configreader_status EnterRead() {
        (void)lock.LockReader(kInfinite);
        bool changed = false;
        configreader_status st = Peek(false, &changed);
        if (st != configreader_success || !changed) {
            if (st != configreader_success) (void)lock.UnlockReader();
            return st;
        }
        (void)lock.UnlockReader();
        (void)lock.LockWriter(kInfinite);
        st = RefreshExclusive(&changed);
        // The writer may read: the shared side is taken before the exclusive one is left,
        // so no other writer gets between the reload and this read.
        if (st == configreader_success) (void)lock.LockReader(kInfinite);
        (void)lock.UnlockWriter();
        return st;
    }

    // Takes the exclusive side with the file checked and, if needed, reloaded. On success
    // the caller holds the exclusive side.
    configreader_status EnterWrite() {
        (void)lock.LockWriter(kInfinite);
        bool changed = false;
        configreader_status st = Peek(false, &changed);
        if (st == configreader_success && changed) st = RefreshExclusive(&changed);
        if (st != configreader_success) (void)lock.UnlockWriter();
        return st;
    }

    // ---- loading ----

    // Loads the file at `path`, then the working directory and the includes.
    configreader_status Load(const char* directory) {
        doc = NewDocument();
        hasStamp = false;
        // The stamp is taken before the text is read: a change made while reading then
        // shows as a different stamp at the next check, and is never lost.
        platform::FileStamp now;
        if (!platform::GetFileStamp(path.c_str(), &now) || !now.regular)
            return configreader_io_error;
        std::FILE* f = platform::OpenFileShared(path.c_str(), "rb");
        if (f == nullptr) return configreader_io_error;
        const SI_Error rc = doc->LoadFile(f);
        std::fclose(f);
        if (rc < 0) {
            doc = NewDocument();
            return configreader_io_error;
        }
        stamp = now;
        hasStamp = true;

        if (directory != nullptr) fallbackDir = directory;
        const char* wd = doc->GetValue("default", "WorkingDirectory", nullptr);
        if (wd == nullptr || wd[0] == '\0') wd = fallbackDir.c_str();
        if (wd[0] == '\0') {
            workingDir[0] = '\0';
        } else {
            std::size_t n = CopyCut(wd, std::strlen(wd), workingDir, kPathRoom);
            if (workingDir[n - 1] != '\\' && workingDir[n - 1] != '/' && n + 1 < kPathRoom) {
                workingDir[n++] = '/';
                workingDir[n] = '\0';
            }
        }
        return useIncludes ? ReadIncludes() : configreader_success;
    }

    // Reads the constants of the files listed in section "INCLUDE".
    configreader_status ReadIncludes() {
        consts.clear();
        const IniDocument::TKeyVal* section = doc->GetSection("INCLUDE");
        if (section == nullptr || section->empty()) return configreader_success;
        for (const auto& entry : *section) {
            const char* value = entry.second;
            std::string file;
            if (platform::IsRelativePath(value)) {
                if (workingDir[0] == '\0') {
                    consts.clear();
                    return configreader_invalid_parameter;
                }
                file = std::string(workingDir) + value;
            } else {
                file = value;
            }
            IniConfigReader* included = IniConfigReader::CreateObject();
            included->SetFileWatch(false);  // read once and dropped
            configreader_status st = included->SetIniFile(file.c_str(), false, false, nullptr);
            const int count = st == configreader_success ? included->GetNumItems(nullptr) : 0;
            for (int i = 0; st == configreader_success && i < count; ++i) {
                char name[kShortRoom + 1];
                char text[kShortRoom + 1];
                std::size_t room = sizeof(text);
                if (included->GetItemName(nullptr, i, name, sizeof(name)) != configreader_success)
                    st = configreader_invalid_parameter;
                else if (included->ReadString(nullptr, name, text, &room) != configreader_success)
                    st = configreader_not_found;
                else
                    consts.emplace(name, text);  // the first value of a name stays
            }
            included->Release();
            if (st != configreader_success) {
                consts.clear();
                return st;
            }
        }
        return configreader_success;
    }

    // Forgets the file entirely.
    void Clear() {
        doc = NewDocument();
        path.clear();
        fallbackDir.clear();
        stamp = platform::FileStamp();
        hasStamp = false;
        workingDir[0] = '\0';
        useIncludes = false;
        consts.clear();
        platform::ReleaseFileWatch(watch);
        watch = nullptr;
    }

    // ---- saving ----

    // Writes the document to "<path>.bak", makes it durable and renames it over the file.
    configreader_status Save() {
        const std::string temporary = path + ".bak";
        std::FILE* f = platform::OpenFileShared(temporary.c_str(), "w+b");
        if (f == nullptr) return SaveFailed();
        IniDocument::FileWriter writer(f);
        // The signature is written only when the loaded file had one.
        bool ok = doc->Save(writer, true) >= 0;
        ok = platform::FlushFileToDisk(f) && ok;
        ok = std::fclose(f) == 0 && ok;
        if (!ok) {
            (void)platform::RemoveFile(temporary.c_str());
            return SaveFailed();
        }
        bool moved = false;
        for (int attempt = 0; attempt < kSaveTries && !moved; ++attempt) {
            if (attempt > 0) platform::SleepMs(kSaveRetryMs);
            moved = platform::RenameReplacing(temporary.c_str(), path.c_str());
        }
        if (!moved) {
            (void)platform::RemoveFile(temporary.c_str());
            return SaveFailed();
        }
        (void)platform::SyncParentDirectory(path.c_str());
        // The new file is this reader's own: its stamp is not a change. Other readers of
        // the file in this process are told at once, without waiting for the OS event.
        platform::RearmFileWatch(watch);
        if (watch != nullptr) watch->generation.fetch_add(1, std::memory_order_acq_rel);
        hasStamp = platform::GetFileStamp(path.c_str(), &stamp);
        return configreader_success;
    }

    // The document now differs from the file: the next check reloads it.
    configreader_status SaveFailed() {
        hasStamp = false;
        return configreader_io_error;
    }

    // ---- values ----

    // Expands constants of `value` into `out` (room `room`); returns the length.
    std::size_t Expand(const char* value, char* out, std::size_t room) const {
        const std::size_t rawLength = std::strlen(value);
        const char* token = std::strstr(value, "$(");
        if (room > kExpandLimit || token == nullptr) return CopyCut(value, rawLength, out, room);
        std::string work;
        const char* rest = value;
        while (token != nullptr) {
            const char* close = std::strchr(token + 2, ')');
            if (close == nullptr || close == token + 2) return CopyCut(value, rawLength, out, room);
            const std::size_t tokenLength = static_cast<std::size_t>(close - token) + 1;
            if (tokenLength > 255) return CopyCut(value, rawLength, out, room);
            fstring<255, fstring_case_insensitive> name;
            name.assign(token, tokenLength);
            const auto found = consts.find(name);
            if (found == consts.end()) return CopyCut(value, rawLength, out, room);
            work.append(rest, static_cast<std::size_t>(token - rest));
            work.append(found->second.c_str(), found->second.size());
            rest = close + 1;
            token = std::strstr(rest, "$(");
        }
        work.append(rest);
        if (work.size() > kExpandLimit - 1) work.resize(kExpandLimit - 1);
        return CopyCut(work.c_str(), work.size(), out, room);
    }

    // Under the shared side: the expanded value, or null when the item is missing.
    const char* Value(const char* section, const char* item, char* out, std::size_t room,
                      std::size_t* length) const {
        const char* raw = doc->GetValue(Section(section), item, nullptr);
        if (raw == nullptr) return nullptr;
        *length = Expand(raw, out, room);
        return out;
    }

    // Sets one value and saves. Under the exclusive side.
    configreader_status Set(const char* section, const char* item, const char* value) {
        if (doc->SetValue(Section(section), item, value) < 0) return configreader_io_error;
        return Save();
    }
};

// ---- IniConfigReader ----------------------------------------------------------------------

IniConfigReader::IniConfigReader() : impl_(new IniConfigReaderImpl) {}

IniConfigReader::~IniConfigReader() {
    delete impl_;
}

IniConfigReader* IniConfigReader::CreateObject() {
    return new IniConfigReader();
}

IniConfigReader* IniConfigReader::GetDefault() {
    // The first reference stays with the process.
    static IniConfigReader* const reader = CreateObject();
    reader->AddRef();
    return reader;
}

configreader_status IniConfigReader::ReadString(const char* section, const char* item, char* buffer,
                                                size_t* size) {
    if (item == nullptr || buffer == nullptr || size == nullptr || *size == 0)
        return configreader_invalid_parameter;
    const configreader_status st = impl_->EnterRead();
    if (st != configreader_success) return st;
    std::size_t length = 0;
    const bool found = impl_->Value(section, item, buffer, *size, &length) != nullptr;
    (void)impl_->lock.UnlockReader();
    if (!found) return configreader_not_found;
    *size = length;
    return configreader_success;
}

// Reads a value that is converted to a number or a boolean: takes the shared side,
// copies the text into `text` and gives the shared side back.
static configreader_status ReadShortText(IniConfigReaderImpl* impl, const char* section,
                                         const char* item, char (&text)[kShortRoom]) {
    const configreader_status st = impl->EnterRead();
    if (st != configreader_success) return st;
    std::size_t length = 0;
    const bool found = impl->Value(section, item, text, sizeof(text), &length) != nullptr;
    (void)impl->lock.UnlockReader();
    return found ? configreader_success : configreader_not_found;
}

configreader_status IniConfigReader::ReadUINT(const char* section, const char* item,
                                              unsigned int* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    char text[kShortRoom];
    const configreader_status st = ReadShortText(impl_, section, item, text);
    if (st != configreader_success) return st;
    unsigned int parsed = 0;
    if (!detail::ParseConfigUINT(text, &parsed)) return configreader_wrong_type;
    *value = parsed;
    return configreader_success;
}

configreader_status IniConfigReader::ReadBool(const char* section, const char* item, bool* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    char text[kShortRoom];
    const configreader_status st = ReadShortText(impl_, section, item, text);
    if (st != configreader_success) return st;
    if (EqualsFolded(text, "true") || std::strcmp(text, "1") == 0) {
        *value = true;
    } else if (EqualsFolded(text, "false") || std::strcmp(text, "0") == 0) {
        *value = false;
    } else {
        return configreader_wrong_type;
    }
    return configreader_success;
}

configreader_status IniConfigReader::ReadBinary(const char*, const char*, unsigned char*, size_t*) {
    return configreader_not_supported;
}

configreader_status IniConfigReader::ReadConfigReader(const char*, const char*, ConfigReader*&) {
    return configreader_not_supported;
}

configreader_status IniConfigReader::WriteBinary(const char*, const char*, unsigned char*, size_t) {
    return configreader_not_supported;
}

configreader_status IniConfigReader::WriteConfigReader(const char*, const char*, ConfigReader*) {
    return configreader_not_supported;
}

configreader_status IniConfigReader::WriteString(const char* section, const char* item,
                                                 const char* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    if (IsBadSectionName(section) || IsBadItemName(item) || HasLineBreak(value))
        return configreader_invalid_parameter;
    const configreader_status st = impl_->EnterWrite();
    if (st != configreader_success) return st;
    const configreader_status result = impl_->Set(section, item, value);
    (void)impl_->lock.UnlockWriter();
    return result;
}

configreader_status IniConfigReader::WriteBool(const char* section, const char* item, bool value) {
    return WriteString(section, item, value ? "true" : "false");
}

configreader_status IniConfigReader::WriteUINT(const char* section, const char* item,
                                               unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", static_cast<int>(value));
    return WriteString(section, item, text);
}

configreader_status IniConfigReader::DeleteItem(const char* section, const char* item) {
    if (item == nullptr) return configreader_invalid_parameter;
    const configreader_status st = impl_->EnterWrite();
    if (st != configreader_success) return st;
    configreader_status result = configreader_io_error;
    if (impl_->doc->Delete(Section(section), item, false)) result = impl_->Save();
    (void)impl_->lock.UnlockWriter();
    return result;
}

configreader_status IniConfigReader::DeleteSection(const char* section) {
    const configreader_status st = impl_->EnterWrite();
    if (st != configreader_success) return st;
    configreader_status result = configreader_io_error;
    if (impl_->doc->Delete(Section(section), nullptr, false)) result = impl_->Save();
    (void)impl_->lock.UnlockWriter();
    return result;
}

bool IniConfigReader::IsSectionPresent(const char* section) const {
    if (impl_->EnterRead() != configreader_success) return false;
    const bool present = impl_->doc->GetSectionSize(Section(section)) >= 0;
    (void)impl_->lock.UnlockReader();
    return present;
}

bool IniConfigReader::IsItemPresent(const char* section, const char* item) const {
    if (item == nullptr) return false;
    if (impl_->EnterRead() != configreader_success) return false;
    const bool present = impl_->doc->GetValue(Section(section), item, nullptr) != nullptr;
    (void)impl_->lock.UnlockReader();
    return present;
}

int IniConfigReader::GetNumSections() const {
    if (impl_->EnterRead() != configreader_success) return 0;
    IniDocument::TNamesDepend names;
    impl_->doc->GetAllSections(names);
    (void)impl_->lock.UnlockReader();
    return static_cast<int>(names.size());
}

int IniConfigReader::GetNumItems(const char* section) const {
    if (impl_->EnterRead() != configreader_success) return -1;
    const int count = impl_->doc->GetSectionSize(Section(section));
    (void)impl_->lock.UnlockReader();
    return count < 0 ? -1 : count;
}

configreader_status IniConfigReader::GetSectionName(int index, char* buffer, size_t size) const {
    if (buffer == nullptr || size == 0) return configreader_invalid_parameter;
    buffer[0] = '\0';
    const configreader_status st = impl_->EnterRead();
    if (st != configreader_success) return st;
    IniDocument::TNamesDepend names;
    impl_->doc->GetAllSections(names);
    configreader_status result = configreader_not_found;
    if (index >= 0 && static_cast<std::size_t>(index) < names.size()) {
        auto it = names.begin();
        std::advance(it, index);
        const std::size_t length = std::strlen(it->pItem);
        // A name that does not fit is not given at all.
        if (length < size) std::memcpy(buffer, it->pItem, length + 1);
        result = configreader_success;
    }
    (void)impl_->lock.UnlockReader();
    return result;
}

configreader_status IniConfigReader::GetItemName(const char* section, int index, char* buffer,
                                                 size_t size) const {
    if (buffer == nullptr || size == 0) return configreader_invalid_parameter;
    buffer[0] = '\0';
    const configreader_status st = impl_->EnterRead();
    if (st != configreader_success) return st;
    configreader_status result = configreader_not_found;
    const IniDocument::TKeyVal* items = impl_->doc->GetSection(Section(section));
    if (items != nullptr && index >= 0 && static_cast<std::size_t>(index) < items->size()) {
        auto it = items->begin();
        std::advance(it, index);
        (void)CopyCut(it->first.pItem, std::strlen(it->first.pItem), buffer, size);
        result = configreader_success;
    }
    (void)impl_->lock.UnlockReader();
    return result;
}

configreader_status IniConfigReader::GetReaderName(char* buffer, size_t size) const {
    if (buffer == nullptr) return configreader_invalid_parameter;
    const configreader_status st = impl_->EnterRead();
    if (st != configreader_success) return st;
    const std::string& path = impl_->path;
    const std::size_t slash = path.find_last_of("/\\");
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    (void)impl_->lock.UnlockReader();
    if (name.size() < 2) return configreader_not_configured;
    const std::size_t dot = name.find_last_of('.');
    if (dot != std::string::npos && dot + 1 < name.size()) name.resize(dot);
    if (size > 0) (void)CopyCut(name.c_str(), name.size(), buffer, size);
    return configreader_success;
}

configreader_type IniConfigReader::GetType() {
    return configreader_type_ini;
}

bool IniConfigReader::IsConfigurationPresent() const {
    if (impl_->EnterRead() != configreader_success) return false;
    (void)impl_->lock.UnlockReader();
    return true;
}

configreader_status IniConfigReader::SetIniFile(const char* file, bool create, bool useIncludes,
                                                const char* directory) {
    if (file == nullptr) return configreader_invalid_parameter;
    auto openable = [](const std::string& p) {
        std::FILE* f = platform::OpenFileShared(p.c_str(), "rb");
        if (f == nullptr) return false;
        std::fclose(f);
        return true;
    };
    auto cut = [](std::string p) {
        if (p.size() > kPathRoom - 1) p.resize(kPathRoom - 1);
        return p;
    };
    const bool exists = file[0] != '\0' && openable(file);
    std::string path;
    if (create || exists) {
        path = cut(file);
    } else {
        if (directory == nullptr) return configreader_not_found;
        path = cut(std::string(directory) + platform::PathSeparator() + file);
        if (!openable(path)) return configreader_not_found;
    }

    IniConfigReaderImpl& m = *impl_;
    (void)m.lock.LockWriter(kInfinite);
    if (create && !exists) {
        std::FILE* f = platform::OpenFileShared(path.c_str(), "wb");
        if (f == nullptr) {
            (void)m.lock.UnlockWriter();
            return configreader_io_error;
        }
        std::fclose(f);
    }
    m.Clear();
    m.path = path;
    m.useIncludes = useIncludes;
    // The watch is in place before the file is read, so no change can fall in between.
    if (m.watchEnabled) {
        m.watch = platform::AddFileWatch(path.c_str());
        if (m.watch != nullptr && !StartWatcherThread()) {
            platform::ReleaseFileWatch(m.watch);
            m.watch = nullptr;
        }
    }
    const uint64_t generation =
        m.watch != nullptr ? m.watch->generation.load(std::memory_order_acquire) : 0;
    const configreader_status st = m.Load(directory);
    if (st == configreader_success) {
        m.cleanGeneration.store(generation, std::memory_order_release);
    } else {
        m.Clear();
    }
    (void)m.lock.UnlockWriter();
    return st;
}

configreader_status IniConfigReader::CheckFile(bool* changed, bool) const {
    bool local = false;
    bool* out = changed != nullptr ? changed : &local;
    *out = false;
    IniConfigReaderImpl& m = *impl_;
    (void)m.lock.LockReader(kInfinite);
    configreader_status st = m.Peek(true, out);
    (void)m.lock.UnlockReader();
    if (st != configreader_success || !*out) return st;
    (void)m.lock.LockWriter(kInfinite);
    st = m.RefreshExclusive(out);
    (void)m.lock.UnlockWriter();
    return st;
}

bool IniConfigReader::GetConsts(ConstMap& out) const {
    out.clear();
    if (impl_->EnterRead() != configreader_success) return false;
    out = impl_->consts;
    (void)impl_->lock.UnlockReader();
    return true;
}

void IniConfigReader::SetConsts(ConstMap& in) const {
    (void)impl_->lock.LockWriter(kInfinite);
    for (const auto& [name, value] : in)
        impl_->consts.emplace(name, value);
    (void)impl_->lock.UnlockWriter();
}

void IniConfigReader::SetFileWatch(bool enabled) {
    (void)impl_->lock.LockWriter(kInfinite);
    impl_->watchEnabled = enabled;
    (void)impl_->lock.UnlockWriter();
}

const char* IniConfigReader::GetWorkingDir() const {
    return impl_->workingDir;
}

}  // namespace TOLVEN
