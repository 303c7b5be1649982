// The block allocators beside general-purpose allocators and pools, with 64-byte and
// 256-byte blocks.
//
// Peers: glibc (the process allocator), mimalloc, jemalloc and tcmalloc, each loaded with
// dlopen into a scope of its own so that none replaces the process's malloc, and called
// through its own entry points (mi_malloc/mi_free, mallocx/dallocx, tc_malloc/tc_free);
// boost::object_pool and boost::pool. jemalloc needs static TLS room that dlopen does not
// give by default, so the program restarts itself once with glibc's tunable for it. A peer
// library that is not installed skips its rows; without Boost (TOLVEN_BENCH_HAVE_BOOST
// undefined) the pools are left out. Linux only.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "memory/BlockAllocatorHooks.h"
#include "bench_support.h"
#include "tolven/blockallocator.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/fastblockallocator.h"

#ifdef TOLVEN_BENCH_HAVE_BOOST
#include <boost/pool/object_pool.hpp>
#include <boost/pool/pool.hpp>
#endif

using namespace TOLVEN;

namespace {

// ---- peers loaded at run time ------------------------------------------------------------

struct Peer {
    void* (*alloc)(size_t) = nullptr;
    void (*release)(void*) = nullptr;
};

Peer g_mimalloc, g_jemalloc, g_tcmalloc;
void* (*g_jeMallocx)(size_t, int) = nullptr;
void (*g_jeDallocx)(void*, int) = nullptr;

void* JeAlloc(size_t size) {
    return g_jeMallocx(size, 0);
}
void JeFree(void* p) {
    g_jeDallocx(p, 0);
}

void LoadPeers() {
    auto open = [](const char* lib) {
        void* h = dlopen(lib, RTLD_NOW | RTLD_LOCAL);
        if (h == nullptr) std::fprintf(stderr, "cannot load %s: %s\n", lib, dlerror());
        return h;
    };
    if (void* h = open("libmimalloc.so.2")) {
        g_mimalloc.alloc = reinterpret_cast<void* (*)(size_t)>(dlsym(h, "mi_malloc"));
        g_mimalloc.release = reinterpret_cast<void (*)(void*)>(dlsym(h, "mi_free"));
    }
    if (void* h = open("libjemalloc.so.2")) {
        g_jeMallocx = reinterpret_cast<void* (*)(size_t, int)>(dlsym(h, "mallocx"));
        g_jeDallocx = reinterpret_cast<void (*)(void*, int)>(dlsym(h, "dallocx"));
        if (g_jeMallocx != nullptr && g_jeDallocx != nullptr) {
            g_jemalloc.alloc = &JeAlloc;
            g_jemalloc.release = &JeFree;
        }
    }
    if (void* h = open("libtcmalloc_minimal.so.4")) {
        g_tcmalloc.alloc = reinterpret_cast<void* (*)(size_t)>(dlsym(h, "tc_malloc"));
        g_tcmalloc.release = reinterpret_cast<void (*)(void*)>(dlsym(h, "tc_free"));
    }
}

// ---- one interface over every allocator ----------------------------------------------------

constexpr uint64_t kBlocksPerAllocation = 1000;

struct FastSide {
    FastBlockAllocator a{"bench fast"};
    explicit FastSide(size_t size) { (void)a.Init(size, kBlocksPerAllocation, kBlockAllocNoLimit); }
    void* Get() { return a.GetBlock(); }
    void Put(void* p) { (void)a.ReleaseBlock(p); }
    static constexpr bool kThreadSafe = true;
};

struct BlockSide {
    BlockAllocator a{"bench block"};
    explicit BlockSide(size_t size) {
        (void)a.Init(size, kBlocksPerAllocation, kBlockAllocNoLimit, true, 10, 2);
    }
    void* Get() { return a.GetBlock(); }
    void Put(void* p) { (void)a.ReleaseBlock(p); }
    static constexpr bool kThreadSafe = true;
};

struct GlibcSide {
    size_t size;
    explicit GlibcSide(size_t s) : size(s) {}
    void* Get() { return std::malloc(size); }
    void Put(void* p) { std::free(p); }
    static constexpr bool kThreadSafe = true;
};

template <Peer* P>
struct PeerSide {
    size_t size;
    explicit PeerSide(size_t s) : size(s) {}
    void* Get() { return P->alloc(size); }
    void Put(void* p) { P->release(p); }
    static bool Available() { return P->alloc != nullptr && P->release != nullptr; }
    static constexpr bool kThreadSafe = true;
};
using MimallocSide = PeerSide<&g_mimalloc>;
using JemallocSide = PeerSide<&g_jemalloc>;
using TcmallocSide = PeerSide<&g_tcmalloc>;

#ifdef TOLVEN_BENCH_HAVE_BOOST
template <size_t N>
struct Payload {
    unsigned char bytes[N];
};

// boost::object_pool frees in address order (it keeps its free list sorted), so that it can
// destroy what is left; boost::pool frees in constant time.
struct BoostObjectPoolSide {
    boost::object_pool<Payload<64>> pool64;
    boost::object_pool<Payload<256>> pool256;
    size_t size;
    explicit BoostObjectPoolSide(size_t s) : size(s) {}
    void* Get() { return size <= 64 ? static_cast<void*>(pool64.malloc()) : pool256.malloc(); }
    void Put(void* p) {
        if (size <= 64)
            pool64.free(static_cast<Payload<64>*>(p));
        else
            pool256.free(static_cast<Payload<256>*>(p));
    }
    static constexpr bool kThreadSafe = false;
};

struct BoostPoolSide {
    boost::pool<> pool;
    explicit BoostPoolSide(size_t s) : pool(s) {}
    void* Get() { return pool.malloc(); }
    void Put(void* p) { pool.free(p); }
    static constexpr bool kThreadSafe = false;
};
#endif

template <class Side>
bool Usable(benchmark::State& state) {
    if constexpr (requires { Side::Available(); }) {
        if (!Side::Available()) {
            state.SkipWithError("peer not loaded");
            return false;
        }
    }
    return true;
}

// ---- one thread: a block out and back --------------------------------------------------------

template <class Side>
void GetRelease(benchmark::State& state) {
    if (!Usable<Side>(state)) return;
    Side side(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        void* p = side.Get();
        static_cast<unsigned char*>(p)[0] = 1;
        benchmark::DoNotOptimize(p);
        side.Put(p);
    }
    state.SetItemsProcessed(state.iterations());
}

// A burst of 256 blocks out, then all back in the order they went out.
template <class Side>
void GetReleaseBurst(benchmark::State& state) {
    if (!Usable<Side>(state)) return;
    Side side(static_cast<size_t>(state.range(0)));
    void* held[256];
    for (auto _ : state) {
        for (void*& p : held) {
            p = side.Get();
            static_cast<unsigned char*>(p)[0] = 1;
        }
        benchmark::DoNotOptimize(held);
        for (void* p : held)
            side.Put(p);
    }
    state.SetItemsProcessed(state.iterations() * 256);
}

#define ONE_THREAD(fn, side) BENCHMARK_TEMPLATE(fn, side)->Arg(64)->Arg(256)
ONE_THREAD(GetRelease, FastSide);
ONE_THREAD(GetRelease, BlockSide);
ONE_THREAD(GetRelease, GlibcSide);
ONE_THREAD(GetRelease, MimallocSide);
ONE_THREAD(GetRelease, JemallocSide);
ONE_THREAD(GetRelease, TcmallocSide);
#ifdef TOLVEN_BENCH_HAVE_BOOST
ONE_THREAD(GetRelease, BoostObjectPoolSide);
ONE_THREAD(GetRelease, BoostPoolSide);
#endif
ONE_THREAD(GetReleaseBurst, FastSide);
ONE_THREAD(GetReleaseBurst, BlockSide);
ONE_THREAD(GetReleaseBurst, GlibcSide);
ONE_THREAD(GetReleaseBurst, MimallocSide);
ONE_THREAD(GetReleaseBurst, JemallocSide);
ONE_THREAD(GetReleaseBurst, TcmallocSide);
#ifdef TOLVEN_BENCH_HAVE_BOOST
ONE_THREAD(GetReleaseBurst, BoostObjectPoolSide);
ONE_THREAD(GetReleaseBurst, BoostPoolSide);
#endif

// ---- two threads: the producer allocates, the consumer frees ---------------------------------

// A single-producer, single-consumer ring of pointers, the same for every allocator.
class Ring {
  public:
    bool Push(void* p) {
        const uint64_t tail = tail_.load(std::memory_order_relaxed);
        if (tail - headCache_ == kSize) {
            headCache_ = head_.load(std::memory_order_acquire);
            if (tail - headCache_ == kSize) return false;
        }
        slots_[tail % kSize] = p;
        tail_.store(tail + 1, std::memory_order_release);
        return true;
    }
    bool Pop(void*& p) {
        const uint64_t head = head_.load(std::memory_order_relaxed);
        if (head == tailCache_) {
            tailCache_ = tail_.load(std::memory_order_acquire);
            if (head == tailCache_) return false;
        }
        p = slots_[head % kSize];
        head_.store(head + 1, std::memory_order_release);
        return true;
    }

