#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/filewatch.h"
#include "tolven/autothread.h"
#include "tolven/iniconfigreader.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

// Exposes the protected working directory.
class Probe : public IniConfigReader {
  public:
    static Probe* Make() { return new Probe; }
    const char* WorkingDir() const { return GetWorkingDir(); }
};

// Releases a reader at scope end.
template <class R>
struct Ref {
    R* r;
    explicit Ref(R* p) : r(p) {}
    ~Ref() { r->Release(); }
    R* operator->() const { return r; }
};

bool ThreadRegistered(const std::string& name) {
    auto& reg = thread_details::get();
    QuickLockGuard guard(reg.get_lock());
    for (const auto& [id, data] : reg.get_thread_map())
        if (data->name == name) return true;
    return false;
}

template <class P>
void WaitUntil(P pred) {
    while (!pred())
        std::this_thread::yield();
}

class IniReader : public ::testing::Test {
  protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::temp_directory_path() /
               ("tolven_ini_" + std::string(info->name()) + "_" +
                std::to_string(std::hash<std::thread::id>()(std::this_thread::get_id())));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        dir_ = fs::canonical(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string Path(const std::string& name) const { return (dir_ / name).string(); }
    // Writes a file in place.
    std::string Put(const std::string& name, const std::string& text) const {
        std::ofstream(Path(name), std::ios::binary | std::ios::trunc) << text;
        return Path(name);
    }
    // Replaces a file by rename, as editors and this reader do.
    std::string Replace(const std::string& name, const std::string& text) const {
        Put(name + ".tmp", text);
        // On Windows a rename onto a file that is being replaced can fail for a moment.
        std::error_code ec;
        for (fs::rename(Path(name + ".tmp"), Path(name), ec); ec;
             fs::rename(Path(name + ".tmp"), Path(name), ec))
            std::this_thread::yield();
        return Path(name);
    }
    std::string Slurp(const std::string& name) const {
        std::ifstream in(Path(name), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // A reader on `name`; `watch` selects change events over a look at every access.
    IniConfigReader* Open(const std::string& name, bool watch = false,
                          bool includes = false) const {
        IniConfigReader* r = IniConfigReader::CreateObject();
        r->SetFileWatch(watch);
        EXPECT_EQ(r->SetIniFile(Path(name).c_str(), false, includes, nullptr),
                  configreader_success);
        return r;
    }
    static std::string Str(IniConfigReader* r, const char* section, const char* item,
                           configreader_status* st = nullptr, std::size_t room = 256) {
        std::vector<char> buf(room, '\0');
        std::size_t size = room;
        const configreader_status s = r->ReadString(section, item, buf.data(), &size);
        if (st != nullptr) *st = s;
        return s == configreader_success ? std::string(buf.data(), size)
                                         : "<" + std::to_string(s) + ">";
    }

    fs::path dir_;
};

}  // namespace

TEST_F(IniReader, SetIniFileFindsCreatesOrRefusesTheFile) {
    Ref<IniConfigReader> r(IniConfigReader::CreateObject());
    EXPECT_EQ(r->SetIniFile(nullptr, true, false, nullptr), configreader_invalid_parameter);
    EXPECT_FALSE(r->IsConfigurationPresent());
    EXPECT_EQ(Str(r.r, nullptr, "a"), "<4>") << "no file yet: not configured";

    // Missing, no create, no directory: refused, and the reader stays without a file.
    EXPECT_EQ(r->SetIniFile(Path("missing.ini").c_str(), false, false, nullptr),
              configreader_not_found);
    EXPECT_EQ(Str(r.r, nullptr, "a"), "<4>");

    // Found in the directory given.
    Put("there.ini", "[default]\na = 1\n");
    EXPECT_EQ(r->SetIniFile("there.ini", false, false, dir_.string().c_str()),
              configreader_success);
    EXPECT_EQ(Str(r.r, nullptr, "a"), "1");

    // Created empty when asked; a folder that does not exist cannot hold it.
    EXPECT_EQ(r->SetIniFile(Path("new.ini").c_str(), true, false, nullptr), configreader_success);
    EXPECT_TRUE(fs::exists(Path("new.ini")));
    EXPECT_EQ(r->SetIniFile(Path("no/such/dir.ini").c_str(), true, false, nullptr),
              configreader_io_error);
}

TEST_F(IniReader, TypedReadsAndTheirStatuses) {
    Put("t.ini",
        "[default]\nName = alpha\nNum = 42\nNeg = -1\nJunk = x12\nLead = 7z\n"
        "T1 = TRUE\nF2 = 0\nYes = yes\n[Other]\nName = beta\n");
    Ref<IniConfigReader> r(Open("t.ini"));
    EXPECT_EQ(Str(r.r, nullptr, "name"), "alpha") << "null section, folded item";
    EXPECT_EQ(Str(r.r, "oTHER", "name"), "beta");
    EXPECT_EQ(Str(r.r, nullptr, "missing"), "<3>");
    EXPECT_EQ(Str(r.r, nullptr, "Name", nullptr, 1), "") << "room 1: empty, length 0";
    EXPECT_EQ(Str(r.r, nullptr, "Name", nullptr, 4), "alp");
    char buf[8];
    std::size_t size = 0;
    EXPECT_EQ(r->ReadString(nullptr, "Name", buf, &size), configreader_invalid_parameter);

    const struct {
        const char* item;
        configreader_status st;
        unsigned int value;
    } numbers[] = {{"Num", configreader_success, 42},
                   {"Neg", configreader_success, 4294967295u},
                   {"Lead", configreader_success, 7},
                   {"Junk", configreader_wrong_type, 99},  // the caller's default stays
                   {"missing", configreader_not_found, 99}};
    for (const auto& n : numbers) {
        unsigned int u = 99;
        EXPECT_EQ(r->ReadUINT(nullptr, n.item, &u), n.st) << n.item;
        EXPECT_EQ(u, n.value) << n.item;
    }

    // The INI reader answers wrong_type where the memory reader says invalid_parameter.
    for (const auto& [item, st, value] :
         {std::tuple{"T1", configreader_success, 1}, std::tuple{"F2", configreader_success, 0},
          std::tuple{"Yes", configreader_wrong_type, 7}}) {
        int v = 7;
        EXPECT_EQ(r->ReadBOOL(nullptr, item, &v), st) << item;
        EXPECT_EQ(v, value) << item;
    }
}

TEST_F(IniReader, EnumerationAndNames) {
    Put("a.b.ini", "[zeta]\nb = 1\nA = 2\n[Alpha]\nk = v\n[default]\nx = 1\n");
    Ref<IniConfigReader> r(Open("a.b.ini"));
    char name[16];
    ASSERT_EQ(r->GetSectionName(2, name, sizeof(name)), configreader_success);
    EXPECT_STREQ(name, "zeta") << "sections sorted, folded";
    EXPECT_EQ(r->GetSectionName(3, name, sizeof(name)), configreader_not_found);
    EXPECT_EQ(r->GetSectionName(0, name, 5), configreader_success) << "Alpha needs 6 bytes";
    EXPECT_STREQ(name, "");

    ASSERT_EQ(r->GetItemName("zeta", 0, name, sizeof(name)), configreader_success);
    EXPECT_STREQ(name, "A");

    ASSERT_EQ(r->GetReaderName(name, sizeof(name)), configreader_success);
    EXPECT_STREQ(name, "a.b");

    Put("x", "");
    Put("dot.", "");
    Ref<IniConfigReader> shortName(Open("x"));
    EXPECT_EQ(shortName->GetReaderName(name, sizeof(name)), configreader_not_configured);
    Ref<IniConfigReader> trailingDot(Open("dot."));
    ASSERT_EQ(trailingDot->GetReaderName(name, sizeof(name)), configreader_success);
    EXPECT_STREQ(name, "dot.");
}

TEST_F(IniReader, WritesSaveAtOnceAndSafely) {
    const std::string path = Put("w.ini", "[default]\nkeep = 1\n");
    Ref<IniConfigReader> r(Open("w.ini"));
    EXPECT_EQ(r->WriteString(nullptr, "Name", "alpha"), configreader_success);
    EXPECT_EQ(r->WriteString("New", "k", "v"), configreader_success);
    EXPECT_EQ(r->WriteString("new", "K", "v2"), configreader_success) << "replaces, folded";
    EXPECT_EQ(r->WriteUINT(nullptr, "Big", 4294967295u), configreader_success);
    EXPECT_FALSE(fs::exists(path + ".bak")) << "no temporary left behind";

    // Another reader of the file sees everything: it was saved.
    Ref<IniConfigReader> other(Open("w.ini"));
    EXPECT_EQ(Str(other.r, nullptr, "name"), "alpha");
    EXPECT_EQ(Str(other.r, "NEW", "k"), "v2");
    EXPECT_EQ(Str(other.r, nullptr, "Big"), "-1");
    EXPECT_EQ(Str(other.r, nullptr, "keep"), "1");

    EXPECT_EQ(r->DeleteItem(nullptr, "missing"), configreader_io_error);
    EXPECT_EQ(r->DeleteItem(nullptr, "keep"), configreader_success);
    EXPECT_EQ(r->DeleteSection("nosection"), configreader_io_error);
    EXPECT_EQ(r->DeleteSection("new"), configreader_success);
    Ref<IniConfigReader> third(Open("w.ini"));
    EXPECT_FALSE(third->IsItemPresent(nullptr, "keep"));
    EXPECT_FALSE(third->IsSectionPresent("new"));

    // Text that would change the file's structure is refused, and nothing is written.
    const std::string before = Slurp("w.ini");
    EXPECT_EQ(r->WriteString(nullptr, "k", "v\n[evil]\nx=1"), configreader_invalid_parameter);
    EXPECT_EQ(r->WriteString("a]b", "k", "v"), configreader_invalid_parameter);
    EXPECT_EQ(r->WriteString(nullptr, "k=x", "v"), configreader_invalid_parameter);
    EXPECT_EQ(r->WriteString(nullptr, ";k", "v"), configreader_invalid_parameter);
    EXPECT_EQ(Slurp("w.ini"), before);
}

TEST_F(IniReader, SignatureIsKeptOnlyWhenTheFileHadOne) {
    Put("bom.ini", "\xEF\xBB\xBF[default]\na = 1\n");
    Put("plain.ini", "[default]\na = 1\n");
    Ref<IniConfigReader> bom(Open("bom.ini"));
    Ref<IniConfigReader> plain(Open("plain.ini"));
    ASSERT_EQ(bom->WriteString(nullptr, "b", "2"), configreader_success);
    ASSERT_EQ(plain->WriteString(nullptr, "b", "2"), configreader_success);
    EXPECT_EQ(Slurp("bom.ini").rfind("\xEF\xBB\xBF", 0), 0u);
    EXPECT_NE(Slurp("plain.ini").rfind("\xEF\xBB\xBF", 0), 0u);
    // A reload of a file without one drops it too.
    Replace("bom.ini", "[default]\na = 3\n");
    EXPECT_EQ(Str(bom.r, nullptr, "a"), "3");
    ASSERT_EQ(bom->WriteString(nullptr, "b", "4"), configreader_success);
    EXPECT_NE(Slurp("bom.ini").rfind("\xEF\xBB\xBF", 0), 0u);
}

TEST_F(IniReader, FailedSaveLeavesTheFileAndTheReaderAsOnDisk) {
    Put("f.ini", "[default]\na = 1\n");
    Ref<IniConfigReader> r(Open("f.ini"));
    fs::create_directories(Path("f.ini.bak"));  // the temporary cannot be made
    EXPECT_EQ(r->WriteString(nullptr, "a", "2"), configreader_io_error);
    EXPECT_EQ(Str(r.r, nullptr, "a"), "1") << "the unsaved value is not shown";
    fs::remove_all(Path("f.ini.bak"));
    EXPECT_EQ(r->WriteString(nullptr, "a", "2"), configreader_success);
    EXPECT_EQ(Str(r.r, nullptr, "a"), "2");
}

TEST_F(IniReader, ChangesOnDiskAreSeenWithoutACall) {
    for (const bool watch : {false, true}) {
        SCOPED_TRACE(watch ? "change events" : "look at every access");
        Put("c.ini", "[default]\nv = 1\n");
        Ref<IniConfigReader> r(Open("c.ini", watch));
        EXPECT_EQ(Str(r.r, nullptr, "v"), "1");
        // Where the platform can watch this file, the events come from the watcher thread.
        if (watch) {
            if (platform::FileWatch* w = platform::AddFileWatch(Path("c.ini").c_str())) {
                platform::ReleaseFileWatch(w);
                WaitUntil([] { return ThreadRegistered("IniFileWatcher"); });
            }
        }
        // Rewritten in place, then replaced by rename: both are seen. Without change events
        // the very next read sees them; with them, as soon as the event was taken.
        Put("c.ini", "[default]\nv = 2\n");
        if (watch) WaitUntil([&] { return Str(r.r, nullptr, "v") == "2"; });
        EXPECT_EQ(Str(r.r, nullptr, "v"), "2");
        Replace("c.ini", "[default]\nv = 3\nw = new\n");
        if (watch) WaitUntil([&] { return Str(r.r, nullptr, "v") == "3"; });
        EXPECT_EQ(Str(r.r, nullptr, "w"), "new");
        EXPECT_EQ(r->GetNumItems(nullptr), 2);

        // CheckFile looks at once in either mode, and says whether it reloaded.
        bool changed = true;
        EXPECT_EQ(r->CheckFile(&changed, true), configreader_success);
        EXPECT_FALSE(changed);
        Put("c.ini", "[default]\nv = 4\n");
        EXPECT_EQ(r->CheckFile(&changed, false), configreader_success);
        EXPECT_TRUE(changed);
        EXPECT_EQ(Str(r.r, nullptr, "v"), "4");

        // The reader's own write is not a change; another reader of the file sees it.
        Ref<IniConfigReader> peer(Open("c.ini", watch));
        ASSERT_EQ(r->WriteString(nullptr, "v", "5"), configreader_success);
        EXPECT_EQ(r->CheckFile(&changed, true), configreader_success);
        EXPECT_FALSE(changed);
        EXPECT_EQ(Str(peer.r, nullptr, "v"), "5");
    }
}

TEST_F(IniReader, DeletedFileGivesIoErrorsAndComesBack) {
    for (const bool watch : {false, true}) {
        SCOPED_TRACE(watch ? "change events" : "look at every access");
        Put("d.ini", "[default]\nv = 1\n[s]\nk = 2\n");
        Ref<IniConfigReader> r(Open("d.ini", watch));
        ASSERT_EQ(Str(r.r, nullptr, "v"), "1");
        fs::remove(Path("d.ini"));
        if (watch) WaitUntil([&] { return Str(r.r, nullptr, "v") == "<1>"; });
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(Str(r.r, nullptr, "v"), "<1>");
            unsigned int u;
            char name[8];
            EXPECT_EQ(r->ReadUINT("s", "k", &u), configreader_io_error);
            EXPECT_EQ(r->GetNumSections(), 0);
            EXPECT_FALSE(r->IsConfigurationPresent());
            EXPECT_EQ(r->GetItemName("s", 0, name, sizeof(name)), configreader_io_error);
            EXPECT_EQ(r->WriteString("s", "k", "3"), configreader_io_error);
        }
        EXPECT_FALSE(fs::exists(Path("d.ini"))) << "a failed check does not recreate the file";
        Put("d.ini", "[default]\nv = back\n");
        if (watch) WaitUntil([&] { return Str(r.r, nullptr, "v") == "back"; });
        EXPECT_EQ(Str(r.r, nullptr, "v"), "back");
    }
}

TEST_F(IniReader, ConstantsFromIncludes) {
    Put("consts1.ini", "[default]\n$(HOST) = alpha\n$(PORT) = 80\n$(NEST) = $(HOST)\n");
    Put("consts2.ini", "[default]\n$(host) = beta\n$(ONLY2) = two\n");
    Put("main.ini", "[default]\nWorkingDirectory = " + dir_.string() +
                        "\n[INCLUDE]\nFile1 = consts1.ini\nFile2 = " + Path("consts2.ini") +
                        "\n[s]\nurl = $(Host)/x\nport = $(PORT)\nboth = $(HOST):$(ONLY2)\n"
                        "bad = $(HOST):$(NOPE)\nunknown = $(NOPE)/x\nempty = $()x\nopen = $(HOST\n"
                        "nest = $(NEST)\n");
    Ref<Probe> r(Probe::Make());
    ASSERT_EQ(r->SetIniFile(Path("main.ini").c_str(), false, true, nullptr), configreader_success);
    EXPECT_EQ(std::string(r->WorkingDir()), dir_.string() + "/");
    EXPECT_EQ(Str(r.r, "s", "url"), "alpha/x") << "the first file's value stays";
    EXPECT_EQ(Str(r.r, "s", "both"), "alpha:two");
    EXPECT_EQ(Str(r.r, "s", "bad"), "$(HOST):$(NOPE)") << "one unknown token: all raw";
    EXPECT_EQ(Str(r.r, "s", "empty"), "$()x");
    EXPECT_EQ(Str(r.r, "s", "open"), "$(HOST");
    EXPECT_EQ(Str(r.r, "s", "nest"), "$(HOST)") << "expanded once only";
    EXPECT_EQ(Str(r.r, "s", "url", nullptr, 40000), "$(Host)/x") << "large rooms get raw text";
    EXPECT_EQ(Str(r.r, "s", "url", nullptr, 5), "alph");
    unsigned int port = 0;
    EXPECT_EQ(r->ReadUINT("s", "port", &port), configreader_success);
    EXPECT_EQ(port, 80u);

    IniConfigReader::ConstMap more{{"$(HOST)", "gamma"}, {"$(NEW)", "n"}};
    r->SetConsts(more);
    IniConfigReader::ConstMap consts;
    ASSERT_TRUE(r->GetConsts(consts));
    EXPECT_EQ(consts.size(), 5u);
    EXPECT_STREQ(consts["$(HOST)"].c_str(), "alpha") << "present names keep their value";

    // Without includes the tokens stay as written.
    Ref<IniConfigReader> plain(Open("main.ini"));
    EXPECT_EQ(Str(plain.r, "s", "url"), "$(Host)/x");
}

TEST_F(IniReader, IncludeFailuresFailTheSetup) {
    Put("rel.ini", "[INCLUDE]\nFile1 = consts.ini\n");
    Put("gone.ini", "[INCLUDE]\nFile1 = " + Path("missing.ini") + "\n");
    Put("consts.ini", "[default]\n$(A) = 1\n");
    Ref<Probe> r(Probe::Make());
    EXPECT_EQ(r->SetIniFile(Path("rel.ini").c_str(), false, true, nullptr),
              configreader_invalid_parameter)
        << "a relative include needs a working directory";
    EXPECT_EQ(Str(r.r, nullptr, "x"), "<4>") << "and the reader is left without a file";
    EXPECT_EQ(r->SetIniFile("rel.ini", false, true, dir_.string().c_str()), configreader_success)
        << "the directory given serves as working directory";
    EXPECT_EQ(std::string(r->WorkingDir()), dir_.string() + "/");
    EXPECT_EQ(r->SetIniFile(Path("gone.ini").c_str(), false, true, nullptr),
              configreader_not_found);
    // A device or a folder named as include is refused, not read for ever.
    Put("dev.ini", "[INCLUDE]\nFile1 = /dev/zero\nFile2 = " + dir_.string() + "\n");
    EXPECT_NE(r->SetIniFile(Path("dev.ini").c_str(), false, true, nullptr), configreader_success);
}

TEST_F(IniReader, ConcurrentReadersWritersAndOutsideChanges) {
    Put("m.ini", "[default]\na = 0\nb = 0\n");
    for (const bool watch : {false, true}) {
        Ref<IniConfigReader> r(Open("m.ini", watch));
        std::atomic<bool> stop{false};
        std::atomic<int> bad{0};
        std::vector<std::thread> readers;
        for (int t = 0; t < 3; ++t) {
            readers.emplace_back([&] {
                while (!stop) {
                    configreader_status st;
                    const std::string v = Str(r.r, nullptr, "a", &st);
                    // Only whole values written below ever show.
                    if (st == configreader_success &&
                        v.find_first_not_of("0123456789") != std::string::npos)
                        ++bad;
                    (void)r->GetNumItems(nullptr);
                }
            });
        }
        std::thread writer([&] {
            for (int i = 0; i < 40; ++i)
                EXPECT_EQ(r->WriteUINT(nullptr, "b", static_cast<unsigned>(i)),
                          configreader_success);
        });
        for (int i = 0; i < 40; ++i)
            Replace("m.ini", "[default]\na = " + std::to_string(i) + "\nb = 0\n");
        writer.join();
        stop = true;
        for (auto& t : readers)
            t.join();
        EXPECT_EQ(bad, 0);
    }
}
