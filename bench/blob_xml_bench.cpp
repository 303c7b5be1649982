// The XML form of a 20-field message, to XML and back, against libxml2 building and
// serialising the same document tree (and parsing it back into a tree); comparison of two
// 50-field messages by name on its own. Without libxml2 (TOLVEN_BENCH_HAVE_LIBXML2
// undefined) only our side is built.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#ifdef TOLVEN_BENCH_HAVE_LIBXML2
#include <libxml/parser.h>
#include <libxml/tree.h>
#endif

#include "tolven/blobcompare.h"
#include "tolven/blobtyped.h"
#include "tolven/blobxml.h"

using namespace TOLVEN;

namespace {

// The message: 8 integers, 6 doubles and 6 strings, one with characters to escape.
constexpr int32_t kInts[8] = {123456789, 500, 1, 17, 0x55, 98765, 42, -7};
constexpr double kDoubles[6] = {101.25, 101.2, 101.3, 101.27, 101.245, 50625.0};
const char* const kStrings[6] = {"ACME", "jdoe", "EQ-DELTA-ONE", "rebalance <fast> & \"safe\"",
                                 "DMA",  "XNAS"};
const char* const kNames[20] = {"id",     "qty",    "side", "venue",   "flags", "seq",  "account",
                                "lots",   "price",  "bid",  "ask",     "last",  "vwap", "notional",
                                "symbol", "trader", "desk", "comment", "route", "mic"};

struct Message {
    _BLOB_INFO* blob = nullptr;
    Message() {
        (void)CreateBlob(&blob, BLOB_CREATE_DEFAULT);
        int k = 0;
        for (int32_t v : kInts)
            (void)AddI32(blob, kNames[k++], v);
        for (double v : kDoubles)
            (void)AddF64(blob, kNames[k++], v);
        for (const char* v : kStrings)
            (void)AddStr(blob, kNames[k++], v, UINT64_MAX);
    }
    ~Message() { (void)ReleaseBlob(&blob); }
};

void BM_ToXml_Blob(benchmark::State& state) {
    Message m;
    std::vector<char> buffer(4096);
    for (auto _ : state) {
        uint64_t size = buffer.size();
        benchmark::DoNotOptimize(BlobToXML(m.blob, buffer.data(), &size, true));
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(BM_ToXml_Blob);

void BM_FromXml_Blob(benchmark::State& state) {
    Message m;
    std::vector<char> buffer(4096);
    uint64_t size = buffer.size();
    (void)BlobToXML(m.blob, buffer.data(), &size, true);
    for (auto _ : state) {
        _BLOB_INFO* back = nullptr;
        benchmark::DoNotOptimize(BlobFromXml(buffer.data(), size, &back, BLOBXML_DEFAULT));
        (void)ReleaseBlob(&back);
    }
}
BENCHMARK(BM_FromXml_Blob);

void BM_RoundTrip_Blob(benchmark::State& state) {
    Message m;
    std::vector<char> buffer(4096);
    for (auto _ : state) {
        uint64_t size = buffer.size();
        (void)BlobToXML(m.blob, buffer.data(), &size, true);
        _BLOB_INFO* back = nullptr;
        benchmark::DoNotOptimize(BlobFromXml(buffer.data(), size, &back, BLOBXML_DEFAULT));
        (void)ReleaseBlob(&back);
    }
}
BENCHMARK(BM_RoundTrip_Blob);

#ifdef TOLVEN_BENCH_HAVE_LIBXML2
// The peer's side gets the texts ready made: element names, type names and value texts, so
// that it pays only for its tree and its serialiser.
struct Texts {
    std::string tags[20], types[20], values[20];
    Texts() {
        Message m;
        for (int k = 0; k < 20; ++k) {
            tags[k] = std::string("f") + kNames[k];
            types[k] = k < 8 ? "BLOB_FIELD_TYPE_INT32"
                             : (k < 14 ? "BLOB_FIELD_TYPE_FLOAT64" : "BLOB_FIELD_TYPE_STRING");
            char text[256];
            (void)GetStr(m.blob, static_cast<uint64_t>(k), text, sizeof text);
            values[k] = text;
        }
    }
};

xmlDocPtr BuildTree(const Texts& t) {
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    xmlNodePtr root = xmlNewNode(nullptr, BAD_CAST "blob");
    xmlDocSetRootElement(doc, root);
    for (int k = 0; k < 20; ++k) {
        xmlNodePtr node = xmlNewTextChild(root, nullptr, BAD_CAST t.tags[k].c_str(),
                                          BAD_CAST t.values[k].c_str());
        xmlNewProp(node, BAD_CAST "type", BAD_CAST t.types[k].c_str());
    }
    return doc;
}

// Builds the tree and serialises it without the declaration, as our writer does.
std::string Serialise(const Texts& t) {
    xmlDocPtr doc = BuildTree(t);
    xmlBufferPtr buffer = xmlBufferCreate();
    xmlNodeDump(buffer, doc, xmlDocGetRootElement(doc), 0, 0);
    std::string text(reinterpret_cast<const char*>(xmlBufferContent(buffer)),
                     static_cast<size_t>(xmlBufferLength(buffer)));
    xmlBufferFree(buffer);
    xmlFreeDoc(doc);
    return text;
}

// Parses the document back into a tree and reads each element's type and text.
size_t ParseBack(const std::string& text) {
    xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                  XML_PARSE_NONET);
    size_t seen = 0;
    for (xmlNodePtr n = xmlDocGetRootElement(doc)->children; n != nullptr; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) continue;
        xmlChar* type = xmlGetProp(n, BAD_CAST "type");
        xmlChar* value = xmlNodeGetContent(n);
        seen += static_cast<size_t>(xmlStrlen(value)) + (type != nullptr);
        xmlFree(type);
        xmlFree(value);
    }
    xmlFreeDoc(doc);
    return seen;
}

void BM_ToXml_Libxml2(benchmark::State& state) {
    const Texts t;
    for (auto _ : state)
        benchmark::DoNotOptimize(Serialise(t));
}
BENCHMARK(BM_ToXml_Libxml2);

void BM_FromXml_Libxml2(benchmark::State& state) {
    const std::string text = Serialise(Texts());
    for (auto _ : state)
        benchmark::DoNotOptimize(ParseBack(text));
}
BENCHMARK(BM_FromXml_Libxml2);

void BM_RoundTrip_Libxml2(benchmark::State& state) {
    const Texts t;
    for (auto _ : state)
        benchmark::DoNotOptimize(ParseBack(Serialise(t)));
}
BENCHMARK(BM_RoundTrip_Libxml2);
#endif

// Two 50-field messages with the same names in opposite orders, equal but for the last
// field met by name: the whole walk runs.
void BM_CompareByName_Blob(benchmark::State& state) {
    _BLOB_INFO *a = nullptr, *b = nullptr;
    (void)CreateBlob(&a, BLOB_CREATE_DEFAULT);
    (void)CreateBlob(&b, BLOB_CREATE_DEFAULT);
    char name[32];
    for (int k = 0; k < 50; ++k) {
        std::snprintf(name, sizeof name, "field%02d", k);
        if (k % 3 == 0)
            (void)AddI64(a, name, k * 1000);
        else if (k % 3 == 1)
            (void)AddF64(a, name, k * 0.25);
        else
            (void)AddStr(a, name, "some text value", UINT64_MAX);
    }
    for (int k = 49; k >= 0; --k) {
        std::snprintf(name, sizeof name, "field%02d", k);
        if (k % 3 == 0)
            (void)AddI64(b, name, k == 48 ? 1 : k * 1000);
        else if (k % 3 == 1)
            (void)AddF64(b, name, k * 0.25);
        else
            (void)AddStr(b, name, "some text value", UINT64_MAX);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(CompareBlobByName(a, b));
    (void)ReleaseBlob(&a);
    (void)ReleaseBlob(&b);
}
BENCHMARK(BM_CompareByName_Blob);

}  // namespace
