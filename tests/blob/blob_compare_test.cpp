// Comparison by position and by name with its type rules and messages, the difference, the
// combine and copy calls with their statuses, the string trim and the bulk remove.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tolven/blobcompare.h"
#include "tolven/blobtyped.h"
#include "tolven/logapi.h"

using namespace TOLVEN;

namespace {

struct Held {
    _BLOB_INFO* p = nullptr;
    Held() { EXPECT_EQ(CreateBlob(&p, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS); }
    ~Held() { (void)ReleaseBlob(&p); }
    operator _BLOB_INFO*() const { return p; }
};

std::string Str(const _BLOB_INFO* b, const char* name) {
    char text[256] = "?";
    (void)GetByNameStr(b, name, text, sizeof text);
    return text;
}

std::string Names(const _BLOB_INFO* b) {
    std::string all;
    for (uint64_t i = 0; i < GetNumFields(b); ++i) {
        const char* name = nullptr;
        all += GetFieldDescriptionPtr(b, i, &name) == BLOB_STATUS_SUCCESS ? name : "-";
        all += ' ';
    }
    return all;
}

// Collects the texts of messages while alive.
class LogCapture {
  public:
    LogCapture() {
        EXPECT_EQ(LogInitApi(), LOG_SUCCESS);
        EXPECT_EQ(LogAddCallbackFunc(&Callback, this, &id_, LOGGER_TRACE), LOG_SUCCESS);
    }
    ~LogCapture() { (void)LogRemoveCallback(id_), LogTermApi(); }
    std::vector<std::string> Lines() {
        EXPECT_TRUE(LogFlush());
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }

