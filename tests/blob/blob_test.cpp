// The blob's buffer format, walk, growth, names and lifecycle.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "blob/blob_internal.h"
#include "tolven/blob.h"

using namespace TOLVEN;
using Bytes = std::vector<unsigned char>;

namespace {

// Releases a blob at the end of a scope.
struct Held {
    _BLOB_INFO* p = nullptr;
    ~Held() { (void)ReleaseBlob(&p); }
    _BLOB_INFO* operator->() const { return p; }
    operator _BLOB_INFO*() const { return p; }
};

// The used bytes of a blob, with bit 0 of the format byte masked.
Bytes Serial(const _BLOB_INFO* blob) {
    unsigned char* p = nullptr;
    uint64_t n = 0;
    EXPECT_EQ(GetBlobPtr(blob, &p, &n), BLOB_STATUS_SUCCESS);
    Bytes out(p, p + n);
    out[0] &= 0xFE;
    return out;
}

unsigned char* Data(_BLOB_INFO* blob, uint64_t index) {
    return blob->buffer + blob->fieldIndex[index].dataOffset;
}

Bytes Header(uint32_t length) {
    return {2, static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8),
            static_cast<unsigned char>(length >> 16), static_cast<unsigned char>(length >> 24)};
}

// Parses bytes into a new blob and compares its index with `expected`.
void ExpectSameFields(const _BLOB_INFO* expected, const Bytes& bytes) {
    Held back;
    ASSERT_EQ(CreateBlob(&back.p, bytes.data(), bytes.size(), true, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetNumFields(back), GetNumFields(expected));
    for (uint64_t i = 0; i < GetNumFields(back); ++i) {
        EXPECT_EQ(back->fieldIndex[i].headerOffset, expected->fieldIndex[i].headerOffset) << i;
        EXPECT_EQ(back->fieldIndex[i].dataOffset, expected->fieldIndex[i].dataOffset) << i;
        EXPECT_EQ(back->fieldIndex[i].dataSize, expected->fieldIndex[i].dataSize) << i;
    }
}

}  // namespace

TEST(BlobFormat, EmptyBlobIsFiveBytesAndParsesBack) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Serial(b), (Bytes{2, 5, 0, 0, 0}));
    for (unsigned char format : {2, 3}) {
        const Bytes empty{format, 5, 0, 0, 0};
        Held p;
        ASSERT_EQ(CreateBlob(&p.p, empty.data(), empty.size(), false, BLOB_CREATE_DEFAULT),
                  BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetNumFields(p), 0u);
    }
    const Bytes stream{2, 9, 0, 0, 0};
    EXPECT_EQ(GetBlobBufferLen(stream.data()), 9u);
}

