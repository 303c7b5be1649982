#include <gtest/gtest.h>

#include <cstring>
#include <string>
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
    size_t size = 4;
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_success);
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buffer, "abc");

    size = 0;
    EXPECT_EQ(r->ReadString("S", "k", buffer, &size), configreader_invalid_parameter);
    EXPECT_EQ(r->WriteString("S", "k", nullptr), configreader_invalid_parameter);
}

TEST(MemoryConfigReader, NumbersAreStoredAsSignedText) {
    ReaderHolder r;
    unsigned int u = 0;
    ASSERT_EQ(r->WriteUINT(nullptr, "Max", 4294967295u), configreader_success);
    EXPECT_EQ(ReadText(r.r, nullptr, "Max"), "-1");
    EXPECT_EQ(r->ReadUINT(nullptr, "Max", &u), configreader_success);
    EXPECT_EQ(u, 4294967295u);

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
    const struct {
        const char* text;
        bool ok;
        unsigned int value;
    } cases[] = {{"", false, 0},
                 {" +x", false, 0},
                 {"\t\n+17", true, 17},
                 {"-2", true, 4294967294u},
                 {"4294967296", true, 4294967295u},
                 {"-4294967296", true, 4294967295u},
                 {"0x10", true, 0}};
    for (const auto& c : cases) {
        unsigned int u = 5;
        EXPECT_EQ(detail::ParseConfigUINT(c.text, &u), c.ok) << c.text;
        EXPECT_EQ(u, c.value) << c.text;
    }
}

TEST(MemoryConfigReader, BooleansAcceptFourTextsOnly) {
    ReaderHolder r;
    bool b = true;
    ASSERT_EQ(r->WriteString("S", "v", "yes"), configreader_success);
    EXPECT_EQ(r->ReadBool("S", "v", &b), configreader_invalid_parameter);
    EXPECT_TRUE(b);
    int i = 7;
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
    }
    ASSERT_EQ(r->WriteString("S", "v", "01"), configreader_success);
    EXPECT_EQ(r->ReadBool("S", "v", &b), configreader_invalid_parameter);

    EXPECT_EQ(r->WriteBOOL("S", "v", -1), configreader_success);
    EXPECT_EQ(ReadText(r.r, "S", "v"), "false");
    EXPECT_EQ(r->WriteBOOL("S", "v", 5), configreader_success);
    EXPECT_EQ(ReadText(r.r, "S", "v"), "true");
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
        configreader_status status{};
        ReadText(r.r, "S", "Sub", &status);
        EXPECT_EQ(status, configreader_wrong_type);
        unsigned int u = 0;
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
    for (const char* item : {"b", "Ax", "_x", "c"})
        ASSERT_EQ(r->WriteString("Sec", item, "1"), configreader_success);
    for (const char* section : {"zeta", "Alpha", static_cast<const char*>(nullptr)})
        ASSERT_EQ(r->WriteString(section, "k", "1"), configreader_success);

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

TEST(IsConfigFieldProtected, FindsPasswordOrPwdInAnyCase) {
    for (const char* name : {"UserPassword", "dbpwdfile", "PaPwd"})  // PaPwd: a restart
        EXPECT_TRUE(IsConfigFieldProtected(name)) << name;
    for (const char* name : {"Pass", "Pw", "", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(IsConfigFieldProtected(name));
}
