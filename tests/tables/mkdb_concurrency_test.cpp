#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "tables/table_fixture.h"

using namespace TOLVEN;
using namespace tabletest;

namespace {

// The rows of a walk of `index`, in index order.
template <class Key>
std::vector<Row> WalkRows(TableRl& table, unsigned index) {
    std::vector<Row> rows;
    Key key{};
    Row row{};
    csdb_context ctx{};
    csdb_status st = table.StepRow(index, MKDB_BEGIN, &key, sizeof key, &row, &ctx, false);
    while (st == CSDB_SUCCESS) {
        rows.push_back(row);
        st = table.StepRow(index, MKDB_NEXT, &key, sizeof key, &row, &ctx, false);
    }
    EXPECT_EQ(st, CSDB_END);
    return rows;
}

std::set<uint64_t> Ids(const std::vector<Row>& rows) {
    std::set<uint64_t> ids;
    for (const Row& r : rows)
        ids.insert(r.id);
    return ids;
}

}  // namespace

// Writers add, update and delete their own ids while lockers hold rows and scanners walk;
// afterwards every index holds the same rows, each in its order.
TEST(MkdbConcurrency, MixedTrafficLeavesIndexesConsistent) {
    TableRl table;
    AddIndexes(table);
    constexpr int kWriters = 2;
    constexpr int kSteps = 1500;
    std::atomic<int> writersLeft{kWriters};
    std::vector<std::set<uint64_t>> live(kWriters);
    std::vector<std::thread> threads;

    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            std::mt19937_64 random(w + 1);
            const uint64_t base = (w + 1) * 1000000ull;
            for (int step = 0; step < kSteps; ++step) {
                const uint64_t id = base + step;
                const char* name = (step % 4 == 0) ? "same" : (step % 2 ? "odd" : "even");
                ASSERT_EQ(Add(table, MakeRow(id, name, step % 7)), CSDB_SUCCESS);
                live[w].insert(id);
                const uint64_t pick = base + random() % (step + 1);
                csdb_context ctx{};
                if (live[w].count(pick) == 0) continue;
                if (random() % 3 == 0) {
                    uint64_t key = pick;
                    ASSERT_EQ(table.DeleteByKey(0, &key, sizeof key, nullptr), CSDB_SUCCESS);
                    live[w].erase(pick);
                } else if (table.FindRow(0, &pick, sizeof pick, nullptr, &ctx, false) ==
                           CSDB_SUCCESS) {
                    Row next = MakeRow(pick, random() % 2 ? "moved" : "same",
                                       static_cast<uint32_t>(random() % 11), step);
                    ASSERT_EQ(table.UpdateRow(&ctx, &next), CSDB_SUCCESS);
                }
            }
            --writersLeft;
        });
    }
    for (int l = 0; l < 2; ++l) {
        threads.emplace_back([&, l] {
            std::mt19937_64 random(100 + l);
            while (writersLeft.load() > 0) {
                const uint64_t id = (random() % kWriters + 1) * 1000000ull + random() % kSteps;
                csdb_context ctx{};
                if (table.FindRow(0, &id, sizeof id, nullptr, &ctx, true) != CSDB_SUCCESS) continue;
                // A recursive hold, then both given back.
                if (random() % 2 == 0) {
                    ASSERT_EQ(table.FindRow(0, &id, sizeof id, nullptr, nullptr, true),
                              CSDB_SUCCESS);
                    ASSERT_EQ(table.UnlockRecord(&ctx), CSDB_SUCCESS);
                }
                ASSERT_EQ(table.UnlockRecord(&ctx), CSDB_SUCCESS);
            }
        });
    }
    threads.emplace_back([&] {
        _BLOB_INFO* key = nullptr;
        _BLOB_INFO* row = nullptr;
        ASSERT_EQ(CreateBlob(&key), BLOB_STATUS_SUCCESS);
        ASSERT_EQ(CreateBlob(&row), BLOB_STATUS_SUCCESS);
        while (writersLeft.load() > 0) {
            (void)WalkRows<Name>(table, 1);
            csdb_context ctx{};
            csdb_status st = table.Begin(2, key, row, &ctx);
            while (st == CSDB_SUCCESS)
                st = table.GetNext(2, key, row, &ctx);
            EXPECT_TRUE(st == CSDB_END || st == CSDB_NOT_FOUND) << st;
        }
        (void)ReleaseBlob(&key);
        (void)ReleaseBlob(&row);
    });
    for (auto& t : threads)
        t.join();

    std::set<uint64_t> expected;
    for (const auto& ids : live)
        expected.insert(ids.begin(), ids.end());
    const auto byId = WalkRows<uint64_t>(table, 0);
    const auto byName = WalkRows<Name>(table, 1);
    const auto byGroup = WalkRows<uint32_t>(table, 2);
    EXPECT_EQ(Ids(byId), expected);
    EXPECT_EQ(byId.size(), expected.size());
    EXPECT_EQ(Ids(byName), expected);
    EXPECT_EQ(byName.size(), expected.size());
    EXPECT_EQ(Ids(byGroup), expected);
    EXPECT_EQ(byGroup.size(), expected.size());
    EXPECT_EQ(table.Count(), expected.size());
    EXPECT_TRUE(std::is_sorted(byId.begin(), byId.end(),
                               [](const Row& a, const Row& b) { return a.id <= b.id; }));
    EXPECT_TRUE(std::is_sorted(byName.begin(), byName.end(), [](const Row& a, const Row& b) {
        return std::strcmp(a.name, b.name) < 0;
    }));
    EXPECT_TRUE(std::is_sorted(byGroup.begin(), byGroup.end(),
                               [](const Row& a, const Row& b) { return a.group < b.group; }));
    EXPECT_EQ(table.GetLock()->recordLockCount.load(), 0);
    EXPECT_EQ(table.Clear(), CSDB_SUCCESS);
    EXPECT_EQ(table.Count(), 0u);
}
