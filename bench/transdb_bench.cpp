// The transaction file against the simplest ways to put the same bytes in a file, and
// against RocksDB's write-ahead log for appends that must reach the device.
//
// - Append, no sync: the caller's cost of one Add of a 200-byte blob (a 220-byte record)
//   through the writer thread, p50/p99 over 200000 calls, against a loop of write(2) of the
//   same 220 bytes to a file. Each call is timed on its own.
// - Append with sync at commit: records a second from 1 and 4 threads, each appending for
//   2 s, Add returning once its record is on the device (fdatasync, one sync for all records
//   appended meanwhile); against RocksDB Put of the same 200 bytes with WriteOptions::sync.
// - Read by record number: a random record of 100000, found through the context its Add
//   gave (one read, the row made into a blob), against pread(2) of the same 220 bytes at a
//   position the caller keeps. The same by key alone is a scan from the first record, shown
//   on a file of 1000 records without a peer.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tolven/blobtyped.h"
#include "tolven/transdb.h"

#ifdef TOLVEN_BENCH_HAVE_ROCKSDB
#include <rocksdb/db.h>
#include <rocksdb/options.h>
#endif

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAppends = 200000;
constexpr int kReadRecords = 100000;
constexpr int kScanRecords = 1000;
constexpr double kSyncSeconds = 2.0;
// A blob image of 200 bytes: 5 header bytes and a "pad" binary field of 186 bytes.
constexpr uint32_t kPad = 186;

class Folder {
  public:
    explicit Folder(const char* name)
        : path_(fs::temp_directory_path() / ("tolven_transdb_bench_" + std::string(name))) {
        fs::remove_all(path_);
        fs::create_directories(path_);
    }
    ~Folder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string operator/(const char* name) const { return (path_ / name).string(); }

  private:
    fs::path path_;
};

// The 200-byte blob every benchmark appends.
_BLOB_INFO* MakeRow() {
    _BLOB_INFO* row = nullptr;
    (void)CreateBlob(&row);
    std::vector<unsigned char> pad(kPad, 0x5a);
    (void)AddBinary(row, "pad", pad.data(), kPad);
    return row;
}

// The record of that blob as the file holds it.
std::string RecordBytes(_BLOB_INFO* row) {
    unsigned char* image = nullptr;
    uint64_t length = 0;
    (void)GetBlobPtr(row, &image, &length);
    const uint32_t total = static_cast<uint32_t>(length) + 20;
    std::string record(total, '\0');
    const uint64_t recNum = 1;
    std::memcpy(record.data(), &recNum, 8);
    std::memcpy(record.data() + 12, &total, 4);
    std::memcpy(record.data() + 16, image, length);
    std::memcpy(record.data() + total - 4, &total, 4);
    return record;
}

template <class Call>
void Percentiles(benchmark::State& state, Call call) {
    std::vector<uint32_t> samples(kAppends);
    for (auto _ : state) {
        for (int i = 0; i < kAppends; ++i) {
            const auto start = Clock::now();
            call();
            const auto end = Clock::now();
            samples[i] = static_cast<uint32_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count());
        }
    }
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        return static_cast<double>(samples[static_cast<size_t>(q * (samples.size() - 1))]);
    };
    state.counters["p50_ns"] = at(0.50);
    state.counters["p99_ns"] = at(0.99);
    state.counters["p999_ns"] = at(0.999);
    state.SetItemsProcessed(kAppends);
}

void BM_Append_Tolven(benchmark::State& state) {
    Folder folder("append");
    _BLOB_INFO* row = MakeRow();
    TransDb db;
    if (db.Open((folder / "a.tdb").c_str(), 0, false, 2048, 0xFFFFFFFFu, 0.0, false) !=
        CSDB_SUCCESS) {
        state.SkipWithError("cannot open the file");
        return;
    }
    Percentiles(state, [&] {
        if (db.Add(row, nullptr) != CSDB_SUCCESS) std::abort();
    });
    (void)db.Close();
    (void)ReleaseBlob(&row);
}
BENCHMARK(BM_Append_Tolven)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_Append_RawWrite(benchmark::State& state) {
    Folder folder("raw");
    _BLOB_INFO* row = MakeRow();
    const std::string record = RecordBytes(row);
    const int fd = ::open((folder / "a.raw").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    Percentiles(state, [&] {
        if (::write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size()))
            std::abort();
    });
    ::close(fd);
    (void)ReleaseBlob(&row);
}
BENCHMARK(BM_Append_RawWrite)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// Runs `append(thread)` on `threads` threads for kSyncSeconds; reports records a second.
template <class Append>
void SyncedRate(benchmark::State& state, int threads, Append append) {
    uint64_t total = 0;
    double seconds = 0;
    for (auto _ : state) {
        std::atomic<uint64_t> count{0};
        std::atomic<bool> stop{false};
        std::vector<std::thread> workers;
        const auto start = Clock::now();
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                uint64_t mine = 0;
                while (!stop.load(std::memory_order_relaxed)) {
                    append(t);
                    ++mine;
                }
                count.fetch_add(mine);
            });
        std::this_thread::sleep_for(std::chrono::duration<double>(kSyncSeconds));
        stop.store(true);
        for (auto& w : workers)
            w.join();
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        total = count.load();
    }
    state.counters["recs_per_s"] = static_cast<double>(total) / seconds;
    state.SetItemsProcessed(static_cast<int64_t>(total));
}

