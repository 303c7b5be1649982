// Rows, keys and file bytes for the transaction file tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "log/logfile_test_util.h"
#include "tolven/blobtyped.h"
#include "tolven/transdb.h"

namespace tolven_test {

// An owned blob handle.
struct Blob {
    TOLVEN::_BLOB_INFO* b = nullptr;
    Blob() { EXPECT_EQ(TOLVEN::CreateBlob(&b), TOLVEN::BLOB_STATUS_SUCCESS); }
    ~Blob() {
        if (b != nullptr) (void)TOLVEN::ReleaseBlob(&b);
    }
    Blob(const Blob&) = delete;
    Blob& operator=(const Blob&) = delete;
    operator TOLVEN::_BLOB_INFO*() const { return b; }
};

// The pad byte of row `seq` at offset `i`: every row's content is told from the others.
inline unsigned char PadByte(uint64_t seq, uint64_t i) {
    return static_cast<unsigned char>((seq * 31 + i * 7) & 0xFF);
}

// Row `seq`: "seq" and `padBytes` bytes of "pad".
inline void FillRow(TOLVEN::_BLOB_INFO* row, uint64_t seq, uint32_t padBytes) {
    (void)TOLVEN::Clear(row);
    std::vector<unsigned char> pad(padBytes + 1);
    for (uint32_t i = 0; i < padBytes; ++i)
        pad[i] = PadByte(seq, i);
    ASSERT_EQ(TOLVEN::AddU64(row, "seq", seq), TOLVEN::BLOB_STATUS_SUCCESS);
    ASSERT_EQ(TOLVEN::AddBinary(row, "pad", pad.data(), padBytes), TOLVEN::BLOB_STATUS_SUCCESS);
}

// The row's "seq" when its pad matches it; 0 when the row is not a whole row of FillRow.
inline uint64_t RowSeq(const TOLVEN::_BLOB_INFO* row) {
    uint64_t seq = 0;
    unsigned char* pad = nullptr;
    uint64_t size = 0;
    if (TOLVEN::GetByNameU64(row, "seq", &seq) != TOLVEN::BLOB_STATUS_SUCCESS ||
        TOLVEN::GetPtrByNameBinary(row, "pad", &pad, &size) != TOLVEN::BLOB_STATUS_SUCCESS)
        return 0;
    for (uint64_t i = 0; i < size; ++i)
        if (pad[i] != PadByte(seq, i)) return 0;
    return seq;
}

// A key blob holding "RecNum".
inline void SetKey(TOLVEN::_BLOB_INFO* key, uint64_t recNum) {
    (void)TOLVEN::Clear(key);
    ASSERT_EQ(TOLVEN::AddU64(key, "RecNum", recNum), TOLVEN::BLOB_STATUS_SUCCESS);
}

inline uint64_t KeyRecNum(const TOLVEN::_BLOB_INFO* key) {
    uint64_t v = 0;
    return TOLVEN::GetByNameU64(key, "RecNum", &v) == TOLVEN::BLOB_STATUS_SUCCESS ? v : 0;
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Opens `path` as the tests mostly do: through the writer, small blocks, both extra
// arguments zero.
inline TOLVEN::csdb_status OpenDb(TOLVEN::TransDb& db, const std::string& path,
                                  bool synchronous = false, bool alternate = false) {
    return db.Open(path.c_str(), 0, synchronous, 256, 0xFFFFFFFFu, 0.0, alternate);
}

// Walks the table with GetNext from Begin and gives the seqs of its rows, in order; a row
// that is not whole gives 0.
inline std::vector<uint64_t> Walk(TOLVEN::TransDb& db) {
    std::vector<uint64_t> seqs;
    Blob key, row;
    TOLVEN::csdb_context ctx;
    for (TOLVEN::csdb_status st = db.Begin(0, key, row, &ctx); st == TOLVEN::CSDB_SUCCESS;
         st = db.GetNext(0, key, row, &ctx)) {
        EXPECT_EQ(KeyRecNum(key), seqs.size() + 1);
        seqs.push_back(RowSeq(row));
    }
    return seqs;
}

}  // namespace tolven_test