  private:
    static void Callback(_LOGGER_CB_DATA* const data, void* self) {
        auto* capture = static_cast<LogCapture*>(self);
        if (std::string(data->file) != "BlobCompare" || data->level != LOGGER_NORMAL ||
            std::string(data->function) != "TOLVEN::CompareBlobByNameLogDiff")
            return;
        std::lock_guard<std::mutex> guard(capture->lock_);
        capture->lines_.push_back(data->text);
    }
    std::mutex lock_;
    std::vector<std::string> lines_;
    uint32_t id_ = 0;
};

TEST(BlobCompare, OrderOfBlobsByPositionAndByName) {
    Held empty1, empty2, a, b;
    EXPECT_EQ(CompareBlob(empty1, empty2), 0);
    ASSERT_EQ(AddI32(a, "x", 1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlob(empty1, a), -1);
    EXPECT_EQ(CompareBlob(a, empty1), 1);
    EXPECT_EQ(CompareBlob(nullptr, a), 2);
    EXPECT_EQ(CompareBlobByName(a, nullptr), 2);
    ASSERT_EQ(AddStr(a, "y", "text", UINT64_MAX), BLOB_STATUS_SUCCESS);
    // b holds the same fields in the other order, and one more.
    ASSERT_EQ(AddStr(b, "Y", "text", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "X", 1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlobByName(a, a), 0);
    EXPECT_EQ(CompareBlobByName(a, b), 0);
    ASSERT_EQ(AddU8(b, "extra", 0), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlobByName(a, b), -1);
    EXPECT_EQ(CompareBlobByName(b, a), 1);  // "extra" is not in a
    EXPECT_EQ(CompareBlob(a, b), 1);        // INT32 1 against "text": numbers, 1 > 0
    EXPECT_EQ(CompareBlobByFieldName(a, b, "x"), 0);
    EXPECT_EQ(CompareBlobByFieldName(a, b, "extra"), -1);
    EXPECT_EQ(CompareBlobByFieldName(b, a, "extra"), 1);
    EXPECT_EQ(CompareBlobByFieldName(a, b, "none"), 0);

    // Nested blobs compare by the rule of the call that met them.
    Held n1, n2, outer1, outer2;
    ASSERT_EQ(AddI32(n1, "p", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(n1, "q", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(n2, "q", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(n2, "p", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(outer1, "n", n1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(outer2, "n", n2), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlob(outer1, outer2), -1);
    EXPECT_EQ(CompareBlobByName(outer1, outer2), 0);
    EXPECT_EQ(CompareBlobByNameLogDiff(outer1, outer2, nullptr, false), 0);
}

TEST(BlobCompare, FieldRulesByType) {
    struct Case {
        std::function<void(_BLOB_INFO*)> left, right;
        int expected;
    };
    auto i32 = [](int32_t v) { return [v](_BLOB_INFO* b) { (void)AddI32(b, "f", v); }; };
    auto str = [](const char* v) {
        return [v](_BLOB_INFO* b) { (void)AddStr(b, "f", v, UINT64_MAX); };
    };
    auto f64 = [](double v) { return [v](_BLOB_INFO* b) { (void)AddF64(b, "f", v); }; };
    auto f32 = [](float v) { return [v](_BLOB_INFO* b) { (void)AddF32(b, "f", v); }; };
    auto u8s = [](std::vector<uint8_t> v) {
        return [v](_BLOB_INFO* b) { (void)AddU8Array(b, "f", v.data(), v.size()); };
    };
    auto i16s = [](std::vector<int16_t> v) {
        return [v](_BLOB_INFO* b) { (void)AddI16Array(b, "f", v.data(), v.size()); };
    };
    auto u64 = [](uint64_t v) { return [v](_BLOB_INFO* b) { (void)AddU64(b, "f", v); }; };
    auto i8 = [](char v) { return [v](_BLOB_INFO* b) { (void)AddI8(b, "f", v); }; };
    auto null = [](_BLOB_INFO* b) { (void)AddNULL(b, "f"); };
    auto wide = [](const char16_t* v) {
        return [v](_BLOB_INFO* b) { (void)AddUTF16(b, "f", v, UINT64_MAX); };
    };
    const Case cases[] = {
        {str("abc"), str("abd"), -1},
        {i32(-5), i32(3), -1},
        {u64(UINT64_MAX), u64(1), 1},
        {i8(-1), i8(1), -1},
        {f64(1.0), f64(std::nextafter(1.0, 2.0)), 0},
        {f64(1.0), f64(1.0 + 1e-9), -1},
        {f32(1.0f), f32(std::nextafter(1.0f, 2.0f)), 0},
        {i32(5), str("5"), 0},  // neither a float, one signed: as numbers
        {str("10"), i32(9), 1},
        {f64(2.5), str("2.5"), 0},
        {u64(3), str("x"), 1},  // the text reads as 0
        {null, i32(0), -1},
        {i32(0), null, 1},
        {u8s({1, 2, 3}), u8s({1, 2}), -1},  // more elements in a: -1
        {u8s({1, 2}), u8s({1, 3}), -1},
        {i16s({256}), i16s({1}), -1},  // the leading bytes decide
        {wide(u"ab"), wide(u"a\u00ff"), -1},
        {wide(u"a"), wide(u"a"), 0},
        {null, null, 0},
    };
    int k = 0;
    for (const Case& c : cases) {
        Held a, b;
        c.left(a);
        c.right(b);
        EXPECT_EQ(CompareBlob(a, b), c.expected) << "case " << k;
        EXPECT_EQ(CompareBlobByName(a, b), c.expected) << "case " << k;
        ++k;
    }
    Held a, b;
    ASSERT_EQ(AddF64(a, "f", 1.0), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(b, "f", 1.05), BLOB_STATUS_SUCCESS);
    _blob_compare loose{0.1, 0.1f};
    EXPECT_EQ(CompareBlob(a, b, &loose), 0);
    EXPECT_EQ(CompareBlob(a, b), -1);
    const _blob_timestamp t1{2026, 1, 2, 3, 4, 5, 6}, t2{2026, 1, 2, 3, 4, 5, 7};
    Held ta, tb;
    ASSERT_EQ(AddTimeStamp(ta, "t", t2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddTimeStamp(tb, "t", t1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlob(ta, tb), 1);
}

TEST(BlobCompare, SortedNamesWithMessages) {
    Held a, b;
    ASSERT_EQ(AddI32(a, "m", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(a, "onlyLeft", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(a, "z", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "z", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "m", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "b", 1), BLOB_STATUS_SUCCESS);
    LogCapture capture;
    // Sorted: b (left lacks it) comes first.
    EXPECT_EQ(CompareBlobByNameLogDiff(a, b, nullptr, false), -1);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(CompareBlobByNameLogDiff(a, b, nullptr, true), -1);
    const std::vector<std::string> expected = {"Missing field b in left blob", "Different field m",
                                               "Missing field onlyLeft in right blob"};
    EXPECT_EQ(capture.Lines(), expected);
    EXPECT_EQ(CompareBlobByNameLogDiff(a, a, nullptr, true), 0);
    EXPECT_EQ(CompareBlobByNameLogDiff(nullptr, a, nullptr, true), 2);
}

TEST(BlobCompare, DiffKeepsWhatDiffersOrIsNew) {
    Held blob, other;
    ASSERT_EQ(AddI32(blob, "same", 4), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(blob, "changed", 4), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(blob, "close", 1.0), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(blob, "new", "n", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU8(blob, nullptr, 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(other, "same", "4", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(other, "changed", 5), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(other, "close", std::nextafter(1.0, 2.0)), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(other, "otherOnly", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(DiffBlob(blob, other), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(blob), "changed new - ");
    EXPECT_EQ(DiffBlob(blob, nullptr), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobCombine, MergeCopyAndTheirStatuses) {
    Held target, source, nestedT, nestedS;
    ASSERT_EQ(AddStr(target, "keep", "old", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(target, "num", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(target, "retyped", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(target, "last", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(nestedT, "t", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(nestedT, "both", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(target, "nest", nestedT), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(source, "keep", "", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(source, "num", 7), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(source, "retyped", "now text", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(nestedS, "s", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(nestedS, "both", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(source, "nest", nestedS), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI8(source, "added", 3), BLOB_STATUS_SUCCESS);

    ASSERT_EQ(CombineBlobs(target, source, true), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(target, "keep"), "old");  // an empty value does not overwrite
    EXPECT_EQ(Str(target, "num"), "7");     // same type and room: in place
    EXPECT_EQ(Str(target, "retyped"), "now text");
    EXPECT_EQ(Names(target), "keep num last nest retyped added ");  // a new type moves to the end
    _BLOB_INFO* merged = nullptr;
    ASSERT_EQ(GetByNameBlob(target, "nest", &merged), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(merged), "t both s ");
    EXPECT_EQ(Str(merged, "both"), "2");
    (void)ReleaseBlob(&merged);
    ASSERT_EQ(CombineFieldByName(target, source, "keep", nullptr, false), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(target, "keep"), "");

    // Copying a nested blob replaces it.
    ASSERT_EQ(CopyFieldByName(target, source, "nest", "nest"), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetByNameBlob(target, "nest", &merged), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(merged), "s both ");
    (void)ReleaseBlob(&merged);
    ASSERT_EQ(CopyFieldByName(target, source, uint64_t{1}, "renamed"), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(target, "renamed"), "7");
    ASSERT_EQ(CopyFieldByName(target, target, "num", "self"), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(target, "self"), "7");

    EXPECT_EQ(CopyFieldByName(target, source, "missing", nullptr), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(CopyFieldByName(target, source, uint64_t{99}, nullptr), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(CopyFieldByName(nullptr, source, "num", nullptr), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CombineFieldByName(target, source, nullptr, nullptr, false),
              BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CombineBlobs(target, nullptr, false), BLOB_STATUS_INVALID_PARAMETER);

    // A nameless source field ends the merge; what was merged stays.
    Held partial, into;
    ASSERT_EQ(AddI32(partial, "first", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(partial, nullptr, 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(partial, "third", 3), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CombineBlobs(into, partial, false), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(Names(into), "first ");
    // An empty array has a room below 5: the copy refuses it.
    Held arrays;
    const int32_t none = 0;
    ASSERT_EQ(AddI32Array(arrays, "none", &none, 0), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CopyFieldByName(into, arrays, "none", nullptr), BLOB_STATUS_DATA_CORRUPT);
}

TEST(BlobCombine, CopyFieldByPosition) {
    Held target, source, n1, n2;
    ASSERT_EQ(AddI32(target, "a", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(target, "b", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(n1, "x", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(target, "n", n1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(source, "s", "text", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(source, "t", 9), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(n2, "y", 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(source, "m", n2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(CopyField(target, source, 0), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(target), "b n s ");
    ASSERT_EQ(CopyField(target, source, 1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(target), "b s t ");  // field 1 ("n") gave way
    ASSERT_EQ(CopyField(target, source, 2), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(target), "b s m ");
    EXPECT_EQ(CopyField(target, source, 3), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(CopyField(nullptr, source, 0), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobCombine, TrimAndBulkRemove) {
    Held b;
    ASSERT_EQ(AddStr(b, "s", "  xx  ", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "blank", "   ", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "r", "a--", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "n", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(TrimStringFieldByName(b, "s", " ", " "), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(b, "s"), "xx");
    ASSERT_EQ(TrimStringField(b, 1, " ", " "), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(b, "blank"), "");
    // The back scan stops on the first character: the text keeps its old end.
    ASSERT_EQ(TrimStringFieldByName(b, "r", nullptr, "-"), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(b, "r"), "a\xFF\xFF");
    EXPECT_EQ(TrimStringField(b, 3, " ", " "), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TrimStringField(b, 9, " ", " "), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(TrimStringFieldByName(b, "none", " ", " "), BLOB_STATUS_ITEM_NOT_FOUND);

    const char* names[] = {"s", "none", "N"};
    ASSERT_EQ(RemoveFieldsByName(b, names, 3), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Names(b), "blank r ");
    EXPECT_EQ(RemoveFieldsByName(nullptr, names, 1), BLOB_STATUS_INVALID_PARAMETER);
    ASSERT_EQ(BlobPreservePointers(b, true), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(RemoveFieldsByName(b, names, 1), BLOB_STATUS_NOT_ALLOWED);
}

}  // namespace
