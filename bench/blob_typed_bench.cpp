// Typed reads by number on a parsed 20-field message against the same values read from a
// msgpack-cxx object; in-place text overwrites on their own. Without msgpack-cxx
// (TOLVEN_BENCH_HAVE_MSGPACK undefined) only our side is built.
#include <benchmark/benchmark.h>

#include <cstring>

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
#include <msgpack.hpp>
#endif

#include "tolven/blobtyped.h"

using namespace TOLVEN;

namespace {

// The message: 8 integers, 6 doubles and 6 strings, in that order.
constexpr int32_t kInts[8] = {123456789, 500, 1, 17, 0x55, 98765, 42, -7};
constexpr double kDoubles[6] = {101.25, 101.2, 101.3, 101.27, 101.245, 50625.0};
const char* const kStrings[6] = {"ACME", "jdoe", "EQ-DELTA-ONE", "rebalance", "DMA", "XNAS"};
const char* const kNames[20] = {"id",     "qty",    "side", "venue",   "flags", "seq",  "account",
                                "lots",   "price",  "bid",  "ask",     "last",  "vwap", "notional",
                                "symbol", "trader", "desk", "comment", "route", "mic"};

// A blob built with the typed adds, serialised and parsed back from its bytes.
struct ParsedBlob {
    _BLOB_INFO* blob = nullptr;
    ParsedBlob() {
        _BLOB_INFO* b = nullptr;
        (void)CreateBlob(&b, BLOB_CREATE_DEFAULT);
        int k = 0;
        for (int32_t v : kInts)
            (void)AddI32(b, kNames[k++], v);
        for (double v : kDoubles)
            (void)AddF64(b, kNames[k++], v);
        for (const char* v : kStrings)
            (void)AddStr(b, kNames[k++], v, UINT64_MAX);
        unsigned char* p = nullptr;
        uint64_t n = 0;
        (void)GetBlobPtr(b, &p, &n);
        (void)CreateBlob(&blob, p, n, true, BLOB_CREATE_DEFAULT);
        (void)ReleaseBlob(&b);
    }
    ~ParsedBlob() { (void)ReleaseBlob(&blob); }
};

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
// The same values as a msgpack array, unpacked into an object.
struct ParsedMsgpack {
    msgpack::sbuffer buffer;
    msgpack::object_handle handle;
    msgpack::object_array array{};
    ParsedMsgpack() {
        msgpack::packer<msgpack::sbuffer> pk(&buffer);
        pk.pack_array(20);
        for (int32_t v : kInts)
            pk.pack(v);
        for (double v : kDoubles)
            pk.pack(v);
        for (const char* v : kStrings)
            pk.pack(v);
        handle = msgpack::unpack(buffer.data(), buffer.size());
        array = handle.get().via.array;
    }
};
#endif

void BM_GetI32_Blob(benchmark::State& state) {
    ParsedBlob m;
    for (auto _ : state) {
        int64_t sum = 0;
        for (uint64_t i = 0; i < 8; ++i) {
            int32_t v = 0;
            (void)GetI32(m.blob, i, &v);
            sum += v;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_GetI32_Blob);

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
void BM_GetI32_Msgpack(benchmark::State& state) {
    ParsedMsgpack m;
    for (auto _ : state) {
        int64_t sum = 0;
        for (uint32_t i = 0; i < 8; ++i)
            sum += m.array.ptr[i].as<int32_t>();
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_GetI32_Msgpack);
#endif

void BM_GetF64_Blob(benchmark::State& state) {
    ParsedBlob m;
    for (auto _ : state) {
        double sum = 0;
        for (uint64_t i = 8; i < 14; ++i) {
            double v = 0;
            (void)GetF64(m.blob, i, &v);
            sum += v;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_GetF64_Blob);

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
void BM_GetF64_Msgpack(benchmark::State& state) {
    ParsedMsgpack m;
    for (auto _ : state) {
        double sum = 0;
        for (uint32_t i = 8; i < 14; ++i)
            sum += m.array.ptr[i].as<double>();
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_GetF64_Msgpack);
#endif

void BM_GetStr_Blob(benchmark::State& state) {
    ParsedBlob m;
    char text[64];
    for (auto _ : state) {
        for (uint64_t i = 14; i < 20; ++i) {
            (void)GetStr(m.blob, i, text, sizeof text);
            benchmark::DoNotOptimize(text);
        }
    }
}
BENCHMARK(BM_GetStr_Blob);

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
// The peer copies the text out with its terminator, as GetStr does.
void BM_GetStr_Msgpack(benchmark::State& state) {
    ParsedMsgpack m;
    char text[64];
    for (auto _ : state) {
        for (uint32_t i = 14; i < 20; ++i) {
            const msgpack::object& o = m.array.ptr[i];
            if (o.type != msgpack::type::STR || o.via.str.size >= sizeof text) continue;
            std::memcpy(text, o.via.str.ptr, o.via.str.size);
            text[o.via.str.size] = 0;
            benchmark::DoNotOptimize(text);
        }
    }
}
BENCHMARK(BM_GetStr_Msgpack);
#endif

void BM_SetStr_SameLength(benchmark::State& state) {
    ParsedBlob m;
    const char* texts[2] = {"ACME", "ACMF"};
    unsigned k = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(SetStr(m.blob, 14, texts[++k & 1], UINT64_MAX));
}
BENCHMARK(BM_SetStr_SameLength);

void BM_SetStr_Shorter(benchmark::State& state) {
    ParsedBlob m;
    for (auto _ : state)
        benchmark::DoNotOptimize(SetStr(m.blob, 16, "EQ", UINT64_MAX));
}
BENCHMARK(BM_SetStr_Shorter);

}  // namespace
