// The walk that turns serialised bytes into a blob, checked against the buffer's length at
// every read: CreateBlob from bytes and SetBlobPtr.
#include <cstring>

#include "blob/blob_internal.h"

namespace TOLVEN {
namespace detail {
namespace {

// The store of a walk that only checks.
struct CheckOnly {
    blob_status operator()(uint32_t, uint32_t, uint64_t) const noexcept {
        return BLOB_STATUS_SUCCESS;
    }
};

// Walks the fields of `b` from offset 5 to `end` (the header's length, already known to lie
// within the bytes). `store(headerOffset, dataOffset, dataSize)` receives each field and
// answers a status; nested blobs are checked down to kMaxBlobDepth levels below `depth`.
template <typename Store>
blob_status Walk(const unsigned char* b, uint32_t end, unsigned depth, Store&& store) noexcept {
    uint64_t pos = kBlobHeaderSize;
    while (pos < end) {
        const uint32_t headerOffset = static_cast<uint32_t>(pos);
        const unsigned char typeByte = b[pos++];
        if ((typeByte & 0x80) != 0) {
            const unsigned char* nul = FindNul(b + pos, end - pos);
            if (nul == nullptr) return BLOB_STATUS_INVALID_BLOB;
            pos = nul - b + 1;
        }
        if (pos >= end) return BLOB_STATUS_INVALID_BLOB;
        const uint32_t dataOffset = static_cast<uint32_t>(pos);
        const unsigned char* data = b + pos;
        const uint64_t room = end - pos;
        const uint32_t type = typeByte & 0x7F;
        uint64_t size = FixedTypeSize(type);
        if (type == BLOB_FIELD_TYPE_STRING) {
            const unsigned char* nul = FindNul(data, room);
            if (nul == nullptr) return BLOB_STATUS_INVALID_BLOB;
            size = nul - data + 1;
        } else if (type == BLOB_FIELD_TYPE_UTF16) {
            uint64_t i = 0;
            while (i + 1 < room && (data[i] != 0 || data[i + 1] != 0))
                i += 2;
            if (i + 1 >= room) return BLOB_STATUS_INVALID_BLOB;
            size = i + 2;
        } else if (type == BLOB_FIELD_TYPE_BLOB) {
            if (room < kBlobHeaderSize) return BLOB_STATUS_INVALID_BLOB;
            size = HeaderLength(data);
            if (size < kBlobHeaderSize || size > room) return BLOB_STATUS_INVALID_BLOB;
            if (depth + 1 > kMaxBlobDepth || Walk(data, static_cast<uint32_t>(size), depth + 1,
                                                  CheckOnly{}) != BLOB_STATUS_SUCCESS)
                return BLOB_STATUS_INVALID_BLOB;
        } else if (const uint32_t element = ArrayElementSize(type); element != 0) {
            if (room < 4) return BLOB_STATUS_INVALID_BLOB;
            size = 4 + uint64_t{LoadAt<uint32_t>(data)} * element;
        }
        if (size == 0 || size > room) return BLOB_STATUS_INVALID_BLOB;
        pos += size;
        if (IsVariableType(type))
            while (pos < end && b[pos] == 0xFF) {
                ++pos;
                ++size;
            }
        const blob_status s = store(headerOffset, dataOffset, size);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    return BLOB_STATUS_SUCCESS;
}

}  // namespace

blob_status WalkBuffer(_BLOB_INFO* blob) noexcept {
    blob->fieldCount = 0;
    const uint32_t end = HeaderLength(blob->buffer);
    if (end < kBlobHeaderSize) return BLOB_STATUS_INVALID_BLOB;
    const blob_status s =
        Walk(blob->buffer, end, 0, [blob](uint32_t h, uint32_t d, uint64_t n) noexcept {
            if (blob->fieldCount >= blob->fieldIndexCapacity) {
                const blob_status g = GrowIndex(blob);
                if (g != BLOB_STATUS_SUCCESS) return g;
            }
            blob->fieldIndex[blob->fieldCount++] = BlobFieldEntry{h, d, static_cast<uint32_t>(n)};
            return BLOB_STATUS_SUCCESS;
        });
    if (s != BLOB_STATUS_SUCCESS) blob->fieldCount = 0;
    return s;
}

blob_status FindInBuffer(const unsigned char* bytes, uint64_t length, const char* name,
                         BlobFieldEntry* entry) noexcept {
    if (bytes == nullptr || length <= kBlobHeaderSize) return BLOB_STATUS_ITEM_NOT_FOUND;
    const uint32_t end = HeaderLength(bytes);
    if (end <= kBlobHeaderSize) return BLOB_STATUS_ITEM_NOT_FOUND;
    if (end > length) return BLOB_STATUS_INVALID_BUFFER_LENGTH;
    if (name == nullptr || name[0] == 0) return BLOB_STATUS_ITEM_NOT_FOUND;
    const size_t nameLength = std::strlen(name);
    bool found = false;
    // The walk stops at the first status that is not success: a match answers with one
    // that the walk itself never gives.
    const blob_status s = Walk(bytes, end, 0, [&](uint32_t h, uint32_t d, uint64_t n) noexcept {
        if (d - h != nameLength + 2 ||
            !NamesEqual(reinterpret_cast<const char*>(bytes + h + 1), name, nameLength))
            return BLOB_STATUS_SUCCESS;
        *entry = BlobFieldEntry{h, d, static_cast<uint32_t>(n)};
        found = true;
        return BLOB_STATUS_FIELD_ALREADY_SET;
    });
    if (found) return BLOB_STATUS_SUCCESS;
    return s != BLOB_STATUS_SUCCESS ? s : BLOB_STATUS_ITEM_NOT_FOUND;
}

bool ValidateBuffer(const unsigned char* bytes, uint64_t length, unsigned depth) noexcept {
    if (bytes == nullptr || length < kBlobHeaderSize || depth > kMaxBlobDepth) return false;
    const uint32_t end = HeaderLength(bytes);
    if (end < kBlobHeaderSize || end > length) return false;
    return Walk(bytes, end, depth, CheckOnly{}) == BLOB_STATUS_SUCCESS;
}

}  // namespace detail

using namespace detail;

blob_status CreateBlob(_BLOB_INFO** out, const unsigned char* bytes, uint64_t length, bool copy,
                       blob_create_option option) {
    if (out == nullptr || bytes == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    // Five bytes are needed to read the length field at all.
    if (length < kBlobHeaderSize) return BLOB_STATUS_INVALID_BUFFER_LENGTH;
    const uint32_t total = HeaderLength(bytes);
    if (total > length) return BLOB_STATUS_INVALID_BUFFER_LENGTH;
    if (total < kBlobHeaderSize) return BLOB_STATUS_INVALID_BLOB;
    _BLOB_INFO* blob = NewHandle(option, kDefaultIndexEntries);
    if (blob == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    if (copy) {
        blob->buffer = static_cast<unsigned char*>(BlobAlloc(total, &blob->bufferCapacity));
        if (blob->buffer == nullptr) {
            FreeHandle(blob);
            return BLOB_STATUS_OUT_OF_MEMORY;
        }
        std::memcpy(blob->buffer, bytes, total);
    } else {
        blob->buffer = const_cast<unsigned char*>(bytes);
        blob->bufferCapacity = length;
        blob->borrowedBuffer = 1;
    }
    const blob_status s = WalkBuffer(blob);
    if (s != BLOB_STATUS_SUCCESS) {
        FreeHandle(blob);
        return s;
    }
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

blob_status SetBlobPtr(_BLOB_INFO* blob, const unsigned char* bytes, uint64_t length) {
    if (blob == nullptr || bytes == nullptr || length < kBlobHeaderSize)
        return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    const uint32_t total = HeaderLength(bytes);
    if (total > length) return BLOB_STATUS_INVALID_BUFFER_LENGTH;
    // A length field below the header's own size would let appends overwrite the header.
    if (total < kBlobHeaderSize) return BLOB_STATUS_INVALID_BLOB;
    if (blob->borrowedBuffer == 0 && blob->buffer != bytes)
        BlobFree(blob->buffer, blob->bufferCapacity);
    blob->buffer = const_cast<unsigned char*>(bytes);
    blob->bufferCapacity = length;
    blob->borrowedBuffer = 1;
    return WalkBuffer(blob);
}

}  // namespace TOLVEN
