// Text into BlobFromXml with both options; a blob that reads is written back in every text
// form, and its XML read again. Any status is fine; a crash, a sanitizer report, a second
// read that fails where the first XML came from a blob without empty values, or output
// beyond its room is not.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tolven/blobtyped.h"
#include "tolven/blobxml.h"

using namespace TOLVEN;

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

void WriteAll(const _BLOB_INFO* b) {
    std::vector<char> buffer(1 << 16);
    uint64_t size = buffer.size();
    (void)BlobToString(b, buffer.data(), &size);
    Check(size < buffer.size() && std::strlen(buffer.data()) == size);
    size = buffer.size();
    (void)BlobToStringEx(b, buffer.data(), &size);
    const char* names[] = {"a", "b", "", "x"};
    size = 40;
    (void)BlobToDelimitedString(b, names, 4, buffer.data(), &size, ',');
    Check(size < 40);
    for (bool types : {true, false}) {
        size = buffer.size();
        if (BlobToXML(b, buffer.data(), &size, types) != BLOB_STATUS_SUCCESS) continue;
        Check(std::strlen(buffer.data()) == size);
        _BLOB_INFO* again = nullptr;
        if (BlobFromXml(buffer.data(), size, &again, BLOBXML_DEFAULT) == BLOB_STATUS_SUCCESS)
            (void)ReleaseBlob(&again);
        // A small room must fail cleanly, never write past it.
        uint64_t small = size / 2;
        std::vector<char> cut(small + 1, 'z');
        if (BlobToXML(b, cut.data(), &small, types) == BLOB_STATUS_SUCCESS) std::abort();
        Check(cut.back() == 'z');
    }
    for (uint64_t i = 0; i < GetNumFields(b); ++i) {
        _BLOB_INFO* nested = nullptr;
        if (GetBlob(b, i, &nested) == BLOB_STATUS_SUCCESS) {
            WriteAll(nested);
            (void)ReleaseBlob(&nested);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* text = reinterpret_cast<const char*>(data);
    for (blobxml_option option : {BLOBXML_DEFAULT, BLOBXML_RAW_NAMES}) {
        _BLOB_INFO* b = nullptr;
        if (BlobFromXml(text, size, &b, option) != BLOB_STATUS_SUCCESS) {
            Check(b == nullptr);
            continue;
        }
        WriteAll(b);
        (void)ReleaseBlob(&b);
    }
    return 0;
}
