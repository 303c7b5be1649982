// Arbitrary type numbers and text into AddField from text, then every field read back with
// every typed getter, overwritten with text, and read again from the serialised bytes. Any
// status is fine; a crash, a sanitizer report or a buffer that no longer walks is not.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tolven/blobtyped.h"

using namespace TOLVEN;

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// Every getter on field `i`; statuses are ignored, only the calls' safety matters.
void ReadAll(const _BLOB_INFO* b, uint64_t i) {
#define TOLVEN_READ_SCALAR(T, C)   \
    {                              \
        C v{};                     \
        C* p = nullptr;            \
        (void)Get##T(b, i, &v);    \
        (void)GetPtr##T(b, i, &p); \
    }
    TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_READ_SCALAR)
#undef TOLVEN_READ_SCALAR
#define TOLVEN_READ_ARRAY(T, C)               \
    {                                         \
        C v[8];                               \
        C* p = nullptr;                       \
        uint64_t n = 8;                       \
        (void)Get##T##Array(b, i, v, &n);     \
        (void)GetPtr##T##Array(b, i, &p, &n); \
    }
    TOLVEN_BLOB_ARRAY_TOKENS(TOLVEN_READ_ARRAY)
#undef TOLVEN_READ_ARRAY
    int truth = 0;
    (void)GetBOOL(b, i, &truth);
    char text[64];
    for (uint64_t size : {uint64_t{1}, uint64_t{7}, uint64_t{sizeof text}})
        (void)GetStr(b, i, text, size);
    char16_t units[16];
    (void)GetUTF16(b, i, units, 16);
    unsigned char bytes[16];
    uint64_t n = sizeof bytes;
    (void)GetBinary(b, i, bytes, &n);
    unsigned char* raw = nullptr;
    (void)GetPtrBinary(b, i, &raw, &n);
    _blob_timestamp t{};
    _blob_timestamp* tp = nullptr;
    (void)GetTimeStamp(b, i, &t);
    (void)GetPtrTimeStamp(b, i, &tp);
    const char* s = nullptr;
    const char16_t* w = nullptr;
    (void)GetPtrStr(b, i, &s);
    (void)GetPtrUTF16(b, i, &w);
    _BLOB_INFO* nested = nullptr;
    if (GetBlob(b, i, &nested) == BLOB_STATUS_SUCCESS) (void)ReleaseBlob(&nested);
}

// The buffer parses back into as many fields.
void CheckWalks(const _BLOB_INFO* b) {
    unsigned char* p = nullptr;
    uint64_t length = 0;
    Check(GetBlobPtr(b, &p, &length) == BLOB_STATUS_SUCCESS);
    _BLOB_INFO* back = nullptr;
    Check(CreateBlob(&back, p, length, true, BLOB_CREATE_DEFAULT) == BLOB_STATUS_SUCCESS);
    Check(GetNumFields(back) == GetNumFields(b));
    (void)ReleaseBlob(&back);
}

}  // namespace

// Records are separated by NUL bytes: a type byte, a name byte, then the text. Type bytes
// 198, 199 and 200 and above add a nested copy of the blob, binary and UTF-16 fields.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    _BLOB_INFO* b = nullptr;
    if (CreateBlob(&b, BLOB_CREATE_ALLOW_DUPLICATES) != BLOB_STATUS_SUCCESS) return 0;
    std::vector<std::string> texts;
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] != 0) continue;
        if (i - start >= 2) {
            const auto type = static_cast<blob_field_type>(data[start]);
            const char name[2] = {static_cast<char>('a' + data[start + 1] % 4), 0};
            texts.emplace_back(reinterpret_cast<const char*>(data + start + 2), i - start - 2);
            const std::string& t = texts.back();
            if (data[start] >= 200) {
                // Pairs of bytes as UTF-16 units, any value.
                std::u16string units;
                for (size_t k = 0; k + 1 < t.size(); k += 2)
                    units.push_back(static_cast<char16_t>(static_cast<uint8_t>(t[k]) |
                                                          (static_cast<uint8_t>(t[k + 1]) << 8)));
                (void)AddUTF16(b, name, units.c_str(), UINT64_MAX);
            } else if (data[start] == 199) {
                std::vector<unsigned char> bytes(t.begin(), t.end());
                (void)AddBinary(b, name, bytes.data(), bytes.size());
            } else if (data[start] == 198) {
                // A blob stored into itself doubles it: stop before the input turns into
                // a test of memory size.
                if (GetBlobLen(b) < 65536) (void)AddBlob(b, name, b);
            } else {
                (void)AddField(b, name, t.c_str(), type);
            }
        }
        start = i + 1;
    }
    const uint64_t fields = GetNumFields(b);
    for (uint64_t i = 0; i < fields; ++i)
        ReadAll(b, i);
    CheckWalks(b);
    // Each field overwritten with another record's text, as bytes and as widened units.
    for (uint64_t i = 0; i < fields && !texts.empty(); ++i) {
        const std::string& t = texts[(i + 1) % texts.size()];
        (void)SetStr(b, i, t.c_str(), i % 3 == 0 ? 3 : UINT64_MAX);
        std::u16string wide(t.begin(), t.end());
        (void)SetUTF16(b, i, wide.c_str(), UINT64_MAX);
        (void)SetF64(b, i, static_cast<double>(t.size()) / 3);
        ReadAll(b, i);
    }
    CheckWalks(b);
    unsigned char* p = nullptr;
    uint64_t length = 0;
    (void)GetBlobPtr(b, &p, &length);
    char text[32];
    uint32_t u = 0;
    const char* s = nullptr;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        (void)GetByNameStr(p, length, name, text, sizeof text);
        (void)GetByNameU32(p, length, name, &u);
        (void)GetPtrByNameStr(p, length, name, &s);
    }
    (void)ReleaseBlob(&b);
    return 0;
}
