// The transaction file under several appending threads, readers walking meanwhile, and a
// Close that must wait for a running read.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "transdb/transdb_test_util.h"

using namespace TOLVEN;
using namespace tolven_test;

// Appenders with sync at commit and a reader: every record whole, numbered without a gap,
// and each appender's records in its own order.
TEST(TransDbConcurrency, AppendersAndReaders) {
    ScratchDir dir;
    TransDb db;
    db.SetSyncAtCommit(true);
    ASSERT_EQ(OpenDb(db, dir / "c.tdb"), CSDB_SUCCESS);
    constexpr uint64_t kThreads = 4, kEach = 60;
    std::atomic<bool> done{false};
    std::atomic<uint64_t> badReads{0};
    std::thread reader([&] {
        while (!done.load()) {
            const std::vector<uint64_t> seqs = Walk(db);
            for (uint64_t seq : seqs)
                if (seq == 0) badReads.fetch_add(1);
        }
    });
    std::vector<std::thread> appenders;
    for (uint64_t t = 0; t < kThreads; ++t)
        appenders.emplace_back([&db, t] {
            Blob row;
            for (uint64_t i = 1; i <= kEach; ++i) {
                FillRow(row, t * 1000 + i, static_cast<uint32_t>(i * 37 % 700));
                ASSERT_EQ(db.Add(row, nullptr), CSDB_SUCCESS);
            }
        });
    for (auto& a : appenders)
        a.join();
    done.store(true);
    reader.join();
    EXPECT_EQ(badReads.load(), 0u);
    ASSERT_EQ(db.Count(), kThreads * kEach);
    EXPECT_LE(db.GetSyncCount(), kThreads * kEach);
    const std::vector<uint64_t> seqs = Walk(db);
    ASSERT_EQ(seqs.size(), kThreads * kEach);
    std::vector<uint64_t> last(kThreads, 0);
    for (uint64_t seq : seqs) {
        ASSERT_NE(seq, 0u);
        ASSERT_EQ(seq % 1000, last[seq / 1000] + 1) << "an appender's records out of order";
        last[seq / 1000] = seq % 1000;
    }
}

// Close while readers scan: each read finishes whole or is refused, never cut off.
TEST(TransDbConcurrency, CloseWaitsForReaders) {
    ScratchDir dir;
    TransDb db;
    ASSERT_EQ(OpenDb(db, dir / "w.tdb", true), CSDB_SUCCESS);
    Blob row;
    for (uint64_t n = 1; n <= 300; ++n) {
        FillRow(row, n, 100);
        ASSERT_EQ(db.Add(row, nullptr), CSDB_SUCCESS);
    }
    std::atomic<int> started{0};
    std::atomic<uint64_t> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r)
        readers.emplace_back([&] {
            Blob key, found;
            for (bool first = true;; first = false) {
                SetKey(key, 1000);  // beyond the last: a scan of the whole file
                const csdb_status st = db.GetFirst(0, key, found, nullptr);
                if (first) started.fetch_add(1);
                if (st == CSDB_NOT_OPEN) return;
                if (st != CSDB_SUCCESS || KeyRecNum(key) != 300) wrong.fetch_add(1);
            }
        });
    while (started.load() < 2)
        std::this_thread::yield();
    EXPECT_EQ(db.Close(), CSDB_SUCCESS);
    for (auto& r : readers)
        r.join();
    EXPECT_EQ(wrong.load(), 0u);
}
