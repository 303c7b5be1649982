#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tolven/configreader.h"

using namespace TOLVEN;

namespace {

// Holds the creator's reference of a reader for a test's scope.
struct ReaderHolder {
    MemoryConfigReader* r = MemoryConfigReader::CreateObject();
    ~ReaderHolder() { r->Release(); }
    MemoryConfigReader* operator->() const { return r; }
};

std::string ReadText(ConfigReader* r, const char* section, const char* item,
                     configreader_status* status = nullptr) {
    char buffer[256] = "untouched";
    size_t size = sizeof buffer;
    const configreader_status s = r->ReadString(section, item, buffer, &size);
    if (status != nullptr) *status = s;
    return s == configreader_success ? std::string(buffer, size) : std::string();
}

// Counts its own destruction, to see when the last reference goes.
class CountingReader : public MemoryConfigReader {
  public:
    explicit CountingReader(int* destroyed) : destroyed_(destroyed) {}

  protected:
    ~CountingReader() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

}  // namespace

TEST(MemoryConfigReader, LookupsCreateNothingAndDefaultSectionFoldsCase) {
    ReaderHolder r;
    configreader_status status{};
    ReadText(r.r, nullptr, "Missing", &status);
    EXPECT_EQ(status, configreader_not_found);
    EXPECT_FALSE(r->IsItemPresent("S", "x"));
    EXPECT_EQ(r->GetNumSections(), 0);

    ASSERT_EQ(r->WriteString("", "A", "x"), configreader_success);
    EXPECT_EQ(ReadText(r.r, nullptr, "a"), "x");
    EXPECT_EQ(ReadText(r.r, "DEFAULT", "A"), "x");
    EXPECT_TRUE(r->IsItemPresent("Default", "a"));

    // Writing under another spelling replaces the value and keeps the first spelling.
    ASSERT_EQ(r->WriteString("default", "a", "y"), configreader_success);
    EXPECT_EQ(r->GetNumItems(""), 1);
    char name[16];
    ASSERT_EQ(r->GetItemName(nullptr, 0, name, sizeof name), configreader_success);
    EXPECT_STREQ(name, "A");
    EXPECT_EQ(ReadText(r.r, nullptr, "A"), "y");
}

TEST(MemoryConfigReader, ReadStringTruncatesAndChecksArguments) {
    ReaderHolder r;
    ASSERT_EQ(r->WriteString("S", "k", "abcdef"), configreader_success);
    char buffer[8];
    size_t size = 1;
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_success);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(buffer[0], '\0');
    size = 4;
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_success);
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buffer, "abc");
    size = sizeof buffer;
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_success);
    EXPECT_EQ(size, 6u);

    size = 0;
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_invalid_parameter);
    EXPECT_EQ(r->ReadString("S", "k", buffer, nullptr), configreader_invalid_parameter);
    EXPECT_EQ(r->WriteString("S", "k", nullptr), configreader_invalid_parameter);
    EXPECT_EQ(r->GetNumSections(), 1);
}

TEST(MemoryConfigReader, NumbersAreStoredAsSignedText) {
    ReaderHolder r;
    unsigned int u = 0;
    ASSERT_EQ(r->WriteUINT(nullptr, "Max", 4294967295u), configreader_success);
    EXPECT_EQ(ReadText(r.r, nullptr, "Max"), "-1");
    EXPECT_EQ(r->ReadUINT(nullptr, "Max", &u), configreader_success);
    EXPECT_EQ(u, 4294967295u);
    ASSERT_EQ(r->WriteUINT(nullptr, "Half", 2147483648u), configreader_success);
    EXPECT_EQ(ReadText(r.r, nullptr, "Half"), "-2147483648");
    EXPECT_EQ(r->ReadUINT(nullptr, "Half", &u), configreader_success);
    EXPECT_EQ(u, 2147483648u);

    ASSERT_EQ(r->WriteString(nullptr, "T", "abc"), configreader_success);
    u = 9;
    EXPECT_EQ(r->ReadUINT(nullptr, "T", &u), configreader_wrong_type);
    EXPECT_EQ(u, 0u);  // the conversion's result lands in any case
    // A number read back as text and a boolean read back as a number.
    ASSERT_EQ(r->WriteBool(nullptr, "B", true), configreader_success);
    EXPECT_EQ(r->ReadUINT(nullptr, "B", &u), configreader_wrong_type);
    ASSERT_EQ(r->WriteUINT(nullptr, "B", 1), configreader_success);
    bool b = false;
    EXPECT_EQ(r->ReadBool(nullptr, "B", &b), configreader_success);
    EXPECT_TRUE(b);
}