// Every field type, named, as AddField lays it out, then walked back from the bytes.
TEST(BlobFormat, GoldenBytesOfEveryFieldType) {
    struct Case {
        blob_field_type type;
        uint64_t size;
        Bytes data;  // the initial value as AddField writes it
    };
    // One layout per family: text, fixed scalars (1 and 8 bytes), nested blob, counted
    // arrays, binary, timestamp, UTF-16.
    const std::vector<Case> cases = {
        {BLOB_FIELD_TYPE_STRING, 3, {0, 0xFF, 0xFF}},
        {BLOB_FIELD_TYPE_BOOL, 99, {0xFF}},
        {BLOB_FIELD_TYPE_FLOAT64, 0, Bytes(8, 0xFF)},
        {BLOB_FIELD_TYPE_BLOB, 7, {2, 5, 0, 0, 0, 0xFF, 0xFF}},
        {BLOB_FIELD_TYPE_INT16_ARRAY, 4, {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
        {BLOB_FIELD_TYPE_BINARY, 3, {0, 0, 0, 0, 0xFF, 0xFF, 0xFF}},
        {BLOB_FIELD_TYPE_TIMESTAMP, 1, Bytes(16, 0xFF)},
        {BLOB_FIELD_TYPE_UTF16, 6, {0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.type));
        Held b;
        ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
        ASSERT_EQ(AddField(b, "Nm", c.type, c.size, nullptr), BLOB_STATUS_SUCCESS);
        Bytes expected = Header(static_cast<uint32_t>(5 + 4 + c.data.size()));
        for (unsigned char x :
             {static_cast<unsigned char>(c.type | 0x80), uint8_t{'N'}, uint8_t{'m'}, uint8_t{0}})
            expected.push_back(x);
        for (unsigned char x : c.data)
            expected.push_back(x);
        EXPECT_EQ(Serial(b), expected);
        ExpectSameFields(b, expected);
    }
}

TEST(BlobFormat, GoldenValuesWalkBack) {
    // INT32 0x01020304 nameless; STRING "hi" named "s" with two bytes of padding; UINT16
    // array {7, 8}; a nested empty blob; UTF-16 "A".
    const Bytes bytes = {2,    38,  0, 0,   0,                      // header
                         0x05, 4,   3, 2,   1,                      // INT32
                         0x81, 's', 0, 'h', 'i', 0, 0xFF, 0xFF,     // STRING
                         0x13, 2,   0, 0,   0,   7, 0,    8,    0,  // UINT16_ARRAY
                         0x0D, 2,   5, 0,   0,   0,                 // BLOB
                         0x1A, 'A', 0, 0,   0};                     // UTF16
    ASSERT_EQ(bytes.size(), 38u);
    Held b;
    ASSERT_EQ(CreateBlob(&b.p, bytes.data(), bytes.size(), false, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetNumFields(b), 5u);
    int32_t v = 0;
    std::memcpy(&v, Data(b, 0), 4);
    EXPECT_EQ(v, 0x01020304);
    EXPECT_EQ(b->fieldIndex[1].dataSize, 5u);  // padding absorbed
    const uint64_t lengths[] = {4, 3, 2, 5, 2};
    uint64_t len = 0;
    for (uint64_t f = 0; f < 5; ++f) {
        ASSERT_EQ(GetFieldLen(b, f, &len), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(len, lengths[f]) << f;
    }
    EXPECT_EQ(GetFieldLen(b, 5, &len), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(len, 0u);
    const char* name = nullptr;
    EXPECT_EQ(GetFieldDescriptionPtr(b, 0, &name), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(name, nullptr);
    ASSERT_EQ(GetFieldDescriptionPtr(b, 1, &name), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(name, "s");
    // A borrowed buffer with no spare room refuses an append without allocating.
    EXPECT_EQ(AddField(b, "x", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_BUFFER_TOO_SMALL);
}

TEST(BlobFormat, MalformedBytesAreRefused) {
    auto parse = [](const Bytes& bytes, uint64_t length) {
        _BLOB_INFO* b = reinterpret_cast<_BLOB_INFO*>(1);
        const blob_status s = CreateBlob(&b, bytes.data(), length, false, BLOB_CREATE_DEFAULT);
        if (s == BLOB_STATUS_SUCCESS)
            (void)ReleaseBlob(&b);
        else
            EXPECT_EQ(b, nullptr);
        return s;
    };
    EXPECT_EQ(parse({2, 5, 0, 0, 0}, 4), BLOB_STATUS_INVALID_BUFFER_LENGTH);
    EXPECT_EQ(parse({2, 6, 0, 0, 0, 2}, 5), BLOB_STATUS_INVALID_BUFFER_LENGTH);
    const Bytes invalid[] = {
        {2, 4, 0, 0, 0},                                     // length below the header
        {2, 8, 0, 0, 0, 5, 1, 2, 3},                         // INT32 past the length
        {2, 8, 0, 0, 0, 1, 'a', 'b'},                        // string without its NUL
        {2, 8, 0, 0, 0, 0x82, 'a', 'b'},                     // name without its NUL
        {2, 9, 0, 0, 0, 26, 'a', 0, 0},                      // UTF-16 with an odd byte
        {2, 12, 0, 0, 0, 17, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0},  // array count far too large
        {2, 8, 0, 0, 0, 16, 1, 0},                           // array count cut short
        {2, 11, 0, 0, 0, 13, 2, 9, 0, 0, 0},                 // nested length too large
        {2, 11, 0, 0, 0, 13, 2, 1, 0, 0, 0},                 // nested length too small
        {2, 8, 0, 0, 0, 13, 2, 5},                           // nested header cut
        {2, 12, 0, 0, 0, 13, 2, 6, 0, 0, 0, 5},              // malformed inside good nesting
        {2, 8, 0, 0, 0, 0x9B, 'a', 0},                       // the in-memory null field
        {2, 7, 0, 0, 0, 0, 0},                               // undefined type
        {2, 7, 0, 0, 0, 0x7F, 0},                            // unknown type
        {2, 8, 0, 0, 0, 3, 1, 0xFF},                         // padding behind a fixed value
    };
    for (const Bytes& bytes : invalid)
        EXPECT_EQ(parse(bytes, bytes.size()), BLOB_STATUS_INVALID_BLOB) << bytes.size();
    _BLOB_INFO* out = nullptr;
    EXPECT_EQ(CreateBlob(&out, nullptr, 5, false, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobFormat, NestingDepthIsBounded) {
    // Blob in blob in blob: `levels` nested blobs below the outer one.
    auto nest = [](unsigned levels) {
        // From the inside out: each level adds a header and a type byte in front.
        const size_t total = 5 + 6 * size_t{levels};
        Bytes b(total);
        for (unsigned level = 0; level <= levels; ++level) {
            const size_t at = 6 * size_t{level};
            const Bytes h = Header(static_cast<uint32_t>(total - at));
            std::memcpy(b.data() + at, h.data(), 5);
            if (level < levels) b[at + 5] = 13;
        }
        return b;
    };
    for (unsigned levels : {64u, 65u}) {
        Held b;
        const Bytes bytes = nest(levels);
        EXPECT_EQ(CreateBlob(&b.p, bytes.data(), bytes.size(), false, BLOB_CREATE_DEFAULT),
                  levels == 64 ? BLOB_STATUS_SUCCESS : BLOB_STATUS_INVALID_BLOB);
    }
}

TEST(BlobFields, AddFieldRefusesBadSizesAndTypes) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    const std::pair<blob_field_type, uint64_t> refused[] = {
        {BLOB_FIELD_TYPE_UNDEFINED, 1},
        {static_cast<blob_field_type>(28), 1},
        {BLOB_FIELD_TYPE_STRING, 0},
        {BLOB_FIELD_TYPE_BLOB, 4},
        {BLOB_FIELD_TYPE_STRING, uint64_t{1} << 33},
    };
    for (const auto& [type, size] : refused)
        EXPECT_EQ(AddField(b, "a", type, size, nullptr), BLOB_STATUS_INVALID_PARAMETER) << type;
    EXPECT_EQ(GetNumFields(b), 0u);
    // An empty array is legal: its room is the count alone.
    ASSERT_EQ(AddField(b, "e", BLOB_FIELD_TYPE_INT32_ARRAY, 0, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "z", BLOB_FIELD_TYPE_MAX, 0, nullptr), BLOB_STATUS_SUCCESS);
    // The null field lives in memory only (its bytes do not walk: see the malformed cases).
    EXPECT_EQ(Serial(b), (Bytes{2, 15, 0, 0, 0, 0x90, 'e', 0, 0, 0, 0, 0, 0x9B, 'z', 0}));
}

TEST(BlobFields, NamesFoldAsciiLettersOnlyAndUniqueNamesReachTheExistingField) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    uint64_t i = 9;
    ASSERT_EQ(AddField(b, "ABC", BLOB_FIELD_TYPE_INT32, 0, &i), BLOB_STATUS_SUCCESS);
    // Same name in other case and another type: the existing field, unchanged.
    ASSERT_EQ(AddField(b, "abc", BLOB_FIELD_TYPE_STRING, 10, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 0u);
    EXPECT_EQ(GetNumFields(b), 1u);
    EXPECT_EQ(GetFieldType(b, 0), BLOB_FIELD_TYPE_INT32);
    // Bytes above 127 are compared exactly; "[" is not "{".
    ASSERT_EQ(AddField(b, "\xC4", BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "\xE4", BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 2u);
    ASSERT_EQ(AddField(b, "[", BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "{", BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 4u);
    // Nameless fields never collide and are not found by name.
    ASSERT_EQ(AddField(b, "", BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, nullptr, BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 6u);
    EXPECT_EQ(GetFieldNumber(b, "", &i), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(GetFieldNumber(b, nullptr, &i), BLOB_STATUS_ITEM_NOT_FOUND);
    EXPECT_EQ(IsFieldPresent(b, "ab"), 0);
    EXPECT_EQ(IsFieldPresent(b, "abcd"), 0);
    // With duplicates allowed the lowest number answers.
    bool previous = true;
    ASSERT_EQ(BlobAllowDuplicateField(b, true, previous), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "abc", BLOB_FIELD_TYPE_STRING, 4, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 7u);
    ASSERT_EQ(GetFieldNumber(b, "ABC", &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 0u);
    ASSERT_EQ(RemoveFieldByName(b, "abc"), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetFieldNumber(b, "ABC", &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i, 6u);
}

TEST(BlobFields, CreateOptionsSelectLockAndDuplicates) {
    Held dup, both;
    ASSERT_EQ(CreateBlob(&dup.p, BLOB_CREATE_ALLOW_DUPLICATES), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(BlobWriteLock(dup), BLOB_STATUS_NOT_ALLOWED);
    // 6 is a lock with unique names: the duplicate test is an equality with 4.
    ASSERT_EQ(CreateBlob(&both.p, static_cast<blob_create_option>(6)), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(BlobWriteLock(both), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(BlobWriteUnlock(both), BLOB_STATUS_SUCCESS);
}

TEST(BlobFields, DescriptionCopiesWithTruncation) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "abcdef", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_SUCCESS);
    char name[16];
    std::memset(name, 'x', sizeof name);
    uint64_t length = sizeof name;
    ASSERT_EQ(GetFieldDescription(b, 0, name, &length), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(name, "abcdef");
    EXPECT_EQ(length, 7u);
    length = 1;
    ASSERT_EQ(GetFieldDescription(b, 0, name, &length), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(GetFieldDescription(b, 1, name, &length), BLOB_STATUS_ITEM_NOT_FOUND);
}

TEST(BlobGrowth, BufferAndIndexGrowByHalf) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    // 5 used; a binary of 300 bytes named "n" needs 1 + 2 + 304 = 307 bytes:
    // 256 + 128 + 307 = 691 asked, served by the 768-byte pool.
    uint64_t i = 0;
    ASSERT_EQ(AddField(b, "n", BLOB_FIELD_TYPE_BINARY, 300, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->bufferCapacity, 768u);
    // Above 2048 bytes malloc serves the exact size: 768 + 384 + 2001 = 3153.
    ASSERT_EQ(AddField(b, "", BLOB_FIELD_TYPE_STRING, 2000, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->bufferCapacity, 3153u);
    // 64 entries grow to 96, asked as 1152 bytes from the 2048 pool: 170 entries.
    for (int f = 2; f < 64; ++f)
        ASSERT_EQ(AddField(b, nullptr, BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, nullptr, BLOB_FIELD_TYPE_INT8, 0, &i), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->fieldIndexCapacity, 170u);
    ExpectSameFields(b, Serial(b));
    // Clear keeps both capacities.
    ASSERT_EQ(Clear(b), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Serial(b), (Bytes{2, 5, 0, 0, 0}));
    EXPECT_EQ(b->bufferCapacity, 3153u);
    // ShrinkBlobMemory gives both back.
    ASSERT_EQ(AddField(b, "x", BLOB_FIELD_TYPE_INT32, 0, &i), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(ShrinkBlobMemory(b), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->bufferCapacity, 56u);
    EXPECT_EQ(b->fieldIndexCapacity, 4u);
    ExpectSameFields(b, Serial(b));
}

TEST(BlobGrowth, PreservedPointersRefuseMoves) {
    Held b, other;
    ASSERT_EQ(CreateBlob(&b.p, 16, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(CreateBlob(&other.p), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "a", BLOB_FIELD_TYPE_INT32, 0, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(BlobPreservePointers(b, true), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(AddField(b, "s", BLOB_FIELD_TYPE_STRING, 100, nullptr), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(RemoveField(b, 0), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(CopyBlob(b, other), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(SwapBlobs(other, b), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(ShrinkBlobFields(b), BLOB_STATUS_NOT_ALLOWED);
    EXPECT_EQ(ShrinkBlobMemory(b), BLOB_STATUS_NOT_ALLOWED);
    // A field that fits needs no move.
    EXPECT_EQ(AddField(b, "c", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_SUCCESS);
}

TEST(BlobFixed, InPlaceIndexOutgrowsCallerMemory) {
    alignas(8) unsigned char memory[56 + 2 * 12 + 64];
    _BLOB_INFO* b = nullptr;
    EXPECT_EQ(CreateFixedBlob(&b, memory, 56 + 24 + 4, 2, true, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_BUFFER_TOO_SMALL);
    ASSERT_EQ(CreateFixedBlob(&b, memory, sizeof memory, 2, true, BLOB_CREATE_DEFAULT),
              BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->bufferCapacity, 64u);
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(AddField(b, nullptr, BLOB_FIELD_TYPE_INT32, 0, nullptr), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->fieldIndexCapacity, 2u);
    // The third entry moves the index to the pools; the handle stays in the memory.
    ASSERT_EQ(AddField(b, nullptr, BLOB_FIELD_TYPE_INT32, 0, nullptr), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(b->borrowedHandle, 0);
    EXPECT_EQ(b->fieldIndexCapacity, 4u);
    ExpectSameFields(b, Serial(b));
    // The buffer is fixed: no growth, status 1, nothing added.
    EXPECT_EQ(AddField(b, "big", BLOB_FIELD_TYPE_BINARY, 100, nullptr),
              BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(GetNumFields(b), 3u);
    EXPECT_EQ(ReleaseBlob(&b), 0);
}

TEST(BlobFixed, UnalignedMemoryIsAlignedInside) {
    alignas(8) unsigned char memory[200];
    _BLOB_INFO* b = nullptr;
    ASSERT_EQ(CreateFixedBlob(&b, memory + 3, 190, 4, true, BLOB_CREATE_LOCKED),
              BLOB_STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 0u);
    EXPECT_EQ(b->bufferCapacity, 190u - 5 - 72 - 48);
    EXPECT_EQ(ReleaseBlob(&b), 0);
}

TEST(BlobLifecycle, RemoveFieldMovesLaterFields) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "a", BLOB_FIELD_TYPE_INT32, 0, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "bb", BLOB_FIELD_TYPE_STRING, 8, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "c", BLOB_FIELD_TYPE_INT16, 0, nullptr), BLOB_STATUS_SUCCESS);
    std::memcpy(Data(b, 2), "\x34\x12", 2);
    EXPECT_EQ(RemoveField(b, 3), BLOB_STATUS_ITEM_NOT_FOUND);
    ASSERT_EQ(RemoveField(b, 1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(b), 2u);
    EXPECT_EQ(Serial(b), (Bytes{2, 17, 0, 0, 0, 0x85, 'a', 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x84, 'c', 0,
                                0x34, 0x12}));
    ExpectSameFields(b, Serial(b));
    // Removing the last field moves nothing but still shortens the blob.
    ASSERT_EQ(RemoveField(b, 1), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetBlobLen(b), 12u);
}

TEST(BlobLifecycle, CopySwapAndReferences) {
    Held a, b;
    ASSERT_EQ(CreateBlob(&a.p), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(CreateBlob(&b.p, 16, BLOB_CREATE_ALLOW_DUPLICATES), BLOB_STATUS_SUCCESS);
    for (int i = 0; i < 70; ++i)
        ASSERT_EQ(AddField(a, nullptr, BLOB_FIELD_TYPE_INT16, 0, nullptr), BLOB_STATUS_SUCCESS);
    // The target grows its buffer to exactly the used length and its index to the count.
    ASSERT_EQ(CopyBlob(b, a), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Serial(b), Serial(a));
    EXPECT_EQ(b->fieldIndexCapacity, 1024u / 12);  // 70 x 12 = 840 bytes asked
    ExpectSameFields(b, Serial(a));
    // A deep copy, then a swap that exchanges contents only.
    Held c, d;
    ASSERT_EQ(CreateBlob(&c.p, a.p, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(CreateBlob(&d.p, BLOB_CREATE_ALLOW_DUPLICATES), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddRefBlob(d), 2);
    ASSERT_EQ(SwapBlobs(c, d), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Serial(d), Serial(a));
    EXPECT_EQ(GetNumFields(c), 0u);
    EXPECT_EQ(d->uniqueNames, 0);
    EXPECT_EQ(GetRefCountBlob(d), 2);
    // A release that leaves a reference keeps the caller's pointer.
    _BLOB_INFO* alias = d.p;
    EXPECT_EQ(ReleaseBlob(&alias), 1);
    EXPECT_EQ(alias, d.p);
}

TEST(BlobLifecycle, SetBlobPtrRepointsAndKeepsBadBuffers) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    const Bytes good{2, 10, 0, 0, 0, 5, 1, 0, 0, 0};
    ASSERT_EQ(SetBlobPtr(b, good.data(), good.size()), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(b), 1u);
    const Bytes longer{2, 10, 0, 0, 0, 5, 1, 0, 0};
    EXPECT_EQ(SetBlobPtr(b, longer.data(), longer.size()), BLOB_STATUS_INVALID_BUFFER_LENGTH);
    EXPECT_EQ(b->buffer, good.data());
    const Bytes bad{2, 9, 0, 0, 0, 5, 1, 0, 0};
    EXPECT_EQ(SetBlobPtr(b, bad.data(), bad.size()), BLOB_STATUS_INVALID_BLOB);
    EXPECT_EQ(GetNumFields(b), 0u);
    EXPECT_EQ(b->buffer, bad.data());
    EXPECT_EQ(SetBlobPtr(b, bad.data(), 4), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobLifecycle, ShrinkFieldsNarrowsIntegersAndDropsPadding) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p), BLOB_STATUS_SUCCESS);
    const int64_t large = -70000;
    ASSERT_EQ(AddField(b, "s", BLOB_FIELD_TYPE_STRING, 10, nullptr), BLOB_STATUS_SUCCESS);
    std::memcpy(Data(b, 0), "hi", 3);
    ASSERT_EQ(AddField(b, "l", BLOB_FIELD_TYPE_INT64, 0, nullptr), BLOB_STATUS_SUCCESS);
    std::memcpy(Data(b, 1), &large, 8);
    ASSERT_EQ(AddField(b, "n", BLOB_FIELD_TYPE_BLOB, 5, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(ShrinkBlobFields(b), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetNumFields(b), 3u);
    EXPECT_EQ(b->fieldIndex[0].dataSize, 3u);
    EXPECT_EQ(GetFieldType(b, 1), BLOB_FIELD_TYPE_INT32);
    int32_t l = 0;
    std::memcpy(&l, Data(b, 1), 4);
    EXPECT_EQ(l, -70000);
    ExpectSameFields(b, Serial(b));
}

TEST(BlobLifecycle, VariableStoreGrowsAndPads) {
    Held b;
    ASSERT_EQ(CreateBlob(&b.p, 16, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "s", BLOB_FIELD_TYPE_STRING, 4, nullptr), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(b, "t", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_SUCCESS);
    Data(b, 1)[0] = 42;
    const char text[] = "a much longer text than the room";
    ASSERT_EQ(detail::StoreVariable(b, 0, text, sizeof text), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(Data(b, 0)), text);
    EXPECT_EQ(Data(b, 1)[0], 42);
    // A shorter text keeps the room and pads it.
    ASSERT_EQ(detail::StoreVariable(b, 0, "xy", 3), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Data(b, 0)[3], 0xFF);
    ExpectSameFields(b, Serial(b));
    uint64_t length = 0;
    ASSERT_EQ(GetFieldLen(b, 0, &length), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(length, 3u);
}

TEST(BlobLifecycle, RandomBlobsWalkBack) {
    std::srand(7);
    for (int round = 0; round < 20; ++round) {
        Held b;
        ASSERT_EQ(CreateRandomBlob(&b.p, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS);
        ExpectSameFields(b, Serial(b));
    }
}

namespace {
int g_handlerCalls = 0;
void CountingHandler() {
    ++g_handlerCalls;
}
}  // namespace

TEST(BlobLifecycle, OutOfMemoryCallsTheHandlerOnce) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer allocators abort on impossible sizes";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    GTEST_SKIP() << "sanitizer allocators abort on impossible sizes";
#endif
#endif
    SetBlobOutOfMemoryHandler(&CountingHandler);
    _BLOB_INFO* b = nullptr;
    EXPECT_EQ(CreateBlob(&b, uint64_t{1} << 62, BLOB_CREATE_DEFAULT), BLOB_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(g_handlerCalls, 1);
    SetBlobOutOfMemoryHandler(nullptr);
}
