// The transaction file: its bytes, its reads and statuses, and what Open and the repair do
// with files that are torn or damaged.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "transdb/transdb_test_util.h"

using namespace TOLVEN;
using namespace tolven_test;

namespace {

uint32_t U32At(const std::string& bytes, size_t at) {
    uint32_t v;
    std::memcpy(&v, bytes.data() + at, 4);
    return v;
}

uint64_t U64At(const std::string& bytes, size_t at) {
    uint64_t v;
    std::memcpy(&v, bytes.data() + at, 8);
    return v;
}

void PutU32(std::string* bytes, size_t at, uint32_t v) {
    std::memcpy(bytes->data() + at, &v, 4);
}

// Appends rows 1..pads.size() with the given pad sizes; gives each record's position, and
// the end of the data as the last element.
std::vector<uint64_t> Fill(TransDb& db, const std::vector<uint32_t>& pads) {
    std::vector<uint64_t> positions;
    Blob row;
    for (size_t i = 0; i < pads.size(); ++i) {
        FillRow(row, i + 1, pads[i]);
        csdb_context ctx;
        EXPECT_EQ(db.Add(row, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(ctx.node, i + 1);
        positions.push_back(ctx.reserved);
    }
    positions.push_back(db.GetCurrWritePosition());
    return positions;
}

}  // namespace

// The bytes of a new file and its first records, in both write modes, and what a reopen
// brings back.
TEST(TransDb, FileBytesAndReopen) {
    for (const bool synchronous : {false, true}) {
        SCOPED_TRACE(synchronous ? "synchronous" : "through the writer");
        ScratchDir dir;
        const std::string path = dir / "t.tdb";
        TransDb db;
        ASSERT_EQ(OpenDb(db, path, synchronous), CSDB_SUCCESS);
        EXPECT_EQ(db.GetCurrWritePosition(), 48u);
        EXPECT_EQ(db.Count(), 0u);
        // A 3000-byte record crosses both the first read and the writer's 256-byte blocks.
        const std::vector<uint64_t> at = Fill(db, {10, 3000, 0});
        EXPECT_EQ(at[0], 48u);
        ASSERT_EQ(db.Close(), CSDB_SUCCESS);

        const std::string bytes = Slurp(path);
        ASSERT_EQ(bytes.size(), at[3]);
        EXPECT_EQ(U32At(bytes, 0), 2u);
        EXPECT_EQ(bytes.substr(4, 44), std::string(44, '\0'));
        Blob row;
        for (uint64_t n = 1; n <= 3; ++n) {
            const size_t p = at[n - 1];
            const uint32_t total = static_cast<uint32_t>(at[n] - at[n - 1]);
            EXPECT_EQ(U64At(bytes, p), n);
            EXPECT_EQ(U32At(bytes, p + 8), 0u);
            EXPECT_EQ(U32At(bytes, p + 12), total);
            EXPECT_EQ(U32At(bytes, p + total - 4), total);
            FillRow(row, n, n == 1 ? 10 : n == 2 ? 3000 : 0);
            unsigned char* image = nullptr;
            uint64_t length = 0;
            ASSERT_EQ(GetBlobPtr(row, &image, &length), BLOB_STATUS_SUCCESS);
            EXPECT_EQ(length + 20, total);
            EXPECT_EQ(bytes.compare(p + 16, length, reinterpret_cast<char*>(image), length), 0);
        }

        ASSERT_EQ(OpenDb(db, path, synchronous), CSDB_SUCCESS);
        EXPECT_EQ(db.Count(), 3u);
        EXPECT_EQ(db.GetCurrWritePosition(), at[3]);
        FillRow(row, 4, 5);
        csdb_context ctx;
        ASSERT_EQ(db.Add(row, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(ctx.node, 4u);
        EXPECT_EQ(ctx.reserved, at[3]);
        EXPECT_EQ(Walk(db), (std::vector<uint64_t>{1, 2, 3, 4}));

        // Clear starts an empty file under the same name.
        ASSERT_EQ(db.Clear(), CSDB_SUCCESS);
        EXPECT_EQ(db.Count(), 0u);
        ASSERT_EQ(db.Add(row, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(ctx.node, 1u);
        EXPECT_EQ(ctx.reserved, 48u);
    }
}

// Every way of reading, with its statuses.
TEST(TransDb, ReadsAndStatuses) {
    ScratchDir dir;
    TransDb db;
    Blob key, row;
    csdb_context ctx;
    EXPECT_EQ(db.Begin(0, key, row, &ctx), CSDB_NOT_OPEN);
    EXPECT_EQ(db.Add(row, &ctx), CSDB_CONVERT_FAILED);  // a blob without fields
    FillRow(row, 1, 1);
    EXPECT_EQ(db.Add(row, nullptr), CSDB_NOT_OPEN);
    ASSERT_EQ(OpenDb(db, dir / "r.tdb"), CSDB_SUCCESS);
    // An empty table.
    EXPECT_EQ(db.Begin(0, key, row, &ctx), CSDB_END);
    EXPECT_EQ(db.End(0, key, row, &ctx), CSDB_END);
    EXPECT_EQ(db.GetNext(0, nullptr, row, &ctx), CSDB_END);
    EXPECT_EQ(db.FindExact(0, &ctx, key, row), CSDB_NOT_FOUND);
    // Bad rows.
    EXPECT_EQ(db.Add(nullptr, &ctx), CSDB_BAD_ARGUMENT);

    Fill(db, {1, 2500, 3, 4, 5});
    EXPECT_EQ(db.NumIndexes(), 1u);
    EXPECT_EQ(db.Count(), 5u);
    EXPECT_EQ(db.Begin(1, key, row, &ctx), CSDB_NO_SUCH_INDEX);
    EXPECT_EQ(db.Begin(0, nullptr, row, nullptr), CSDB_BAD_ARGUMENT);

    // Forwards from Begin, then backwards by the footers to the first record.
    EXPECT_EQ(Walk(db), (std::vector<uint64_t>{1, 2, 3, 4, 5}));
    ASSERT_EQ(db.End(0, key, row, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 5u);
    for (uint64_t n = 4; n >= 1; --n) {
        ASSERT_EQ(db.GetPrev(0, key, row, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(KeyRecNum(key), n);
        EXPECT_EQ(RowSeq(row), n);
    }
    EXPECT_EQ(db.GetPrev(0, key, row, &ctx), CSDB_BEGIN);

    // By key. Without a context GetNext gives the key's own record, and GetPrev and GetLast
    // the first one above it.
    SetKey(key, 3);
    ASSERT_EQ(db.FindExact(0, key, row, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 3u);
    EXPECT_EQ(ctx.node, 3u);
    ASSERT_EQ(db.GetNext(0, key, row, nullptr), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 3u);
    ASSERT_EQ(db.GetPrev(0, key, row, nullptr), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 4u);
    SetKey(key, 2);
    ASSERT_EQ(db.GetFirst(0, key, row, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 2u);
    ASSERT_EQ(db.GetLast(0, key, row, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 3u);
    SetKey(key, 9);
    EXPECT_EQ(db.FindExact(0, key, row, nullptr), CSDB_NOT_FOUND);
    ASSERT_EQ(db.GetFirst(0, key, row, &ctx), CSDB_SUCCESS);  // beyond the last: its number
    EXPECT_EQ(KeyRecNum(key), 5u);
    EXPECT_EQ(GetNumFields(row), 0u);
    EXPECT_EQ(db.GetFirst(0, nullptr, row, &ctx), CSDB_BAD_ARGUMENT);
    (void)Clear(key);
    EXPECT_EQ(db.GetFirst(0, key, row, &ctx), CSDB_CONVERT_FAILED);
    EXPECT_EQ(db.FindExact(0, key, row, &ctx), CSDB_CONVERT_FAILED);

    // By context alone, and a stale or foreign context.
    SetKey(key, 2);
    ASSERT_EQ(db.FindExact(0, key, row, &ctx), CSDB_SUCCESS);
    Blob found;
    ASSERT_EQ(db.FindExact(0, &ctx, found, row), CSDB_SUCCESS);
    EXPECT_EQ(KeyRecNum(found), 2u);
    csdb_context wrong = ctx;
    wrong.node = 3;
    EXPECT_EQ(db.FindExact(0, &wrong, found, row), CSDB_CORRUPT);
    csdb_context foreign = ctx;
    foreign.indexNumber ^= 1;
    EXPECT_EQ(db.FindExact(0, &foreign, found, row), CSDB_BAD_ARGUMENT);
    // A foreign context falls back on the key.
    SetKey(key, 4);
    ASSERT_EQ(db.GetNext(0, key, row, &foreign), CSDB_SUCCESS);
    EXPECT_EQ(RowSeq(row), 4u);

    // A record is never changed.
    EXPECT_EQ(db.Update(0, key, row, &ctx), CSDB_NOT_SUPPORTED);
    EXPECT_EQ(db.DeleteItem(&ctx), CSDB_NOT_SUPPORTED);
    EXPECT_EQ(db.DeleteAll(0, key, &ctx), CSDB_NOT_SUPPORTED);
    EXPECT_EQ(db.GetApprox(0, key, row, &ctx), CSDB_NOT_SUPPORTED);
    EXPECT_EQ(db.Extension1(nullptr), CSDB_NOT_SUPPORTED);

    // The file name, and the room it needs.
    const std::string name = dir / "r.tdb";
    char buffer[512];
    size_t size = name.size();
    EXPECT_EQ(db.GetFileName(buffer, &size), CSDB_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, name.size());
    EXPECT_EQ(buffer[0], '\0');
    size = sizeof(buffer);
    ASSERT_EQ(db.GetFileName(buffer, &size), CSDB_SUCCESS);
    EXPECT_EQ(std::string(buffer), name);
    EXPECT_EQ(db.GetFileName(nullptr, &size), CSDB_BAD_ARGUMENT);
    EXPECT_EQ(db.Truncate(), CSDB_SUCCESS);
    ASSERT_EQ(db.Close(), CSDB_SUCCESS);
    size = sizeof(buffer);
    EXPECT_EQ(db.GetFileName(buffer, &size), CSDB_NOT_OPEN);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(db.Truncate(), CSDB_IO_ERROR);
    EXPECT_EQ(db.Clear(), CSDB_NOT_OPEN);
}

// Files that must not open, and stay as they were; files that open with a forgotten tail.
TEST(TransDb, DamagedFiles) {
    ScratchDir dir;
    const std::string path = dir / "d.tdb";
    std::vector<uint64_t> at;
    {
        TransDb db;
        ASSERT_EQ(OpenDb(db, path, true), CSDB_SUCCESS);
        at = Fill(db, {5, 6, 7});
    }
    const std::string good = Slurp(path);
    TransDb db;
    auto refused = [&](const std::string& bytes, csdb_status expected, const char* what) {
        SCOPED_TRACE(what);
        WriteBytes(path, bytes);
        EXPECT_EQ(OpenDb(db, path), expected);
        EXPECT_FALSE(db.IsOpen());
        EXPECT_EQ(Slurp(path), bytes) << "a refused file was changed";
    };
    std::string bytes = good;
    PutU32(&bytes, 0, 3);
    refused(bytes, CSDB_BAD_VERSION, "version 3");
    bytes = good;
    PutU32(&bytes, at[2] - 4, 999);
    refused(bytes, CSDB_CORRUPT, "a changed footer");
    bytes = good;
    PutU32(&bytes, at[1] + 12, 19);
    refused(bytes, CSDB_CORRUPT, "a TotalSize of 19");
    bytes = good;
    PutU32(&bytes, at[1] + 12, 1024001);
    refused(bytes, CSDB_CORRUPT, "a TotalSize above the limit");
    refused(good.substr(0, 3), CSDB_IO_ERROR, "three bytes");
    refused(good + std::string(16, '\0') + "abcd" + std::string(8, '\0'), CSDB_CORRUPT,
            "a blank record with a non-zero footer");
    bytes = good;
    bytes[at[1] + 20] = '\x7f';  // the payload's length field: the row cannot be read
    WriteBytes(path, bytes);
    ASSERT_EQ(OpenDb(db, path), CSDB_SUCCESS);  // the walk does not read payloads
    Blob key, row;
    SetKey(key, 2);
    EXPECT_EQ(db.FindExact(0, key, row, nullptr), CSDB_CORRUPT);
    ASSERT_EQ(db.Close(), CSDB_SUCCESS);

    // A blank tail and a tail of up to 20 bytes are forgotten, and the next record goes over.
    for (const std::string& tail : {std::string(100, '\0'), std::string(20, '\x55')}) {
        WriteBytes(path, good + tail);
        ASSERT_EQ(OpenDb(db, path), CSDB_SUCCESS);
        EXPECT_EQ(db.Count(), 3u);
        EXPECT_EQ(db.GetCurrWritePosition(), good.size());
        Blob next;
        FillRow(next, 4, 40);
        csdb_context ctx;
        ASSERT_EQ(db.Add(next, &ctx), CSDB_SUCCESS);
        EXPECT_EQ(ctx.node, 4u);
        ASSERT_EQ(db.Close(), CSDB_SUCCESS);
        ASSERT_EQ(OpenDb(db, path), CSDB_SUCCESS);
        EXPECT_EQ(Walk(db), (std::vector<uint64_t>{1, 2, 3, 4}));
        ASSERT_EQ(db.Close(), CSDB_SUCCESS);
    }

    // An older writer's 44-byte header opens only when asked to try it.
    bytes = good;
    PutU32(&bytes, 0, 1);
    bytes.erase(44, 4);
    WriteBytes(path, bytes);
    EXPECT_NE(OpenDb(db, path), CSDB_SUCCESS);
    EXPECT_EQ(Slurp(path), bytes);
    ASSERT_EQ(OpenDb(db, path, false, true), CSDB_SUCCESS);
    EXPECT_EQ(Walk(db), (std::vector<uint64_t>{1, 2, 3}));
    Blob next;
    FillRow(next, 4, 1);
    ASSERT_EQ(db.Add(next, nullptr), CSDB_SUCCESS);
    EXPECT_EQ(Walk(db), (std::vector<uint64_t>{1, 2, 3, 4}));
}

// A copy of the file cut at every byte of each of its last three records: a tail of at most
// 20 bytes is forgotten and overwritten; a longer one is refused, untouched; the repair then
// moves it to a side file, and the file plus the side file is the cut file again.
TEST(TransDb, TornTailAtEveryOffset) {
    ScratchDir dir;
    const std::string source = dir / "s.tdb";
    std::vector<uint64_t> at;
    {
        TransDb db;
        ASSERT_EQ(OpenDb(db, source), CSDB_SUCCESS);
        at = Fill(db, {30, 2100, 8, 300});  // the second record passes the first read
    }
    const std::string whole = Slurp(source);
    ASSERT_EQ(whole.size(), at.back());
    const std::string path = dir / "c.tdb";
    TransDb db;
    int refusedCuts = 0;
    for (size_t record = 1; record < 4; ++record) {
        for (uint64_t cut = at[record] + 1; cut < at[record + 1]; ++cut) {
            SCOPED_TRACE("record " + std::to_string(record + 1) + " cut at " + std::to_string(cut));
            const std::string bytes = whole.substr(0, cut);
            WriteBytes(path, bytes);
            const uint64_t remaining = cut - at[record];
            const csdb_status st = OpenDb(db, path);
            if (remaining <= 20) {
                ASSERT_EQ(st, CSDB_SUCCESS);
                ASSERT_EQ(db.Count(), record);
                Blob row;
                FillRow(row, 99, 1);
                csdb_context ctx;
                ASSERT_EQ(db.Add(row, &ctx), CSDB_SUCCESS);
                ASSERT_EQ(ctx.node, record + 1);
                ASSERT_EQ(ctx.reserved, at[record]);
                ASSERT_EQ(db.Close(), CSDB_SUCCESS);
                continue;
            }
            ++refusedCuts;
            ASSERT_EQ(st, CSDB_IO_ERROR);
            ASSERT_EQ(Slurp(path), bytes);
            TransDbFileReport report;
            char side[1024];
            ASSERT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_SUCCESS);
            ASSERT_EQ(report.records, record);
            ASSERT_EQ(report.dataEnd, at[record]);
            ASSERT_NE(side[0], '\0');
            ASSERT_EQ(Slurp(path) + Slurp(side), bytes);
            std::filesystem::remove(side);
            ASSERT_EQ(OpenDb(db, path), CSDB_SUCCESS);
            ASSERT_EQ(db.Count(), record);
            Blob key, row;
            ASSERT_EQ(db.End(0, key, row, nullptr), CSDB_SUCCESS);
            ASSERT_EQ(RowSeq(row), record);
            ASSERT_EQ(db.Close(), CSDB_SUCCESS);
        }
    }
    EXPECT_GT(refusedCuts, 2000);
}

// The check reports what the repair would move, and changes nothing; the repair leaves a
// whole file alone and refuses a file that a table holds open.
TEST(TransDb, CheckAndRepair) {
    ScratchDir dir;
    const std::string path = dir / "k.tdb";
    TransDb db;
    ASSERT_EQ(OpenDb(db, path, true), CSDB_SUCCESS);
    const std::vector<uint64_t> at = Fill(db, {1, 2, 3});
    TransDbFileReport report;
    char side[1024] = "x";
    EXPECT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_IO_ERROR);
    ASSERT_EQ(db.Close(), CSDB_SUCCESS);

    ASSERT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_SUCCESS);
    EXPECT_EQ(side[0], '\0');
    const std::string whole = Slurp(path);
    ASSERT_EQ(whole.size(), at.back());

    std::string torn = whole + whole.substr(at[0], 30);
    WriteBytes(path, torn);
    struct Seen {
        std::vector<uint64_t> numbers;
    } seen;
    ASSERT_EQ(CheckTransDbFile(
                  path.c_str(), &report,
                  [](void* user, uint64_t recNum, uint64_t, uint32_t) {
                      static_cast<Seen*>(user)->numbers.push_back(recNum);
                      return true;
                  },
                  &seen),
              CSDB_SUCCESS);
    EXPECT_EQ(seen.numbers, (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_EQ(report.version, 2u);
    EXPECT_EQ(report.records, 3u);
    EXPECT_EQ(report.lastRecNum, 3u);
    EXPECT_EQ(report.lastRecordPosition, at[2]);
    EXPECT_EQ(report.dataEnd, at[3]);
    EXPECT_EQ(report.tailBytes, 30u);
    EXPECT_TRUE(report.numbersInOrder);
    EXPECT_EQ(report.openStatus, CSDB_IO_ERROR);
    EXPECT_EQ(Slurp(path), torn);

    // Two repairs in the same second get two side files.
    ASSERT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_SUCCESS);
    const std::string first = side;
    WriteBytes(path, torn);
    ASSERT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_SUCCESS);
    EXPECT_NE(first, std::string(side));
    EXPECT_EQ(Slurp(first), Slurp(side));

    PutU32(&torn, 0, 7);
    WriteBytes(path, torn);
    EXPECT_EQ(RepairTransDbFile(path.c_str(), &report, side, sizeof(side)), CSDB_BAD_VERSION);
    EXPECT_EQ(Slurp(path), torn);
}

// With sync at commit, a record is in the file when Add returns, and the syncs are counted.
TEST(TransDb, SyncAtCommit) {
    ScratchDir dir;
    const std::string path = dir / "y.tdb";
    TransDb db;
    db.SetSyncAtCommit(true);
    ASSERT_EQ(OpenDb(db, path), CSDB_SUCCESS);
    Blob row;
    for (uint64_t n = 1; n <= 3; ++n) {
        FillRow(row, n, 500);
        ASSERT_EQ(db.Add(row, nullptr), CSDB_SUCCESS);
        EXPECT_EQ(Slurp(path).size(), db.GetCurrWritePosition());
        EXPECT_EQ(db.GetCurrFileSize(), db.GetCurrWritePosition());
    }
    EXPECT_EQ(db.GetSyncCount(), 3u);
    EXPECT_GE(db.GetMaxPendingOperationsReached(), 1u);
}