void BM_SyncAppend_Tolven(benchmark::State& state) {
    Folder folder("sync");
    _BLOB_INFO* row = MakeRow();
    TransDb db;
    db.SetSyncAtCommit(true);
    if (db.Open((folder / "s.tdb").c_str(), 0, false, 2048, 0xFFFFFFFFu, 0.0, false) !=
        CSDB_SUCCESS) {
        state.SkipWithError("cannot open the file");
        return;
    }
    SyncedRate(state, static_cast<int>(state.range(0)), [&](int) {
        if (db.Add(row, nullptr) != CSDB_SUCCESS) std::abort();
    });
    state.counters["syncs"] = static_cast<double>(db.GetSyncCount());
    (void)db.Close();
    (void)ReleaseBlob(&row);
}
BENCHMARK(BM_SyncAppend_Tolven)->Arg(1)->Arg(4)->Iterations(1)->UseRealTime();

#ifdef TOLVEN_BENCH_HAVE_ROCKSDB
void BM_SyncAppend_RocksDbWal(benchmark::State& state) {
    Folder folder("rocks");
    rocksdb::Options options;
    options.create_if_missing = true;
    rocksdb::DB* db = nullptr;
    if (!rocksdb::DB::Open(options, folder / "db", &db).ok()) {
        state.SkipWithError("cannot open RocksDB");
        return;
    }
    rocksdb::WriteOptions write;
    write.sync = true;
    const std::string value(200, 'Z');
    std::atomic<uint64_t> next{0};
    SyncedRate(state, static_cast<int>(state.range(0)), [&](int) {
        const uint64_t n = next.fetch_add(1, std::memory_order_relaxed);
        const rocksdb::Slice key(reinterpret_cast<const char*>(&n), sizeof(n));
        if (!db->Put(write, key, value).ok()) std::abort();
    });
    delete db;
}
BENCHMARK(BM_SyncAppend_RocksDbWal)->Arg(1)->Arg(4)->Iterations(1)->UseRealTime();
#endif

// A file of `records` rows and the context of each.
struct ReadFile {
    Folder folder{"read"};
    TransDb db;
    std::vector<csdb_context> contexts;
    std::string path = folder / "r.tdb";

    explicit ReadFile(int records) {
        _BLOB_INFO* row = MakeRow();
        (void)db.Open(path.c_str(), 0, false, 2048, 0xFFFFFFFFu, 0.0, false);
        contexts.resize(records);
        for (int i = 0; i < records; ++i)
            (void)db.Add(row, &contexts[i]);
        // Closed and opened again, so that every record is in the file.
        (void)db.Close();
        (void)db.Open(path.c_str(), 0, false, 2048, 0xFFFFFFFFu, 0.0, false);
        (void)ReleaseBlob(&row);
    }
};

void BM_Read_Tolven_ByContext(benchmark::State& state) {
    ReadFile file(kReadRecords);
    _BLOB_INFO* row = nullptr;
    (void)CreateBlob(&row);
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> pick(0, kReadRecords - 1);
    for (auto _ : state) {
        csdb_context& ctx = file.contexts[pick(rng)];
        if (file.db.FindExact(0, &ctx, nullptr, row) != CSDB_SUCCESS) std::abort();
    }
    (void)ReleaseBlob(&row);
}
BENCHMARK(BM_Read_Tolven_ByContext);

void BM_Read_Pread(benchmark::State& state) {
    ReadFile file(kReadRecords);
    std::vector<uint64_t> positions;
    for (const csdb_context& c : file.contexts)
        positions.push_back(c.reserved);
    const uint32_t size = static_cast<uint32_t>(file.contexts[1].reserved - positions[0]);
    const int fd = ::open(file.path.c_str(), O_RDONLY);
    char buffer[4096];
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> pick(0, kReadRecords - 1);
    for (auto _ : state) {
        const off_t at = static_cast<off_t>(positions[pick(rng)]);
        if (::pread(fd, buffer, size, at) != static_cast<ssize_t>(size)) std::abort();
        benchmark::DoNotOptimize(buffer);
    }
    ::close(fd);
}
BENCHMARK(BM_Read_Pread);

void BM_Read_Tolven_ByKeyScan(benchmark::State& state) {
    ReadFile file(kScanRecords);
    _BLOB_INFO* row = nullptr;
    _BLOB_INFO* key = nullptr;
    (void)CreateBlob(&row);
    (void)CreateBlob(&key);
    (void)AddU64(key, "RecNum", 1);
    std::mt19937 rng(1);
    std::uniform_int_distribution<uint64_t> pick(1, kScanRecords);
    for (auto _ : state) {
        (void)SetByNameU64(key, "RecNum", pick(rng));
        if (file.db.FindExact(0, key, row, nullptr) != CSDB_SUCCESS) std::abort();
    }
    (void)ReleaseBlob(&row);
    (void)ReleaseBlob(&key);
}
BENCHMARK(BM_Read_Tolven_ByKeyScan);

}  // namespace
