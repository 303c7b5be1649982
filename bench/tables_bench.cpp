// The multi-key table against Boost.MultiIndex with the same indexes: an ordered unique
// 64-bit key and an ordered non-unique string key, 100000 rows. The record lock against an
// uncontended std::mutex. Without Boost (TOLVEN_BENCH_HAVE_BOOST undefined) only our side is
// built.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "tolven/autothread.h"
#include "tolven/event.h"
#include "tolven/mkdbimpl.h"

#ifdef TOLVEN_BENCH_HAVE_BOOST
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#endif

using namespace TOLVEN;

namespace {

constexpr uint64_t kRows = 100000;

// A fixed-length, zero-padded name; both sides order it with the same byte comparison.
struct Name {
    char text[24];
};
int CompareNames(const Name& a, const Name& b) {
    return std::memcmp(a.text, b.text, sizeof a.text);
}
struct NameLess {
    bool operator()(const Name& a, const Name& b) const { return CompareNames(a, b) < 0; }
};

struct Row {
    uint64_t id;
    Name name;
    uint64_t value;
};

struct IdTraits {
    using key_type = uint64_t;
    static void MakeKey(const Row& row, uint64_t* key) { *key = row.id; }
    static int Compare(const uint64_t& a, const uint64_t& b) { return a < b ? -1 : (a > b); }
    static bool KeyToBlob(const uint64_t&, _BLOB_INFO*) { return false; }
    static bool BlobToKey(const _BLOB_INFO*, uint64_t*) { return false; }
};
struct NameTraits {
    using key_type = Name;
    static void MakeKey(const Row& row, Name* key) { *key = row.name; }
    static int Compare(const Name& a, const Name& b) { return CompareNames(a, b); }
    static bool KeyToBlob(const Name&, _BLOB_INFO*) { return false; }
    static bool BlobToKey(const _BLOB_INFO*, Name*) { return false; }
};
struct NoConvert {
    bool RowToBlob(const Row&, _BLOB_INFO*) { return false; }
};

using Alloc = fast_allocator<Row, 10000, true>;
using Policy = multikeydb_policy<Row, 1, 0, 0, 16>;
using Lock = ReadWriteLock_pr;
using Table = multikeydb<Row, NoConvert, Lock, Alloc, Policy, _empty_record_locker<Lock>>;
using TableRl = multikeydb_rl<Row, NoConvert, Lock, Alloc, Policy, _record_locker<Lock>>;

template <class T>
void AddIndexes(T& table) {
    (void)table.AddIndex(new treeindex<false, uint64_t, Row, IdTraits, Alloc, NotNullable>, 0,
                         true);
    (void)table.AddIndex(new treeindex<true, Name, Row, NameTraits, Alloc, NotNullable>, 1, true);
}

#ifdef TOLVEN_BENCH_HAVE_BOOST
namespace bmi = boost::multi_index;
using Peer = bmi::multi_index_container<
    Row, bmi::indexed_by<bmi::ordered_unique<bmi::member<Row, uint64_t, &Row::id>>,
                         bmi::ordered_non_unique<bmi::member<Row, Name, &Row::name>, NameLess>>>;
#endif

// Rows in a scrambled id order, names shared by about ten rows each.
const std::vector<Row>& Rows() {
    static const std::vector<Row> rows = [] {
        std::vector<Row> out(kRows);
        for (uint64_t i = 0; i < kRows; ++i) {
            Row& r = out[i];
            r = Row{};
            r.id = (i * 7919) % kRows;
            std::snprintf(r.name.text, sizeof r.name.text, "name%06u",
                          static_cast<unsigned>(r.id / 10));
            r.value = i;
        }
        return out;
    }();
    return rows;
}

template <class T>
void Fill(T& table) {
    for (const Row& r : Rows()) {
        mkdb_add_request<Row> request;
        request.row = &r;
        (void)table.AddRow(request, false);
    }
}

void BM_InsertEraseAll_Ours(benchmark::State& state) {
    Table table;
    AddIndexes(table);
    for (auto _ : state) {
        Fill(table);
        (void)table.Clear();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_InsertEraseAll_Ours)->Unit(benchmark::kMillisecond);

#ifdef TOLVEN_BENCH_HAVE_BOOST
void BM_InsertEraseAll_Peer(benchmark::State& state) {
    Peer peer;
    for (auto _ : state) {
        for (const Row& r : Rows())
            peer.insert(r);
        peer.clear();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_InsertEraseAll_Peer)->Unit(benchmark::kMillisecond);
#endif

void BM_FindByEachKey_Ours(benchmark::State& state) {
    Table table;
    AddIndexes(table);
    Fill(table);
    uint64_t sum = 0;
    for (auto _ : state) {
        for (const Row& r : Rows()) {
            Row out;
            (void)table.FindRow(0, &r.id, sizeof r.id, &out, nullptr, false);
            sum += out.value;
            (void)table.FindRow(1, &r.name, sizeof r.name, &out, nullptr, false);
            sum += out.value;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kRows * 2);
}
BENCHMARK(BM_FindByEachKey_Ours)->Unit(benchmark::kMillisecond);

#ifdef TOLVEN_BENCH_HAVE_BOOST
void BM_FindByEachKey_Peer(benchmark::State& state) {
    Peer peer;
    for (const Row& r : Rows())
        peer.insert(r);
    uint64_t sum = 0;
    for (auto _ : state) {
        for (const Row& r : Rows()) {
            Row out = *peer.get<0>().find(r.id);
            sum += out.value;
            out = *peer.get<1>().find(r.name);
            sum += out.value;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kRows * 2);
}
BENCHMARK(BM_FindByEachKey_Peer)->Unit(benchmark::kMillisecond);
#endif

void BM_FullScan_Ours(benchmark::State& state) {
    Table table;
    AddIndexes(table);
    Fill(table);
    uint64_t sum = 0;
    for (auto _ : state) {
        csdb_context ctx{};
        Row out;
        uint64_t key = 0;
        csdb_status st = table.StepRow(0, MKDB_BEGIN, &key, sizeof key, &out, &ctx, false);
        while (st == CSDB_SUCCESS) {
            sum += out.value;
            st = table.StepRow(0, MKDB_NEXT, &key, sizeof key, &out, &ctx, false);
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_FullScan_Ours)->Unit(benchmark::kMillisecond);

#ifdef TOLVEN_BENCH_HAVE_BOOST
void BM_FullScan_Peer(benchmark::State& state) {
    Peer peer;
    for (const Row& r : Rows())
        peer.insert(r);
    uint64_t sum = 0;
    for (auto _ : state) {
        for (const Row& r : peer.get<0>()) {
            Row out = r;
            sum += out.value;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_FullScan_Peer)->Unit(benchmark::kMillisecond);
#endif

void BM_RecordLock_FindLockUnlock(benchmark::State& state) {
    TableRl table;
    AddIndexes(table);
    Fill(table);
    const uint64_t id = 42;
    for (auto _ : state) {
        csdb_context ctx{};
        (void)table.FindRow(0, &id, sizeof id, nullptr, &ctx, true);
        (void)table.UnlockRecord(&ctx);
    }
}
BENCHMARK(BM_RecordLock_FindLockUnlock);

// The row-lock step alone: latch, lock word, table count; then the same to unlock.
void BM_RecordLock_RawStep(benchmark::State& state) {
    _record_locker<Lock> locker(4000);
    _dbrow_header row;
    const uint32_t self = detail::RecordLockThreadId();
    for (auto _ : state) {
        {
            detail::RowLatchGuard latch(row);
            if (!_record_locker<Lock>::LockedByOther(row, self)) (void)locker.LockRow(row, self);
        }
        detail::RowLatchGuard latch(row);
        (void)locker.UnlockRow(row, self);
    }
}
BENCHMARK(BM_RecordLock_RawStep);

void BM_RecordLock_Mutex(benchmark::State& state) {
    std::mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}
BENCHMARK(BM_RecordLock_Mutex);

}  // namespace
