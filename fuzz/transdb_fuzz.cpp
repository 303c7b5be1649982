// Arbitrary bytes opened as a transaction file: Open gives a status and never crashes, a
// file it refuses is left byte for byte as it was, the check agrees with Open, and an
// opened file can be walked both ways and takes a new record.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tolven/blobtyped.h"
#include "tolven/transdb.h"

using namespace TOLVEN;

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

const std::string& Path() {
    static const std::string path =
        (std::filesystem::temp_directory_path() /
         ("tolven_transdb_fuzz_" + std::to_string(std::rand()) + ".tdb"))
            .string();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = Path();
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    TransDbFileReport report;
    const csdb_status checked = CheckTransDbFile(path.c_str(), &report);
    if (checked != CSDB_SUCCESS && checked != CSDB_BAD_VERSION) std::abort();

    static TransDb db;
    const bool synchronous = size > 0 && (data[size - 1] & 1) != 0;
    const csdb_status st = db.Open(path.c_str(), 0, synchronous, 64, 0xFFFFFFFFu, 0.0, true);
    if (st != CSDB_SUCCESS) {
        if (Slurp(path) != bytes) std::abort();  // a refused file was changed
        if (report.openStatus == CSDB_SUCCESS) std::abort();
        return 0;
    }
    if (report.openStatus != CSDB_SUCCESS) std::abort();
    if (db.Count() != report.records) std::abort();

    _BLOB_INFO* key = nullptr;
    _BLOB_INFO* row = nullptr;
    (void)CreateBlob(&key);
    (void)CreateBlob(&row);
    csdb_context ctx;
    size_t forwards = 0, backwards = 0;
    for (csdb_status s = db.Begin(0, key, row, &ctx); s == CSDB_SUCCESS && forwards < 1000;
         s = db.GetNext(0, key, row, &ctx))
        ++forwards;
    for (csdb_status s = db.End(0, key, row, &ctx); s == CSDB_SUCCESS && backwards < 1000;
         s = db.GetPrev(0, key, row, &ctx))
        ++backwards;
    (void)AddU64(key, "RecNum", size);
    (void)db.FindExact(0, key, row, nullptr);
    (void)db.GetLast(0, key, row, nullptr);
    (void)Clear(row);
    (void)AddU64(row, "seq", 1);
    if (db.Add(row, &ctx) != CSDB_SUCCESS) std::abort();
    // With numbers 1, 2, ... the new record's context is usable at once.
    if (report.numbersInOrder && db.FindExact(0, &ctx, key, row) != CSDB_SUCCESS) std::abort();
    (void)ReleaseBlob(&key);
    (void)ReleaseBlob(&row);
    (void)db.Close();
    return 0;
}