TEST(ParseConfigUINT, FollowsTheUnsignedConversionRules) {
    unsigned int u = 5;
    EXPECT_FALSE(detail::ParseConfigUINT("", &u));
    EXPECT_EQ(u, 0u);
    EXPECT_FALSE(detail::ParseConfigUINT(" +x", &u));
    EXPECT_TRUE(detail::ParseConfigUINT("\t\n+17", &u));
    EXPECT_EQ(u, 17u);
    EXPECT_TRUE(detail::ParseConfigUINT("-2", &u));
    EXPECT_EQ(u, 4294967294u);
    EXPECT_TRUE(detail::ParseConfigUINT("4294967296", &u));
    EXPECT_EQ(u, 4294967295u);
    EXPECT_TRUE(detail::ParseConfigUINT("-4294967296", &u));
    EXPECT_EQ(u, 4294967295u);
    EXPECT_TRUE(detail::ParseConfigUINT("0x10", &u));
    EXPECT_EQ(u, 0u);
}

TEST(MemoryConfigReader, BooleansAcceptFourTextsOnly) {
    ReaderHolder r;
    bool b = true;
    ASSERT_EQ(r->WriteString("S", "v", "yes"), configreader_success);
    EXPECT_EQ(r->ReadBool("S", "v", &b), configreader_invalid_parameter);
    EXPECT_TRUE(b);
    int i = 7;
    EXPECT_EQ(r->ReadBOOL("S", "v", &i), configreader_invalid_parameter);
    EXPECT_EQ(i, 7);
    EXPECT_EQ(r->ReadBOOL("S", "missing", &i), configreader_not_found);
    EXPECT_EQ(i, 7);

    const struct {
        const char* text;
        bool value;
    } cases[] = {{"TRUE", true}, {"1", true}, {"False", false}, {"0", false}};
    for (const auto& c : cases) {
        ASSERT_EQ(r->WriteString("S", "v", c.text), configreader_success);
        b = !c.value;
        EXPECT_EQ(r->ReadBool("S", "v", &b), configreader_success) << c.text;
        EXPECT_EQ(b, c.value) << c.text;
        EXPECT_EQ(r->ReadBOOL("S", "v", &i), configreader_success);
        EXPECT_EQ(i, c.value ? 1 : 0);
    }
    ASSERT_EQ(r->WriteString("S", "v", "01"), configreader_success);
    EXPECT_EQ(r->ReadBool("S", "v", &b), configreader_invalid_parameter);

    EXPECT_EQ(r->WriteBOOL("S", "v", -1), configreader_success);
    EXPECT_EQ(ReadText(r.r, "S", "v"), "false");
    EXPECT_EQ(r->WriteBOOL("S", "v", 5), configreader_success);
    EXPECT_EQ(ReadText(r.r, "S", "v"), "true");
    EXPECT_EQ(r->ReadBool("S", "v", nullptr), configreader_invalid_parameter);
    EXPECT_EQ(r->ReadBOOL("S", "v", nullptr), configreader_invalid_parameter);
}

