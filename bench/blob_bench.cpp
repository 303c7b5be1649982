// Blob against msgpack-cxx and libbson: a 20-field mixed message built, serialised, parsed
// and read back; access by number and by name; create/release churn against malloc/free.
// A peer that is not installed leaves out its benchmarks (TOLVEN_BENCH_HAVE_MSGPACK,
// TOLVEN_BENCH_HAVE_BSON).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifdef TOLVEN_BENCH_HAVE_BSON
#include <bson/bson.h>
#endif
#ifdef TOLVEN_BENCH_HAVE_MSGPACK
#include <msgpack.hpp>
#endif

#include "tolven/blob.h"
#include "tolven/blobtime.h"

using namespace TOLVEN;

namespace {

// The message: 8 integers, 6 doubles, 5 strings and a time stamp, all named.
struct Message {
    const char* intNames[8] = {"id", "qty", "side", "venue", "flags", "seq", "account", "ts_ns"};
    int64_t ints[8] = {123456789, 500, 1, 17, 0x55, 987654321012, 42, 1700000000123456789};
    const char* dblNames[6] = {"price", "bid", "ask", "last", "vwap", "notional"};
    double dbls[6] = {101.25, 101.2, 101.3, 101.27, 101.245, 50625.0};
    const char* strNames[5] = {"symbol", "trader", "desk", "comment", "route"};
    const char* strs[5] = {"ACME", "jdoe", "EQ-DELTA-ONE", "rebalance of the index basket", "DMA"};
    _blob_timestamp stamp{2024, 5, 17, 9, 30, 15, 123456789};
};
const Message g_msg;

// Appends a named fixed-size value through the untyped append and a byte copy.
inline void Put(_BLOB_INFO* b, const char* name, blob_field_type type, const void* value,
                size_t size) {
    uint64_t index = 0;
    (void)AddField(b, name, type, size, &index);
    std::memcpy(b->buffer + b->fieldIndex[index].dataOffset, value, size);
}

_BLOB_INFO* BuildBlob(blob_create_option option) {
    _BLOB_INFO* b = nullptr;
    (void)CreateBlob(&b, option);
    for (int i = 0; i < 8; ++i) {
        if (i % 2 == 0) {
            const int32_t v = static_cast<int32_t>(g_msg.ints[i]);
            Put(b, g_msg.intNames[i], BLOB_FIELD_TYPE_INT32, &v, 4);
        } else {
            Put(b, g_msg.intNames[i], BLOB_FIELD_TYPE_INT64, &g_msg.ints[i], 8);
        }
    }
    for (int i = 0; i < 6; ++i)
        Put(b, g_msg.dblNames[i], BLOB_FIELD_TYPE_FLOAT64, &g_msg.dbls[i], 8);
    for (int i = 0; i < 5; ++i)
        Put(b, g_msg.strNames[i], BLOB_FIELD_TYPE_STRING, g_msg.strs[i],
            std::strlen(g_msg.strs[i]) + 1);
    Put(b, "time", BLOB_FIELD_TYPE_TIMESTAMP, &g_msg.stamp, 16);
    return b;
}

// Reads every field by number: the type byte, then the value through its entry.
inline uint64_t ReadAll(const _BLOB_INFO* b) {
    uint64_t sum = 0;
    for (uint64_t i = 0; i < b->fieldCount; ++i) {
        const BlobFieldEntry& e = b->fieldIndex[i];
        const unsigned char* p = b->buffer + e.dataOffset;
        switch (b->buffer[e.headerOffset] & 0x7F) {
            case BLOB_FIELD_TYPE_INT32: {
                int32_t v;
                std::memcpy(&v, p, 4);
                sum += static_cast<uint64_t>(v);
                break;
            }
            case BLOB_FIELD_TYPE_INT64: {
                int64_t v;
                std::memcpy(&v, p, 8);
                sum += static_cast<uint64_t>(v);
                break;
            }
            case BLOB_FIELD_TYPE_FLOAT64: {
                double v;
                std::memcpy(&v, p, 8);
                sum += static_cast<uint64_t>(v);
                break;
            }
            case BLOB_FIELD_TYPE_STRING:
                sum += static_cast<unsigned char>(p[0]);
                break;
            case BLOB_FIELD_TYPE_TIMESTAMP: {
                _blob_timestamp t;
                std::memcpy(&t, p, 16);
                sum += t.nanoseconds;
                break;
            }
            default:
                break;
        }
    }
    return sum;
}

void BM_Message_Blob(benchmark::State& state) {
    const auto option = static_cast<blob_create_option>(state.range(0));
    for (auto _ : state) {
        _BLOB_INFO* b = BuildBlob(option);
        unsigned char* p = nullptr;
        uint64_t n = 0;
        (void)GetBlobPtr(b, &p, &n);
        _BLOB_INFO* back = nullptr;
        (void)CreateBlob(&back, p, n, false, option);
        benchmark::DoNotOptimize(ReadAll(back));
        (void)ReleaseBlob(&back);
        (void)ReleaseBlob(&b);
    }
}
BENCHMARK(BM_Message_Blob)->Arg(BLOB_CREATE_DEFAULT)->Arg(BLOB_CREATE_ALLOW_DUPLICATES);

#ifdef TOLVEN_BENCH_HAVE_MSGPACK
void BM_Message_Msgpack(benchmark::State& state) {
    for (auto _ : state) {
        msgpack::sbuffer buffer;
        msgpack::packer<msgpack::sbuffer> pk(&buffer);
        pk.pack_map(20);
        for (int i = 0; i < 8; ++i) {
            pk.pack(g_msg.intNames[i]);
            if (i % 2 == 0)
                pk.pack(static_cast<int32_t>(g_msg.ints[i]));
            else
                pk.pack(g_msg.ints[i]);
        }
        for (int i = 0; i < 6; ++i) {
            pk.pack(g_msg.dblNames[i]);
            pk.pack(g_msg.dbls[i]);
        }
        for (int i = 0; i < 5; ++i) {
            pk.pack(g_msg.strNames[i]);
            pk.pack(g_msg.strs[i]);
        }
        pk.pack("time");
        pk.pack_ext(16, 1);
        pk.pack_ext_body(reinterpret_cast<const char*>(&g_msg.stamp), 16);
        msgpack::object_handle oh = msgpack::unpack(buffer.data(), buffer.size());
        const msgpack::object_map& map = oh.get().via.map;
        uint64_t sum = 0;
        for (uint32_t i = 0; i < map.size; ++i) {
            const msgpack::object& v = map.ptr[i].val;
            switch (v.type) {
                case msgpack::type::POSITIVE_INTEGER:
                    sum += v.via.u64;
                    break;
                case msgpack::type::NEGATIVE_INTEGER:
                    sum += static_cast<uint64_t>(v.via.i64);
                    break;
                case msgpack::type::FLOAT64:
                    sum += static_cast<uint64_t>(v.via.f64);
                    break;
                case msgpack::type::STR:
                    sum += static_cast<unsigned char>(v.via.str.ptr[0]);
                    break;
                case msgpack::type::EXT: {
                    _blob_timestamp t;
                    std::memcpy(&t, v.via.ext.data(), 16);
                    sum += t.nanoseconds;
                    break;
                }
                default:
                    break;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_Message_Msgpack);
#endif

#ifdef TOLVEN_BENCH_HAVE_BSON
void BM_Message_Bson(benchmark::State& state) {
    for (auto _ : state) {
        bson_t doc;
        bson_init(&doc);
        for (int i = 0; i < 8; ++i) {
            if (i % 2 == 0)
                bson_append_int32(&doc, g_msg.intNames[i], -1, static_cast<int32_t>(g_msg.ints[i]));
            else
                bson_append_int64(&doc, g_msg.intNames[i], -1, g_msg.ints[i]);
        }
        for (int i = 0; i < 6; ++i)
            bson_append_double(&doc, g_msg.dblNames[i], -1, g_msg.dbls[i]);
        for (int i = 0; i < 5; ++i)
            bson_append_utf8(&doc, g_msg.strNames[i], -1, g_msg.strs[i], -1);
        bson_append_binary(&doc, "time", -1, BSON_SUBTYPE_USER,
                           reinterpret_cast<const uint8_t*>(&g_msg.stamp), 16);
        const uint8_t* data = bson_get_data(&doc);
        bson_t back;
        bson_init_static(&back, data, doc.len);
        bson_iter_t it;
        uint64_t sum = 0;
        if (bson_iter_init(&it, &back)) {
            while (bson_iter_next(&it)) {
                switch (bson_iter_type(&it)) {
                    case BSON_TYPE_INT32:
                        sum += static_cast<uint64_t>(bson_iter_int32(&it));
                        break;
                    case BSON_TYPE_INT64:
                        sum += static_cast<uint64_t>(bson_iter_int64(&it));
                        break;
                    case BSON_TYPE_DOUBLE:
                        sum += static_cast<uint64_t>(bson_iter_double(&it));
                        break;
                    case BSON_TYPE_UTF8:
                        sum += static_cast<unsigned char>(bson_iter_utf8(&it, nullptr)[0]);
                        break;
                    case BSON_TYPE_BINARY: {
                        bson_subtype_t sub;
                        uint32_t len = 0;
                        const uint8_t* bin = nullptr;
                        bson_iter_binary(&it, &sub, &len, &bin);
                        _blob_timestamp t;
                        std::memcpy(&t, bin, 16);
                        sum += t.nanoseconds;
                        break;
                    }
                    default:
                        break;
                }
            }
        }
        benchmark::DoNotOptimize(sum);
        bson_destroy(&doc);
    }
}
BENCHMARK(BM_Message_Bson);
#endif

// One field by number in a parsed blob: bounds and type check, then the value.
void BM_FieldByNumber_Blob(benchmark::State& state) {
    _BLOB_INFO* built = BuildBlob(BLOB_CREATE_DEFAULT);
    unsigned char* p = nullptr;
    uint64_t n = 0;
    (void)GetBlobPtr(built, &p, &n);
    _BLOB_INFO* b = nullptr;
    (void)CreateBlob(&b, p, n, false, BLOB_CREATE_DEFAULT);
    uint64_t i = 0;
    for (auto _ : state) {
        const uint64_t index = i++ % 14;  // the numeric fields
        double v = 0;
        if (index < b->fieldCount) {
            const BlobFieldEntry& e = b->fieldIndex[index];
            const unsigned char* d = b->buffer + e.dataOffset;
            switch (b->buffer[e.headerOffset] & 0x7F) {
                case BLOB_FIELD_TYPE_INT32: {
                    int32_t x;
                    std::memcpy(&x, d, 4);
                    v = x;
                    break;
                }
                case BLOB_FIELD_TYPE_INT64: {
                    int64_t x;
                    std::memcpy(&x, d, 8);
                    v = static_cast<double>(x);
                    break;
                }
                case BLOB_FIELD_TYPE_FLOAT64:
                    std::memcpy(&v, d, 8);
                    break;
                default:
                    break;
            }
        }
        benchmark::DoNotOptimize(v);
    }
    (void)ReleaseBlob(&b);
    (void)ReleaseBlob(&built);
}
BENCHMARK(BM_FieldByNumber_Blob);

// The exported type query by number.
void BM_GetFieldType_Blob(benchmark::State& state) {
    _BLOB_INFO* b = BuildBlob(BLOB_CREATE_DEFAULT);
    uint64_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(GetFieldType(b, i++ % 20));
    (void)ReleaseBlob(&b);
}
BENCHMARK(BM_GetFieldType_Blob);

// Look-up of the last name (the whole scan) in blobs of 10 and 50 fields.
void BM_FieldByName_Blob(benchmark::State& state) {
    _BLOB_INFO* b = nullptr;
    (void)CreateBlob(&b);
    char name[32];
    for (int64_t f = 0; f < state.range(0); ++f) {
        std::snprintf(name, sizeof name, "field_%03d", static_cast<int>(f));
        (void)AddField(b, name, BLOB_FIELD_TYPE_INT32, 0, nullptr);
    }
    uint64_t index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetFieldNumber(b, name, &index));
        benchmark::DoNotOptimize(index);
    }
    (void)ReleaseBlob(&b);
}
BENCHMARK(BM_FieldByName_Blob)->Arg(10)->Arg(50);

#ifdef TOLVEN_BENCH_HAVE_BSON
// The same scan in a libbson document.
void BM_FieldByName_Bson(benchmark::State& state) {
    bson_t doc;
    bson_init(&doc);
    char name[32];
    for (int64_t f = 0; f < state.range(0); ++f) {
        std::snprintf(name, sizeof name, "field_%03d", static_cast<int>(f));
        bson_append_int32(&doc, name, -1, static_cast<int32_t>(f));
    }
    for (auto _ : state) {
        bson_iter_t it;
        benchmark::DoNotOptimize(bson_iter_init_find(&it, &doc, name));
    }
    bson_destroy(&doc);
}
BENCHMARK(BM_FieldByName_Bson)->Arg(10)->Arg(50);
#endif

void BM_Churn_Blob(benchmark::State& state) {
    for (auto _ : state) {
        _BLOB_INFO* b = nullptr;
        (void)CreateBlob(&b);
        benchmark::DoNotOptimize(b);
        (void)ReleaseBlob(&b);
    }
}
BENCHMARK(BM_Churn_Blob);

// A malloc/free pair of the default blob's total: handle 56 + index 768 + buffer 256.
void BM_Churn_Malloc(benchmark::State& state) {
    for (auto _ : state) {
        void* p = std::malloc(56 + 768 + 256);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(BM_Churn_Malloc);

}  // namespace
