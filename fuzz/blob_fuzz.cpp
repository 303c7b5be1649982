// Arbitrary bytes into the blob walk. A blob that parses must have every field inside its
// buffer, and its buffer must parse again into the same fields, also through SetBlobPtr and
// after a copy into owned memory.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tolven/blob.h"

using namespace TOLVEN;

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// Walks every field of a parsed blob: all of it lies inside the used length.
void WalkFields(const _BLOB_INFO* blob) {
    const uint64_t used = GetBlobLen(blob);
    for (uint64_t i = 0; i < GetNumFields(blob); ++i) {
        const BlobFieldEntry& e = blob->fieldIndex[i];
        Check(e.headerOffset < e.dataOffset);
        Check(uint64_t{e.dataOffset} + e.dataSize <= used);
        Check(GetFieldType(blob, i) != BLOB_FIELD_TYPE_UNDEFINED);
        uint64_t length = 0;
        Check(GetFieldLen(blob, i, &length) == BLOB_STATUS_SUCCESS);
        const char* name = nullptr;
        // Bytes may hold a name of length 0 behind bit 7; no look-up reaches it.
        if (GetFieldDescriptionPtr(blob, i, &name) == BLOB_STATUS_SUCCESS && name[0] != 0) {
            uint64_t index = 0;
            Check(GetFieldNumber(blob, name, &index) == BLOB_STATUS_SUCCESS && index <= i);
        }
    }
}

bool SameFields(const _BLOB_INFO* a, const _BLOB_INFO* b) {
    if (GetNumFields(a) != GetNumFields(b)) return false;
    for (uint64_t i = 0; i < GetNumFields(a); ++i)
        if (std::memcmp(&a->fieldIndex[i], &b->fieldIndex[i], sizeof(BlobFieldEntry)) != 0)
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy, so that any read past the bytes is caught.
    std::vector<unsigned char> bytes(data, data + size);
    _BLOB_INFO* blob = nullptr;
    const blob_status s = CreateBlob(&blob, bytes.data(), bytes.size(), false, BLOB_CREATE_DEFAULT);
    _BLOB_INFO* other = nullptr;
    Check(CreateBlob(&other) == BLOB_STATUS_SUCCESS);
    const blob_status t = bytes.size() >= 5 ? SetBlobPtr(other, bytes.data(), bytes.size())
                                            : BLOB_STATUS_INVALID_BUFFER_LENGTH;
    Check((s == BLOB_STATUS_SUCCESS) == (t == BLOB_STATUS_SUCCESS));
    if (s == BLOB_STATUS_SUCCESS) {
        Check(blob != nullptr);
        WalkFields(blob);
        Check(SameFields(blob, other));
        unsigned char* p = nullptr;
        uint64_t n = 0;
        Check(GetBlobPtr(blob, &p, &n) == BLOB_STATUS_SUCCESS);
        std::vector<unsigned char> again(p, p + n);
        _BLOB_INFO* second = nullptr;
        Check(CreateBlob(&second, again.data(), again.size(), true, BLOB_CREATE_DEFAULT) ==
              BLOB_STATUS_SUCCESS);
        Check(SameFields(blob, second));
        // Rewriting narrows the fields; the result must walk again.
        if (ShrinkBlobFields(second) == BLOB_STATUS_SUCCESS) {
            WalkFields(second);
            Check(GetBlobPtr(second, &p, &n) == BLOB_STATUS_SUCCESS);
            std::vector<unsigned char> shrunk(p, p + n);
            _BLOB_INFO* third = nullptr;
            Check(CreateBlob(&third, shrunk.data(), shrunk.size(), false, BLOB_CREATE_DEFAULT) ==
                  BLOB_STATUS_SUCCESS);
            Check(SameFields(second, third));
            (void)ReleaseBlob(&third);
        }
        (void)ReleaseBlob(&second);
        (void)ReleaseBlob(&blob);
    } else {
        Check(blob == nullptr);
        Check(GetNumFields(other) == 0);
    }
    (void)ReleaseBlob(&other);
    return 0;
}
