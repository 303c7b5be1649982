// The counter and group registries.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "tolven/blobtyped.h"
#include "tolven/regcounters.h"

using namespace TOLVEN;

namespace {

// A counter whose value lives in the test.
class Counter : public RegCounterEvents {
  public:
    explicit Counter(uint64_t start = 0) : value(start) {}
    void AddValue(const char*, const char* fieldName, _BLOB_INFO* blob) override {
        (void)AddU64(blob, fieldName, value.load());
    }
    void Reset() override { value = 0; }
    std::atomic<uint64_t> value;
};

// The rows of index 0 in order, as "group:name".
std::vector<std::string> Walk() {
    std::vector<std::string> out;
    RegCounterDb& table = GetRegCounterDb();
    _REGCOUNTERDB_KEY0 key{};
    _REGCOUNTERDB_ENTRY row{};
    csdb_context ctx;
    for (csdb_status st = table.StepRow(0, MKDB_BEGIN, &key, sizeof key, &row, &ctx, true);
         st == CSDB_SUCCESS; st = table.StepRow(0, MKDB_NEXT, &key, sizeof key, &row, &ctx, true)) {
        out.push_back(std::to_string(row.GroupId) + ":" + row.Name);
        (void)table.UnlockRecord(&ctx);
    }
    return out;
}

bool GroupPublished(uint32_t groupId) {
    const _REGGROUPDB_KEY0 key{groupId};
    _REGGROUPDB_ENTRY row{};
    csdb_context ctx;
    return GetRegGroupDb().FindRow(0, &key, sizeof key, &row, &ctx, false) == CSDB_SUCCESS &&
           row.Publish;
}

}  // namespace

TEST(RegCounters, RegistrationOrderResetAndCleanup) {
    EXPECT_FALSE(ForceCounterDbCleanup()) << "no table yet";
    Counter a(5), b(7), c(9);
    const std::string longName(80, 'n');
    EXPECT_TRUE(RegisterCounter("orders", 3, &a, false, true));
    EXPECT_FALSE(RegisterCounter("orders", 3, &a, false, true)) << "same name, group and sink";
    EXPECT_TRUE(RegisterCounter("orders", 3, &b, false, false)) << "a second owner";
    EXPECT_TRUE(RegisterCounter("fills", 3, &c, true, true)) << "publish on a missing group";
    EXPECT_TRUE(RegisterCounter(longName.c_str(), 0, &c, false, false));
    EXPECT_TRUE(RegisterCounter(nullptr, 1, &c, false, false));
    EXPECT_EQ(Walk(), (std::vector<std::string>{"0:" + longName.substr(0, 63), "1:", "3:fills",
                                                "3:orders", "3:orders"}));

    // The row's blob form asks the owner for its value.
    _BLOB_INFO* blob = nullptr;
    ASSERT_EQ(CreateBlob(&blob), BLOB_STATUS_SUCCESS);
    RegCounterDbDataBlobConvert convert;
    _REGCOUNTERDB_ENTRY row{"fills", 3, &c, true, true};
    ASSERT_TRUE(convert.RowToBlob(row, blob));
    char text[32] = {};
    EXPECT_EQ(GetByNameStr(blob, "Value", text, sizeof text), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(text, "9");
    (void)ReleaseBlob(&blob);

    // Reset takes the first row at or after the name.
    EXPECT_TRUE(ResetCounter("fills", 3));
    EXPECT_EQ(c.value.load(), 0u);
    EXPECT_FALSE(ResetCounter("zzz", 9)) << "nothing at or after";

    EXPECT_TRUE(UnregisterCounter(&c));
    EXPECT_FALSE(UnregisterCounter(&c));
    EXPECT_EQ(Walk(), (std::vector<std::string>{"3:orders", "3:orders"}));
    EXPECT_FALSE(ForceCounterDbCleanup()) << "rows are left";
    EXPECT_TRUE(UnregisterCounter(&a));
    EXPECT_TRUE(UnregisterCounter(&b));
    EXPECT_TRUE(ForceCounterDbCleanup());
    EXPECT_TRUE(Walk().empty()) << "a fresh table after the clean-up";
}

TEST(RegCounters, GroupsAndPublishing) {
    const uint32_t first = GetNextRegGroupId();
    EXPECT_EQ(first, 2u) << "0 is Default and 1 is left for the application";
    EXPECT_EQ(GetNextRegGroupId(), 3u);
    const _REGGROUPDB_KEY0 zero{0};
    _REGGROUPDB_ENTRY row{};
    csdb_context found;
    ASSERT_EQ(GetRegGroupDb().FindRow(0, &zero, sizeof zero, &row, &found, false), CSDB_SUCCESS);
    EXPECT_STREQ(row.Name, "Default");

    csdb_context ctx;
    EXPECT_TRUE(RegisterGroup("venue", 7, 0, &ctx));
    EXPECT_FALSE(RegisterGroup("again", 7, 0, nullptr));
    EXPECT_FALSE(EnableGroupPublish(99, true));
    EXPECT_FALSE(GroupPublished(7));
    Counter counter;
    EXPECT_TRUE(RegisterCounter("quotes", 7, &counter, true, false));
    EXPECT_TRUE(GroupPublished(7)) << "a publishing counter publishes its group";
    EXPECT_FALSE(ResetCounter("quotes", 7)) << "not resetable";
    EXPECT_TRUE(UnregisterCounter(&counter));
    EXPECT_TRUE(GroupPublished(7)) << "unregistering leaves it on";
    EXPECT_TRUE(UnregisterGroup(ctx));
    EXPECT_FALSE(EnableGroupPublish(7, false));
    EXPECT_TRUE(ForceGroupDbCleanup());
    ASSERT_EQ(GetRegGroupDb().FindRow(0, &zero, sizeof zero, &row, &found, false), CSDB_SUCCESS)
        << "a rebuilt registry has its default group again";
}