TEST(MemoryConfigReader, NestedReadersHoldReferencesAndRefuseText) {
    int destroyed = 0;
    auto* inner = new CountingReader(&destroyed);
    ASSERT_EQ(inner->WriteString(nullptr, "Leaf", "v"), configreader_success);
    {
        ReaderHolder r;
        EXPECT_EQ(r->WriteConfigReader("S", nullptr, inner), configreader_invalid_parameter);
        ASSERT_EQ(r->WriteString("S", "Sub", "text"), configreader_success);
        ASSERT_EQ(r->WriteConfigReader("S", "Sub", inner), configreader_success);
        EXPECT_EQ(inner->GetRefCount(), 2);
        EXPECT_EQ(ReadText(r.r, "S", "Sub"), "");  // kind 1: not readable as text
        configreader_status status{};
        ReadText(r.r, "S", "Sub", &status);
        EXPECT_EQ(status, configreader_wrong_type);
        bool b = false;
        unsigned int u = 0;
        EXPECT_EQ(r->ReadBool("S", "Sub", &b), configreader_wrong_type);
        EXPECT_EQ(r->ReadUINT("S", "Sub", &u), configreader_wrong_type);
        EXPECT_EQ(r->WriteString("S", "Sub", "x"), configreader_wrong_type);

        ConfigReader* got = nullptr;
        ASSERT_EQ(r->ReadConfigReader("s", "SUB", got), configreader_success);
        ASSERT_EQ(got, inner);
        EXPECT_EQ(inner->GetRefCount(), 3);
        ConfigReader* again = got;
        EXPECT_EQ(r->ReadConfigReader("S", "Sub", again), configreader_invalid_parameter);
        ConfigReader* none = nullptr;
        ASSERT_EQ(r->WriteString("S", "Plain", "p"), configreader_success);
        EXPECT_EQ(r->ReadConfigReader("S", "Plain", none), configreader_wrong_type);
        EXPECT_EQ(r->ReadConfigReader("S", "Nope", none), configreader_not_found);
        EXPECT_EQ(none, nullptr);

        // Deleting the item gives back its reference; the caller's stays usable.
        EXPECT_EQ(r->DeleteItem("S", "Sub"), configreader_success);
        EXPECT_EQ(inner->GetRefCount(), 2);
        EXPECT_EQ(ReadText(got, nullptr, "Leaf"), "v");
        got->Release();

        // A reader nested twice is released by section removal and by destruction.
        ASSERT_EQ(r->WriteConfigReader("A", "x", inner), configreader_success);
        ASSERT_EQ(r->WriteConfigReader("B", "x", inner), configreader_success);
        EXPECT_EQ(inner->GetRefCount(), 3);
        EXPECT_EQ(r->DeleteSection("a"), configreader_success);
        EXPECT_EQ(inner->GetRefCount(), 2);
    }
    EXPECT_EQ(inner->GetRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
    inner->Release();
    EXPECT_EQ(destroyed, 1);
}

TEST(MemoryConfigReader, EnumeratesInFoldedOrder) {
    ReaderHolder r;
    // Folded, 'A' sorts after '_' (0x61 > 0x5F); unfolded it would sort before.
    for (const char* item : {"b", "Ax", "_x", "c"}) {
        ASSERT_EQ(r->WriteString("Sec", item, "1"), configreader_success);
    }
    ASSERT_EQ(r->WriteString("zeta", "k", "1"), configreader_success);
    ASSERT_EQ(r->WriteString("Alpha", "k", "1"), configreader_success);
    ASSERT_EQ(r->WriteString(nullptr, "k", "1"), configreader_success);

    std::vector<std::string> items;
    char name[32];
    for (int i = 0; i < r->GetNumItems("SEC"); ++i) {
        ASSERT_EQ(r->GetItemName("sec", i, name, sizeof name), configreader_success);
        items.emplace_back(name);
    }
    EXPECT_EQ(items, (std::vector<std::string>{"_x", "Ax", "b", "c"}));
    std::vector<std::string> sections;
    for (int i = 0; i < r->GetNumSections(); ++i) {
        ASSERT_EQ(r->GetSectionName(i, name, sizeof name), configreader_success);
        sections.emplace_back(name);
    }
    EXPECT_EQ(sections, (std::vector<std::string>{"Alpha", "default", "Sec", "zeta"}));

    std::strcpy(name, "old");
    EXPECT_EQ(r->GetSectionName(4, name, sizeof name), configreader_not_found);
    EXPECT_EQ(name[0], '\0');
    EXPECT_EQ(r->GetSectionName(-1, name, sizeof name), configreader_not_found);
    EXPECT_EQ(r->GetItemName("NoSuch", 0, name, sizeof name), configreader_not_found);
    EXPECT_EQ(r->GetItemName("Sec", 0, name, 0), configreader_invalid_parameter);
    ASSERT_EQ(r->GetSectionName(0, name, 3), configreader_success);
    EXPECT_STREQ(name, "Al");
}

TEST(MemoryConfigReader, DeletesSucceedWhetherOrNotPresent) {
    ReaderHolder r;
    EXPECT_EQ(r->DeleteItem("S", "x"), configreader_success);
    EXPECT_EQ(r->DeleteSection("S"), configreader_success);
    ASSERT_EQ(r->WriteString(nullptr, "a", "1"), configreader_success);
    ASSERT_EQ(r->WriteString(nullptr, "b", "1"), configreader_success);
    EXPECT_EQ(r->DeleteItem("", "A"), configreader_success);
    EXPECT_EQ(r->GetNumItems(nullptr), 1);
    EXPECT_TRUE(r->IsSectionPresent(nullptr));  // an emptied section stays
    EXPECT_EQ(r->DeleteSection(nullptr), configreader_success);
    EXPECT_FALSE(r->IsSectionPresent("default"));
    EXPECT_EQ(r->GetNumSections(), 0);
}

TEST(MemoryConfigReader, NamesAndUnsupportedOperations) {
    ReaderHolder r;
    char name[8] = "junk";
    EXPECT_EQ(r->GetReaderName(name, sizeof name), configreader_success);
    EXPECT_STREQ(name, "");
    r->SetReaderName(nullptr);
    EXPECT_EQ(r->GetReaderName(name, sizeof name), configreader_success);
    EXPECT_STREQ(name, "Unnamed");
    r->SetReaderName("LongerThanRoom");
    EXPECT_EQ(r->GetReaderName(name, sizeof name), configreader_success);
    EXPECT_STREQ(name, "LongerT");

    unsigned char data[4] = {1, 2, 3, 4};
    size_t size = sizeof data;
    EXPECT_EQ(r->WriteBinary("S", "b", data, size), configreader_not_supported);
    EXPECT_EQ(r->ReadBinary("S", "b", data, &size), configreader_not_supported);
}

TEST(IsConfigFieldProtected, FindsPasswordOrPwdInAnyCase) {
    EXPECT_TRUE(IsConfigFieldProtected("UserPassword"));
    EXPECT_TRUE(IsConfigFieldProtected("PWD"));
    EXPECT_TRUE(IsConfigFieldProtected("dbpwdfile"));
    EXPECT_TRUE(IsConfigFieldProtected("PASSWORD2"));
    EXPECT_TRUE(IsConfigFieldProtected("PaPwd"));  // a failed partial match restarts
    EXPECT_FALSE(IsConfigFieldProtected("Pass"));
    EXPECT_FALSE(IsConfigFieldProtected("Pw"));
    EXPECT_FALSE(IsConfigFieldProtected(""));
    EXPECT_FALSE(IsConfigFieldProtected(nullptr));
}

TEST(MemoryConfigReader, ConcurrentWritersAndReadersKeepTheStoreWhole) {
    ReaderHolder r;
    constexpr int kThreads = 4;
    constexpr int kItems = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&r, t] {
            const std::string section = "S" + std::to_string(t);
            for (int i = 0; i < kItems; ++i) {
                const std::string item = "i" + std::to_string(i);
                EXPECT_EQ(r->WriteUINT(section.c_str(), item.c_str(), static_cast<unsigned>(i)),
                          configreader_success);
                unsigned int u = 0;
                EXPECT_EQ(r->ReadUINT(section.c_str(), item.c_str(), &u), configreader_success);
                EXPECT_EQ(u, static_cast<unsigned>(i));
                char name[16];
                (void)r->GetSectionName(0, name, sizeof name);
                EXPECT_EQ(r->WriteString("Shared", "k", item.c_str()), configreader_success);
                if (i % 7 == 0) {
                    EXPECT_EQ(r->DeleteItem("Shared", "k"), configreader_success);
                }
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(r->GetNumSections(), kThreads + 1);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(r->GetNumItems(("s" + std::to_string(t)).c_str()), kItems);
    }
}