  private:
    static constexpr uint64_t kSize = 4096;
    alignas(64) std::atomic<uint64_t> tail_{0};
    uint64_t headCache_ = 0;
    alignas(64) std::atomic<uint64_t> head_{0};
    uint64_t tailCache_ = 0;
    alignas(64) void* slots_[kSize];
};

// Waits a little for the other side: a short spin, then the processor goes to others.
inline void Backoff(uint32_t& misses) {
    if (++misses < 64) {
        __builtin_ia32_pause();
    } else {
        misses = 0;
        std::this_thread::yield();
    }
}

template <class Side>
void ProducerConsumer(benchmark::State& state) {
    if (!Usable<Side>(state)) return;
    static_assert(Side::kThreadSafe);
    constexpr uint64_t kItems = 200000;
    Side side(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        auto ring = std::make_unique<Ring>();
        std::thread consumer([&] {
            uint32_t misses = 0;
            for (uint64_t got = 0; got < kItems;) {
                void* p;
                if (ring->Pop(p)) {
                    side.Put(p);
                    ++got;
                } else {
                    Backoff(misses);
                }
            }
        });
        uint32_t misses = 0;
        for (uint64_t i = 0; i < kItems; ++i) {
            void* p = side.Get();
            static_cast<unsigned char*>(p)[0] = 1;
            while (!ring->Push(p))
                Backoff(misses);
        }
        consumer.join();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

#define TWO_THREADS(side) \
    BENCHMARK_TEMPLATE(ProducerConsumer, side)->Arg(64)->Arg(256)->UseRealTime()
TWO_THREADS(FastSide);
TWO_THREADS(BlockSide);
TWO_THREADS(GlibcSide);
TWO_THREADS(MimallocSide);
TWO_THREADS(JemallocSide);
TWO_THREADS(TcmallocSide);

// ---- the shared head under contention -------------------------------------------------------

// Every thread takes a block and gives it back on one shared allocator: the stack's head is
// a single word that all of them swap, so its cache line travels between cores.
template <class Side>
void SharedGetRelease(benchmark::State& state) {
    if (!Usable<Side>(state)) return;
    static Side* shared = nullptr;
    if (state.thread_index() == 0) shared = new Side(64);
    // Google Benchmark starts the timed loop of all threads together, after every setup.
    for (auto _ : state) {
        void* p = shared->Get();
        static_cast<unsigned char*>(p)[0] = 1;
        benchmark::DoNotOptimize(p);
        shared->Put(p);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        delete shared;
        shared = nullptr;
    }
}
BENCHMARK_TEMPLATE(SharedGetRelease, FastSide)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(SharedGetRelease, BlockSide)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(SharedGetRelease, MimallocSide)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK_TEMPLATE(SharedGetRelease, GlibcSide)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// ---- std::map with fast_allocator ------------------------------------------------------------

// 1e5 keys inserted, then erased in the same order; `shuffled` mixes the order first.
template <class Map, bool shuffled>
void MapInsertErase(benchmark::State& state) {
    constexpr int kKeys = 100000;
    std::vector<int> keys(kKeys);
    for (int i = 0; i < kKeys; ++i)
        keys[static_cast<size_t>(i)] = i;
    if (shuffled) std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    Map map;
    for (auto _ : state) {
        for (int k : keys)
            map.emplace(k, k);
        for (int k : keys)
            map.erase(k);
    }
    state.SetItemsProcessed(state.iterations() * kKeys * 2);
}
using StdMap = std::map<int, int>;
using FastMap =
    std::map<int, int, std::less<int>, fast_allocator<std::pair<const int, int>, 10000, true>>;
BENCHMARK_TEMPLATE(MapInsertErase, FastMap, false);
BENCHMARK_TEMPLATE(MapInsertErase, StdMap, false);
BENCHMARK_TEMPLATE(MapInsertErase, FastMap, true);
BENCHMARK_TEMPLATE(MapInsertErase, StdMap, true);

// ---- resident memory after a burst -----------------------------------------------------------

uint64_t ResidentBytes() {
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    unsigned long long size = 0, resident = 0;
    const int n = std::fscanf(f, "%llu %llu", &size, &resident);
    std::fclose(f);
    return n == 2 ? resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

std::atomic<uint32_t> g_fakeNow{0};

// 1e6 blocks out, all back, then Compact: how much of the burst stays resident. The
// allocator's clock is moved past compactSeconds instead of sleeping.
void ResidentAfterBurst_BlockAllocator(benchmark::State& state) {
    constexpr size_t kBlocks = 1000000;
    detail::BlockAllocatorTestOps ops;
    ops.ticks = [] { return g_fakeNow.load(); };
    const auto* previous = detail::SetBlockAllocatorOpsForTest(&ops);
    for (auto _ : state) {
        BlockAllocator a("bench burst");
        (void)a.Init(static_cast<uint64_t>(state.range(0)), kBlocksPerAllocation,
                     kBlockAllocNoLimit, true, 1, 2);
        std::vector<void*> held(kBlocks);
        const uint64_t before = ResidentBytes();
        for (void*& p : held) {
            p = a.GetBlock();
            std::memset(p, 1, static_cast<size_t>(state.range(0)));
        }
        const uint64_t peak = ResidentBytes();
        for (void* p : held)
            (void)a.ReleaseBlock(p);
        g_fakeNow += 5000;
        (void)a.Compact();
        const uint64_t after = ResidentBytes();
        state.counters["before_MB"] = static_cast<double>(before) / 1048576.0;
        state.counters["peak_MB"] = static_cast<double>(peak) / 1048576.0;
        state.counters["after_MB"] = static_cast<double>(after) / 1048576.0;
        state.counters["after_over_before"] =
            static_cast<double>(after) / static_cast<double>(before);
    }
    (void)detail::SetBlockAllocatorOpsForTest(previous);
}
BENCHMARK(ResidentAfterBurst_BlockAllocator)->Arg(64)->Arg(256)->Iterations(1);

// The same burst through glibc, which gives memory back with malloc_trim.
void ResidentAfterBurst_Glibc(benchmark::State& state) {
    constexpr size_t kBlocks = 1000000;
    for (auto _ : state) {
        std::vector<void*> held(kBlocks);
        const uint64_t before = ResidentBytes();
        for (void*& p : held) {
            p = std::malloc(static_cast<size_t>(state.range(0)));
            std::memset(p, 1, static_cast<size_t>(state.range(0)));
        }
        const uint64_t peak = ResidentBytes();
        for (void* p : held)
            std::free(p);
        const uint64_t freed = ResidentBytes();
        (void)malloc_trim(0);
        const uint64_t after = ResidentBytes();
        state.counters["before_MB"] = static_cast<double>(before) / 1048576.0;
        state.counters["peak_MB"] = static_cast<double>(peak) / 1048576.0;
        state.counters["freed_MB"] = static_cast<double>(freed) / 1048576.0;
        state.counters["after_MB"] = static_cast<double>(after) / 1048576.0;
        state.counters["after_over_before"] =
            static_cast<double>(after) / static_cast<double>(before);
    }
}
BENCHMARK(ResidentAfterBurst_Glibc)->Arg(64)->Arg(256)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    // jemalloc uses initial-exec thread-local storage: give dlopen room for it, once.
    if (std::getenv("TOLVEN_BENCH_RESTARTED") == nullptr) {
        setenv("TOLVEN_BENCH_RESTARTED", "1", 1);
        setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=4194304", 1);
        execv("/proc/self/exe", argv);
    }
    LoadPeers();
    auto_thread parked;
    bench::ParkAThread(parked);
    // The memory file goes to the temporary folder, not beside the program.
    const std::string file = (std::filesystem::temp_directory_path() /
                              ("bench_memory_" + std::to_string(getpid()) + ".ini"))
                                 .string();
    (void)BlockAllocatorStatMngr::Get().SetAllocatorFile(file.c_str(), nullptr);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    std::filesystem::remove(file + ".bak", ignored);
    (void)GetShutdownEvent()->Set();
    return 0;
}
