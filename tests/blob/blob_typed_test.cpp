// Typed field access: the conversion table, the text forms, the string store, arrays and
// binary at their limits, UTF-16, fields from text and reads from serialised bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "blob/blob_internal.h"
#include "tolven/blobtyped.h"

using namespace TOLVEN;
using Bytes = std::vector<unsigned char>;

namespace {

struct Held {
    _BLOB_INFO* p = nullptr;
    Held() { EXPECT_EQ(CreateBlob(&p, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS); }
    ~Held() { (void)ReleaseBlob(&p); }
    operator _BLOB_INFO*() const { return p; }
    _BLOB_INFO* operator->() const { return p; }
};

Bytes Serial(const _BLOB_INFO* b) {
    unsigned char* p = nullptr;
    uint64_t n = 0;
    EXPECT_EQ(GetBlobPtr(b, &p, &n), BLOB_STATUS_SUCCESS);
    return Bytes(p, p + n);
}

// The bytes walk back into the same fields, with the same offsets and rooms.
void ExpectWalksBack(const _BLOB_INFO* b) {
    const Bytes bytes = Serial(b);
    _BLOB_INFO* back = nullptr;
    ASSERT_EQ(CreateBlob(&back, bytes.data(), bytes.size(), true, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(back->fieldCount, b->fieldCount);
    for (uint64_t i = 0; i < b->fieldCount; ++i) {
        EXPECT_EQ(back->fieldIndex[i].dataOffset, b->fieldIndex[i].dataOffset) << i;
        EXPECT_EQ(back->fieldIndex[i].dataSize, b->fieldIndex[i].dataSize) << i;
    }
    (void)ReleaseBlob(&back);
}

std::string Text(const _BLOB_INFO* b, uint64_t i, blob_status expect = BLOB_STATUS_SUCCESS) {
    char buffer[2048];
    EXPECT_EQ(GetStr(b, i, buffer, sizeof buffer), expect) << i;
    return buffer;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

}  // namespace

// Every source type read as every numeric target, with the status of the reads.
TEST(BlobTyped, ReadConversionTable) {
    struct Row {
        const char* what;
        std::function<blob_status(_BLOB_INFO*)> add;
        int64_t i8, i32, i64;
        uint64_t u8, u32, u64;
        double f64;
        int truth;  // GetBOOL from a preset of 7
        blob_status status;
    };
    const Row rows[] = {
        {"int8 -1", [](auto b) { return AddI8(b, "v", -1); }, -1, -1, -1, 255, 0xFFFFFFFF,
         UINT64_MAX, -1.0, 0, BLOB_STATUS_SUCCESS},
        {"int32 300", [](auto b) { return AddI32(b, "v", 300); }, 44, 300, 300, 44, 300, 300, 300.0,
         1, BLOB_STATUS_SUCCESS},
        {"uint16 65535", [](auto b) { return AddU16(b, "v", 65535); }, -1, 65535, 65535, 255, 65535,
         65535, 65535.0, 1, BLOB_STATUS_SUCCESS},
        {"uint64 top bit", [](auto b) { return AddU64(b, "v", 0x8000000000000001ull); }, 1, 1,
         INT64_MIN + 1, 1, 1, 0x8000000000000001ull, 0x1p63, 1, BLOB_STATUS_SUCCESS},
        {"bool", [](auto b) { return AddBOOL(b, "v", 1); }, 1, 1, 1, 1, 1, 1, 1.0, 1,
         BLOB_STATUS_SUCCESS},
        {"float64 -2.7", [](auto b) { return AddF64(b, "v", -2.7); }, -2, -2, -2, 254, 0xFFFFFFFE,
         UINT64_MAX - 1, -2.7, 0, BLOB_STATUS_SUCCESS},
        // Out of the 32-bit range: the small signed reads get INT32_MIN cut.
        {"float64 3e9", [](auto b) { return AddF64(b, "v", 3e9); }, 0, INT32_MIN, 3000000000, 0,
         3000000000u, 3000000000u, 3e9, 1, BLOB_STATUS_SUCCESS},
        {"float64 1e19", [](auto b) { return AddF64(b, "v", 1e19); }, 0, INT32_MIN, INT64_MIN, 0, 0,
         10000000000000000000ull, 1e19, 1, BLOB_STATUS_SUCCESS},
        {"float64 nan", [](auto b) { return AddF64(b, "v", kNaN); }, 0, INT32_MIN, INT64_MIN, 0, 0,
         0x8000000000000000ull, kNaN, 0, BLOB_STATUS_SUCCESS},
        {"float32 -0.5", [](auto b) { return AddF32(b, "v", -0.5f); }, 0, 0, 0, 0, 0, 0, -0.5, 0,
         BLOB_STATUS_SUCCESS},
        {"text with tail", [](auto b) { return AddStr(b, "v", "  12abc", 100); }, 12, 12, 12, 12,
         12, 12, 12.0, 7, BLOB_STATUS_SUCCESS},
        // The 32-bit parses saturate; the 64-bit ones do not need to.
        {"text 2^36", [](auto b) { return AddStr(b, "v", "68719476736", 100); }, -1, INT32_MAX,
         68719476736, 255, 0xFFFFFFFF, 68719476736, 68719476736.0, 7, BLOB_STATUS_SUCCESS},
        {"text -1", [](auto b) { return AddStr(b, "v", "-1", 100); }, -1, -1, -1, 255, 0xFFFFFFFF,
         UINT64_MAX, -1.0, 7, BLOB_STATUS_SUCCESS},
        {"text huge", [](auto b) { return AddStr(b, "v", "-99999999999999999999", 100); }, 0,
         INT32_MIN, INT64_MIN, 255, 0xFFFFFFFF, UINT64_MAX, -1e20, 7, BLOB_STATUS_SUCCESS},
        {"text TRUE", [](auto b) { return AddStr(b, "v", "TRUE", 100); }, 0, 0, 0, 0, 0, 0, 0.0, 1,
         BLOB_STATUS_CANNOT_CONVERT},
        {"utf16 -7", [](auto b) { return AddUTF16(b, "v", u" -7x", 100); }, -7, -7, -7, 249,
         0xFFFFFFF9, UINT64_MAX - 6, -7.0, 7, BLOB_STATUS_SUCCESS},
        {"utf16 1", [](auto b) { return AddUTF16(b, "v", u"1", 100); }, 1, 1, 1, 1, 1, 1, 1.0, 1,
         BLOB_STATUS_SUCCESS},
        {"time stamp", [](auto b) { return AddTimeStamp(b, "v", _blob_timestamp{}); }, 0, 0, 0, 0,
         0, 0, 0.0, 7, BLOB_STATUS_UNHANDLED_TYPE},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        Held b;
        ASSERT_EQ(r.add(b), BLOB_STATUS_SUCCESS);
        char i8 = 0;
        int32_t i32 = 0;
        int64_t i64 = 0;
        uint8_t u8 = 0;
        uint32_t u32 = 0;
        uint64_t u64 = 0;
        double f64 = 0;
        EXPECT_EQ(GetI8(b, 0, &i8), r.status);
        EXPECT_EQ(GetI32(b, 0, &i32), r.status);
        EXPECT_EQ(GetByNameI64(b, "V", &i64), r.status);
        EXPECT_EQ(GetU8(b, 0, &u8), r.status);
        EXPECT_EQ(GetU32(b, 0, &u32), r.status);
        EXPECT_EQ(GetU64(b, 0, &u64), r.status);
        EXPECT_EQ(GetF64(b, 0, &f64), r.status);
        if (r.status == BLOB_STATUS_UNHANDLED_TYPE) continue;
        EXPECT_EQ(i8, static_cast<char>(r.i8));
        EXPECT_EQ(i32, r.i32);
        EXPECT_EQ(i64, r.i64);
        EXPECT_EQ(u8, r.u8);
        EXPECT_EQ(u32, r.u32);
        EXPECT_EQ(u64, r.u64);
        if (std::isnan(r.f64))
            EXPECT_TRUE(std::isnan(f64));
        else
            EXPECT_DOUBLE_EQ(f64, r.f64);
        unsigned char truth = 7;
        EXPECT_EQ(GetBOOL(b, 0, &truth), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(truth, r.truth);
        int asInt = 5;
        EXPECT_EQ(GetBOOL(b, 0, &asInt), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(asInt, r.truth == 1 ? 1 : 0);
    }
}

TEST(BlobTyped, TextForms) {
    Held b;
    const int32_t ints[] = {1, -2, 3};
    const double floats[] = {0.5, 2.0};
    const _blob_timestamp t{2024, 1, 31, 13, 5, 9, 0};
    ASSERT_EQ(AddF64(b, "a", 1.5), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(b, "b", 2.0), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF32(b, "c", 0.1f), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI64(b, "d", INT64_MIN), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU64(b, "e", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBOOL(b, "f", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32Array(b, "g", ints, 3), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64Array(b, "h", floats, 2), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI8Array(b, "i", nullptr, 0), BLOB_STATUS_INVALID_PARAMETER);
    ASSERT_EQ(AddTimeStamp(b, "j", t), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(b, "k", -1e300), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU8(b, "l", 200), BLOB_STATUS_SUCCESS);
    const char* expected[] = {"1.5",
                              "2",
                              "0.1",
                              "-9223372036854775808",
                              "18446744073709551615",
                              "TRUE",
                              "1,-2,3",
                              "0.5,2",
                              "",
                              "01/31/2024 13:05:09",
                              nullptr,
                              "200"};
    for (uint64_t i = 0; i < 12; ++i)
        if (expected[i] != nullptr) {
            EXPECT_EQ(Text(b, i), expected[i]);
        }
    EXPECT_EQ(Text(b, 10).size(), 302u);  // "-1" and 300 zeros: no decimals left

    // Too small: cut, terminated, status 1; the float is trimmed before the size test.
    char small[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(GetStr(b, 0, small, 4), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(small, "1.5");
    EXPECT_EQ(GetStr(b, 6, small, 4), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_STREQ(small, "1,-");
    EXPECT_EQ(GetStr(b, 3, small, 0), BLOB_STATUS_INVALID_PARAMETER);

    Held nested;
    ASSERT_EQ(AddBlob(b, "m", nested), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 12, BLOB_STATUS_UNHANDLED_TYPE), "");
}

// Overwrites convert into the field's type; the field keeps its type.
TEST(BlobTyped, OverwriteConversionTable) {
    struct Row {
        blob_field_type type;
        std::function<blob_status(_BLOB_INFO*)> set;
        const char* text;
        blob_status status;
    };
    const Row rows[] = {
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetI8(b, 0, -1); }, "-1", BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_UINT32, [](auto b) { return SetI8(b, 0, -1); }, "4294967295",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetU8(b, 0, 255); }, "255",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_INT8, [](auto b) { return SetI32(b, 0, 300); }, "44", BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_INT16, [](auto b) { return SetF64(b, 0, -2.7); }, "-2",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_UINT64, [](auto b) { return SetF64(b, 0, 1e19); }, "10000000000000000000",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_FLOAT32, [](auto b) { return SetU64(b, 0, 3); }, "3", BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_BOOL, [](auto b) { return SetI32(b, 0, -5); }, "FALSE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_BOOL, [](auto b) { return SetU32(b, 0, 0x100); }, "TRUE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_BOOL, [](auto b) { return SetF32(b, 0, 0.25f); }, "TRUE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_STRING, [](auto b) { return SetU64(b, 0, UINT64_MAX); }, "-1",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_STRING, [](auto b) { return SetF64(b, 0, 2.5); }, "2.5",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_STRING, [](auto b) { return SetF32(b, 0, 0.1f); }, "0.1000000015",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_STRING, [](auto b) { return SetBOOL(b, 0, 2); }, "TRUE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_UTF16, [](auto b) { return SetI32(b, 0, -42); }, "-42",
         BLOB_STATUS_SUCCESS},
        // Text into numbers: the 32-bit decimal value, sign-extended into 64-bit fields.
        {BLOB_FIELD_TYPE_INT64, [](auto b) { return SetStr(b, 0, "99999999999", 100); },
         "2147483647", BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_UINT64, [](auto b) { return SetStr(b, 0, "-1", 100); },
         "18446744073709551615", BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetStr(b, 0, "1234", 2); }, "12",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_FLOAT64, [](auto b) { return SetStr(b, 0, " 1e3x", 100); }, "1000",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_BOOL, [](auto b) { return SetStr(b, 0, "tRuE", 100); }, "TRUE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_BOOL, [](auto b) { return SetStr(b, 0, "true", 3); }, "FALSE",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetUTF16(b, 0, u"77", 100); }, "77",
         BLOB_STATUS_SUCCESS},
        {BLOB_FIELD_TYPE_STRING, [](auto b) { return SetUTF16(b, 0, u"a\u0100", 100); }, "",
         BLOB_STATUS_CANNOT_CONVERT},
        {BLOB_FIELD_TYPE_BINARY, [](auto b) { return SetI32(b, 0, 1); }, nullptr,
         BLOB_STATUS_UNHANDLED_TYPE},
        {BLOB_FIELD_TYPE_INT32_ARRAY, [](auto b) { return SetStr(b, 0, "1", 9); }, "",
         BLOB_STATUS_UNHANDLED_TYPE},
        {BLOB_FIELD_TYPE_TIMESTAMP, [](auto b) { return SetF64(b, 0, 1); }, nullptr,
         BLOB_STATUS_UNHANDLED_TYPE},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetI32(b, 1, 1); }, nullptr,
         BLOB_STATUS_ITEM_NOT_FOUND},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetByNameI32(b, "w", 1); }, nullptr,
         BLOB_STATUS_ITEM_NOT_FOUND},
        {BLOB_FIELD_TYPE_INT32, [](auto b) { return SetByNameI32(b, "V", 9); }, "9",
         BLOB_STATUS_SUCCESS},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "type " << r.type << " -> " << (r.text ? r.text : ""));
        Held b;
        ASSERT_EQ(AddField(b, "v", r.type, 4, nullptr), BLOB_STATUS_SUCCESS);
        const Bytes before = Serial(b);
        EXPECT_EQ(r.set(b), r.status);
        EXPECT_EQ(GetFieldType(b, 0), r.type);
        if (r.status != BLOB_STATUS_SUCCESS) {
            EXPECT_EQ(Serial(b), before);
        }
        if (r.text != nullptr && r.status == BLOB_STATUS_SUCCESS) {
            EXPECT_EQ(Text(b, 0), r.text);
        }
        ExpectWalksBack(b);
    }
}

TEST(BlobTyped, StringStoreInPlaceAndGrowing) {
    Held b;
    ASSERT_EQ(AddStr(b, "s", "hello", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "n", 42), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddUTF16(b, "w", u"\u00ff\u00ff\u00ff", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI16(b, "m", 7), BLOB_STATUS_SUCCESS);
    const BlobFieldEntry first = b->fieldIndex[1];

    // Shorter: the room stays, the rest is padding, later fields do not move.
    ASSERT_EQ(SetStr(b, 0, "hell", 100), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->fieldIndex[0].dataSize, 6u);
    EXPECT_EQ(b->buffer[b->fieldIndex[0].dataOffset + 5], 0xFF);
    EXPECT_EQ(b->fieldIndex[1].dataOffset, first.dataOffset);
    ExpectWalksBack(b);
    // A UTF-16 value whose units hold 0xFF bytes shrinks without leaving its tail behind.
    ASSERT_EQ(SetUTF16(b, 2, u"a", 100), BLOB_STATUS_SUCCESS);
    ExpectWalksBack(b);

    // Longer: later fields move up by the difference and keep their numbers and values.
    ASSERT_EQ(SetStr(b, 0, "a much longer text", 100), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->fieldIndex[0].dataSize, 19u);
    EXPECT_EQ(b->fieldIndex[1].dataOffset, first.dataOffset + 13);
    EXPECT_EQ(Text(b, 0), "a much longer text");
    EXPECT_EQ(Text(b, 1), "42");
    EXPECT_EQ(Text(b, 3), "7");
    ExpectWalksBack(b);

    // With preservePointers the field still grows into free room, but the buffer cannot move.
    ASSERT_EQ(BlobPreservePointers(b, true), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(SetStr(b, 0, "a much longer text!", 100), BLOB_STATUS_SUCCESS);
    const Bytes before = Serial(b);
    const std::string huge(1000, 'x');
    EXPECT_EQ(SetStr(b, 0, huge.c_str(), 10000), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(Serial(b), before);
    ASSERT_EQ(BlobPreservePointers(b, false), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(SetStr(b, 0, huge.c_str(), 10000), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 0), huge);
    ExpectWalksBack(b);

    // Text read out of the blob itself, stored into another field that must grow.
    const char* own = nullptr;
    ASSERT_EQ(GetPtrStr(b, 0, &own), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "copy", own, 10000), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 4), huge);

    // A borrowed buffer cannot grow: status 1, nothing changed.
    unsigned char memory[64];
    _BLOB_INFO* fixed = nullptr;
    ASSERT_EQ(CreateFixedBlob(&fixed, memory, sizeof memory, 4, false, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(fixed, "s", "ab", 100), BLOB_STATUS_SUCCESS);
    const Bytes fixedBefore = Serial(fixed);
    EXPECT_EQ(SetStr(fixed, 0, huge.c_str(), 100), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Serial(fixed), fixedBefore);
    (void)ReleaseBlob(&fixed);
}

TEST(BlobTyped, NestedBlobsGrowAndShrink) {
    Held b;
    Held inner;
    ASSERT_EQ(AddI32(inner, "x", -1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(b, "in", inner), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU8(b, "after", 9), BLOB_STATUS_SUCCESS);
    // Shrinking to an empty blob pads over the old -1 bytes.
    Held empty;
    ASSERT_EQ(SetBlob(b, 0, empty), BLOB_STATUS_SUCCESS);
    ExpectWalksBack(b);
    // A blob stored into itself is copied first.
    ASSERT_EQ(SetBlob(b, 0, b), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(b, "self", b), BLOB_STATUS_SUCCESS);
    ExpectWalksBack(b);
    _BLOB_INFO* copy = nullptr;
    ASSERT_EQ(GetBlob(b, 2, &copy), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(copy), 2u);
    (void)ReleaseBlob(&copy);
    EXPECT_EQ(GetBlob(b, 1, &copy), BLOB_STATUS_UNHANDLED_TYPE);
    EXPECT_EQ(SetBlob(b, 1, inner), BLOB_STATUS_UNHANDLED_TYPE);
    EXPECT_EQ(SetBlob(b, 0, nullptr), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobTyped, ArraysAndBinaryAtTheirLimits) {
    Held b;
    const int32_t three[] = {1, -2, 3};
    const int32_t four[] = {4, 5, 6, 7};
    ASSERT_EQ(AddI32Array(b, "a", three, 3), BLOB_STATUS_SUCCESS);
    unsigned char data[4] = {1, 2, 3, 4};
    ASSERT_EQ(AddBinary(b, "bin", data, 4), BLOB_STATUS_SUCCESS);

    const Bytes before = Serial(b);
    EXPECT_EQ(SetI32Array(b, 0, four, 4), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(AddI32Array(b, "a", four, 4), BLOB_STATUS_BUFFER_TOO_SMALL);
    unsigned char five[5] = {};
    EXPECT_EQ(SetBinary(b, 1, five, 5), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(SetBinary(b, 0, five, 1), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SetI32Array(b, 1, four, 1), BLOB_STATUS_UNHANDLED_TYPE);
    EXPECT_EQ(Serial(b), before);

    // Elements convert on the way in (int64 into int32 cuts) and on the way out.
    const int64_t wide[] = {0x100000005, -1};
    ASSERT_EQ(SetI64Array(b, 0, wide, 2), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 0), "5,-1");
    uint32_t out[3] = {};
    uint64_t count = 1;
    EXPECT_EQ(GetU32Array(b, 0, out, &count), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(out[0], 0u);
    EXPECT_EQ(GetByNameU32Array(b, "A", out, &count), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(out[1], 0xFFFFFFFFu);
    double asDouble[2] = {};
    count = 2;
    ASSERT_EQ(GetF64Array(b, 0, asDouble, &count), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(asDouble[1], -1.0);
    int32_t* elements = nullptr;
    ASSERT_EQ(GetPtrI32Array(b, 0, &elements, &count), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    int16_t* wrong = nullptr;
    EXPECT_EQ(GetPtrI16Array(b, 0, &wrong, &count), BLOB_STATUS_INVALID_PARAMETER);
    ExpectWalksBack(b);

    // Binary: the exact room copies and leaves *size alone, one less asks for the count.
    ASSERT_EQ(SetBinary(b, 1, data, 3), BLOB_STATUS_SUCCESS);
    unsigned char got[4] = {};
    uint64_t size = 3;
    EXPECT_EQ(GetBinary(b, 1, got, &size), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(got[2], 3);
    size = 2;
    EXPECT_EQ(GetBinary(b, 1, got, &size), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(GetBinary(b, 0, got, &size), BLOB_STATUS_INVALID_PARAMETER);
    unsigned char* raw = nullptr;
    ASSERT_EQ(GetPtrBinary(b, 1, &raw, &size), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(raw[0], 1);
    EXPECT_EQ(Text(b, 1, BLOB_STATUS_UNHANDLED_TYPE), "");
    ExpectWalksBack(b);
    // Null data still appends the field, empty.
    EXPECT_EQ(AddBinary(b, "nul", nullptr, 8), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetNumFields(b), 3u);
}

TEST(BlobTyped, Utf16RoundTripsAndNarrowing) {
    Held b;
    ASSERT_EQ(AddUTF16(b, "w", u"h\u00e9llo", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddUTF16(b, "x", u"\u0100", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "s", "\xe9", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "n", 42), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 0), "h\xe9llo");
    EXPECT_EQ(Text(b, 1, BLOB_STATUS_CANNOT_CONVERT), "");

    char16_t units[8] = {};
    ASSERT_EQ(GetUTF16(b, 0, units, 8), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(units), u"h\u00e9llo");
    ASSERT_EQ(GetUTF16(b, 0, units, 3), BLOB_STATUS_SUCCESS);  // cut, terminated
    EXPECT_EQ(std::u16string(units), u"h\u00e9");
    // Bytes widen with sign extension.
    ASSERT_EQ(GetUTF16(b, 2, units, 8), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(units[0], 0xFFE9);
    ASSERT_EQ(GetByNameUTF16(b, "n", units, 8), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(units), u"42");
    EXPECT_EQ(GetUTF16(b, 3, units, 2), BLOB_STATUS_BUFFER_TOO_SMALL);

    const char16_t* ptr = nullptr;
    ASSERT_EQ(GetPtrUTF16(b, 0, &ptr), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetPtrUTF16(b, 2, &ptr), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ptr, nullptr);
    // Into a STRING field a unit above 255 fails and leaves the old text.
    EXPECT_EQ(SetUTF16(b, 2, u"\u4e2d", 100), BLOB_STATUS_CANNOT_CONVERT);
    EXPECT_EQ(Text(b, 2), "\xe9");
    ASSERT_EQ(SetUTF16(b, 2, u"ok", 100), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 2), "ok");
    ExpectWalksBack(b);
}

TEST(BlobTyped, AddsFindOrAppend) {
    Held b;
    ASSERT_EQ(AddI32(b, "v", 1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "V", 2), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(b), 1u);
    EXPECT_EQ(Text(b, 0), "2");
    ASSERT_EQ(AddF64(b, "d", 0.0), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU8(b, "d", 200), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetFieldType(b, 1), BLOB_FIELD_TYPE_FLOAT64);
    ASSERT_EQ(AddStr(b, "s", "x", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "s", -12345), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Text(b, 2), "-12345");
    ASSERT_EQ(AddNULL(b, "null"), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetFieldType(b, 3), BLOB_FIELD_TYPE_MAX);

    ASSERT_EQ(BlobAllowDuplicateField(b, true), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI32(b, "v", 3), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(b), 5u);
    int32_t v = 0;
    ASSERT_EQ(GetByNameI32(b, "v", &v), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(v, 2);
    EXPECT_EQ(GetByNameI32(nullptr, "v", &v), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetByNameI32(b, nullptr, &v), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(GetByNameI32(b, "v", nullptr), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetI32(b, 0, nullptr), BLOB_STATUS_INVALID_PARAMETER);

    // GetPtr insists on the exact type; a shrunk field answers reads but not pointers.
    int32_t* p = nullptr;
    ASSERT_EQ(GetPtrI32(b, 0, &p), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(RemoveField(b, 3), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(ShrinkBlobFields(b), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetPtrI32(b, 0, &p), BLOB_STATUS_INVALID_PARAMETER);
    ASSERT_EQ(GetI32(b, 0, &v), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(v, 2);

    _blob_timestamp t{};
    ASSERT_EQ(AddStr(b, "when", "2024-01-31 13:05:09", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetByNameTimeStamp(b, "when", &t), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(t.day, 31);
    EXPECT_EQ(t.second, 9);
    ASSERT_EQ(AddStr(b, "bad", "not a time", 100), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetByNameTimeStamp(b, "bad", &t), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(t.day, 31);
}

TEST(BlobTyped, FieldsFromText) {
    struct Row {
        int type;
        const char* text;
        blob_field_type stored;
        const char* read;
    };
    const Row rows[] = {
        {1, "plain", BLOB_FIELD_TYPE_STRING, "plain"},
        {24, "bytes", BLOB_FIELD_TYPE_STRING, "bytes"},
        {26, "wide", BLOB_FIELD_TYPE_STRING, "wide"},
        {2, "T", BLOB_FIELD_TYPE_BOOL, "TRUE"},
        {2, "yes", BLOB_FIELD_TYPE_BOOL, "FALSE"},
        {2, nullptr, BLOB_FIELD_TYPE_BOOL, "FALSE"},
        {5, "  007", BLOB_FIELD_TYPE_INT32, "7"},
        {5, "0-25", BLOB_FIELD_TYPE_INT32, "-25"},
        {5, "12a", BLOB_FIELD_TYPE_INT32, "169"},  // the letter counts as digit 49
        {3, "300", BLOB_FIELD_TYPE_INT8, "44"},
        {9, "4294967297", BLOB_FIELD_TYPE_UINT32, "1"},  // 32-bit wrap
        {6, "-9223372036854775809", BLOB_FIELD_TYPE_INT64, "-9223372036854775808"},
        {10, "18446744073709551615", BLOB_FIELD_TYPE_UINT64, "18446744073709551615"},
        {12, "-12.125", BLOB_FIELD_TYPE_FLOAT64, "-12.125"},
        {12, "1e5", BLOB_FIELD_TYPE_FLOAT64, "635"},  // no exponents: 'e' is digit 53
        {12, "123456789012345.5", BLOB_FIELD_TYPE_FLOAT64, "123456789012345.5"},
        {11, "0.5", BLOB_FIELD_TYPE_FLOAT32, "0.5"},
        {16, " 1, -2 ,,3 ", BLOB_FIELD_TYPE_INT32_ARRAY, "1,-2,3"},
        {21, "18446744073709551615", BLOB_FIELD_TYPE_UINT64_ARRAY, "18446744073709551615"},
        {23, "0.25,1.5", BLOB_FIELD_TYPE_FLOAT64_ARRAY, "0.25,1.5"},
        {14, ",,", BLOB_FIELD_TYPE_INT8_ARRAY, ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.type << " '" << (r.text ? r.text : "(null)") << "'");
        Held b;
        ASSERT_EQ(AddField(b, "f", r.text, static_cast<blob_field_type>(r.type)),
                  BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetFieldType(b, 0), r.stored);
        EXPECT_EQ(Text(b, 0), r.read);
    }
    Held b;
    for (int type : {0, 13, 27, 99})
        EXPECT_EQ(AddField(b, "f", "1", static_cast<blob_field_type>(type)),
                  BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(GetNumFields(b), 0u);
}

TEST(BlobTyped, ReadsFromSerialisedBytes) {
    Held b;
    ASSERT_EQ(AddStr(b, "name", "value", 100), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddI8(b, "n", -1), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddUTF16(b, "w", u"5", 100), BLOB_STATUS_SUCCESS);
    Bytes bytes = Serial(b);
    char text[16];
    uint32_t u = 0;
    const char* ptr = nullptr;
    EXPECT_EQ(GetByNameStr(bytes.data(), bytes.size(), "NAME", text, sizeof text),
              BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(text, "value");
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size(), "n", &u), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(u, 0xFFFFFFFFu);
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size(), "w", &u), BLOB_STATUS_UNHANDLED_TYPE);
    EXPECT_EQ(GetPtrByNameStr(bytes.data(), bytes.size(), "name", &ptr), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(ptr, "value");
    EXPECT_EQ(GetPtrByNameStr(bytes.data(), bytes.size(), "n", &ptr),
              BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ptr, nullptr);
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size(), "missing", &u), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size() - 1, "n", &u),
              BLOB_STATUS_INVALID_BUFFER_LENGTH);
    const Bytes empty = {2, 5, 0, 0, 0};
    EXPECT_EQ(GetByNameU32(empty.data(), empty.size(), "n", &u), BLOB_STATUS_ITEM_NOT_FOUND);
    // A field behind the match does not matter; a broken one before it does.
    bytes.push_back(0x7E);
    bytes[1] = static_cast<unsigned char>(bytes.size());
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size(), "n", &u), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetByNameU32(bytes.data(), bytes.size(), "missing", &u), BLOB_STATUS_INVALID_BLOB);
}
