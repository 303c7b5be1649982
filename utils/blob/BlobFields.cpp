// Untyped field operations: name look-up, the raw append, removal, lengths and names.
#include <algorithm>
#include <cstring>

#include "blob/blob_internal.h"

namespace TOLVEN {
namespace detail {

namespace {
inline unsigned char Fold(unsigned char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 32) : c;
}
}  // namespace

bool NamesEqual(const char* a, const char* b, size_t length) noexcept {
    for (size_t i = 0; i < length; ++i)
        if (Fold(static_cast<unsigned char>(a[i])) != Fold(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool FindField(const _BLOB_INFO* blob, const char* name, uint64_t* index) noexcept {
    if (name == nullptr || name[0] == 0) return false;
    const size_t length = std::strlen(name);
    const BlobFieldEntry* e = blob->fieldIndex;
    const char* base = reinterpret_cast<const char*>(blob->buffer);
    for (uint64_t i = 0, n = blob->fieldCount; i < n; ++i) {
        if (e[i].dataOffset - e[i].headerOffset != length + 2) continue;
        if (NamesEqual(base + e[i].headerOffset + 1, name, length)) {
            if (index != nullptr) *index = i;
            return true;
        }
    }
    return false;
}

blob_status GrowBuffer(_BLOB_INFO* blob, uint64_t newCapacity) noexcept {
    if (blob->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    if (blob->borrowedBuffer != 0) return BLOB_STATUS_BUFFER_TOO_SMALL;
    uint64_t capacity = 0;
    auto* block = static_cast<unsigned char*>(BlobAlloc(newCapacity, &capacity));
    if (block == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    std::memcpy(block, blob->buffer, UsedLength(blob));
    BlobFree(blob->buffer, blob->bufferCapacity);
    blob->buffer = block;
    blob->bufferCapacity = capacity;
    return BLOB_STATUS_SUCCESS;
}

blob_status GrowIndex(_BLOB_INFO* blob) noexcept {
    const uint64_t entries = std::max<uint64_t>(2, blob->fieldIndexCapacity * 3 / 2);
    uint64_t bytes = 0;
    auto* index = static_cast<BlobFieldEntry*>(BlobAlloc(entries * 12, &bytes));
    if (index == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    const uint64_t used = std::min(blob->fieldCount, blob->fieldIndexCapacity);
    if (used != 0) std::memcpy(index, blob->fieldIndex, static_cast<size_t>(used * 12));
    // An index in caller memory stays there; from now on the index is the pools'.
    if (blob->borrowedHandle == 0) BlobFree(blob->fieldIndex, blob->fieldIndexCapacity * 12);
    blob->borrowedHandle = 0;
    blob->fieldIndex = index;
    blob->fieldIndexCapacity = bytes / 12;
    return BLOB_STATUS_SUCCESS;
}

blob_status AppendField(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                        uint64_t* index, bool* found) noexcept {
    if (index != nullptr) *index = 0;
    if (found != nullptr) *found = false;
    const uint64_t nameLength = name != nullptr ? std::strlen(name) : 0;
    if (nameLength != 0 && blob->uniqueNames != 0) {
        uint64_t existing = 0;
        if (FindField(blob, name, &existing)) {
            if (index != nullptr) *index = existing;
            if (found != nullptr) *found = true;
            return BLOB_STATUS_SUCCESS;
        }
    }
    if (type < BLOB_FIELD_TYPE_STRING || type > BLOB_FIELD_TYPE_MAX)
        return BLOB_STATUS_INVALID_PARAMETER;
    uint64_t dataSize;
    if (type == BLOB_FIELD_TYPE_STRING || type == BLOB_FIELD_TYPE_BLOB ||
        type == BLOB_FIELD_TYPE_UTF16)
        dataSize = size;
    else if (type >= BLOB_FIELD_TYPE_INT8_ARRAY && type <= BLOB_FIELD_TYPE_BINARY)
        dataSize = size + 4;
    else
        dataSize = FixedTypeSize(type);
    if (dataSize == 0 && type != BLOB_FIELD_TYPE_MAX) return BLOB_STATUS_INVALID_PARAMETER;
    // The initial content must fit: an empty nested blob, a 0 unit.
    if ((type == BLOB_FIELD_TYPE_BLOB && dataSize < kBlobHeaderSize) ||
        (type == BLOB_FIELD_TYPE_UTF16 && dataSize < 2) ||
        (ArrayElementSize(type) != 0 && dataSize < size))
        return BLOB_STATUS_INVALID_PARAMETER;
    const uint32_t used = UsedLength(blob);
    const uint64_t needed = dataSize + 1 + (nameLength != 0 ? nameLength + 1 : 0);
    // Offsets and the length field are 32-bit.
    if (dataSize > UINT32_MAX || needed > uint64_t{UINT32_MAX} - used)
        return BLOB_STATUS_INVALID_PARAMETER;
    if (needed > blob->bufferCapacity - used) {
        const blob_status s =
            GrowBuffer(blob, blob->bufferCapacity + blob->bufferCapacity / 2 + needed);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    if (blob->fieldCount >= blob->fieldIndexCapacity) {
        const blob_status s = GrowIndex(blob);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    unsigned char* p = blob->buffer + used;
    BlobFieldEntry& e = blob->fieldIndex[blob->fieldCount];
    e.headerOffset = used;
    if (nameLength != 0) {
        *p++ = static_cast<unsigned char>(type | 0x80);
        std::memcpy(p, name, static_cast<size_t>(nameLength) + 1);
        p += nameLength + 1;
    } else {
        *p++ = static_cast<unsigned char>(type);
    }
    e.dataOffset = static_cast<uint32_t>(p - blob->buffer);
    e.dataSize = static_cast<uint32_t>(dataSize);
    SetHeaderLength(blob->buffer, static_cast<uint32_t>(used + needed));
    std::memset(p, 0xFF, static_cast<size_t>(dataSize));
    switch (type) {
        case BLOB_FIELD_TYPE_STRING:
            p[0] = 0;
            break;
        case BLOB_FIELD_TYPE_BLOB:
            p[0] = 2;
            StoreAt<uint32_t>(p + 1, static_cast<uint32_t>(kBlobHeaderSize));
            break;
        case BLOB_FIELD_TYPE_UTF16:
            p[0] = p[1] = 0;
            break;
        default:
            if (type >= BLOB_FIELD_TYPE_INT8_ARRAY && type <= BLOB_FIELD_TYPE_BINARY)
                StoreAt<uint32_t>(p, 0);
            break;
    }
    if (index != nullptr) *index = blob->fieldCount;
    ++blob->fieldCount;
    return BLOB_STATUS_SUCCESS;
}

blob_status StoreVariable(_BLOB_INFO* blob, uint64_t index, const void* data, uint64_t n,
                          uint32_t zeros) noexcept {
    BlobFieldEntry* e = &blob->fieldIndex[index];
    if (n > e->dataSize) {
        const uint32_t used = UsedLength(blob);
        const uint64_t slack = blob->bufferCapacity - used + e->dataSize;
        const uint64_t diff = n - e->dataSize;
        if (diff > uint64_t{UINT32_MAX} - used) return BLOB_STATUS_INVALID_PARAMETER;
        if (n > slack) {
            const blob_status s =
                GrowBuffer(blob, blob->bufferCapacity + blob->bufferCapacity / 2 + slack + n);
            if (s != BLOB_STATUS_SUCCESS) return s;
            e = &blob->fieldIndex[index];
        }
        const uint64_t end = uint64_t{e->dataOffset} + e->dataSize;
        std::memmove(blob->buffer + end + diff, blob->buffer + end,
                     static_cast<size_t>(used - end));
        e->dataSize = static_cast<uint32_t>(n);
        for (uint64_t i = index + 1; i < blob->fieldCount; ++i) {
            blob->fieldIndex[i].headerOffset += static_cast<uint32_t>(diff);
            blob->fieldIndex[i].dataOffset += static_cast<uint32_t>(diff);
        }
        SetHeaderLength(blob->buffer, static_cast<uint32_t>(used + diff));
    }
    unsigned char* p = blob->buffer + e->dataOffset;
    std::memcpy(p, data, static_cast<size_t>(n - zeros));
    std::memset(p + (n - zeros), 0, zeros);
    // The whole rest of the room becomes padding. Stopping at the first 0xFF already there
    // would leave the tail of an old value behind whenever that value itself held a 0xFF
    // byte (a UTF-16 unit such as 0x00FF, a nested blob's -1), and the buffer would no
    // longer walk.
    if (e->dataSize > n) std::memset(p + n, 0xFF, static_cast<size_t>(e->dataSize - n));
    return BLOB_STATUS_SUCCESS;
}

}  // namespace detail

using namespace detail;

uint64_t GetNumFields(const _BLOB_INFO* blob) {
    if (blob == nullptr) return 0;
    BlobReadGuard guard(blob);
    return blob->fieldCount;
}

blob_status GetFieldNumber(const _BLOB_INFO* blob, const char* name, uint64_t* index) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    return FindField(blob, name, index) ? BLOB_STATUS_SUCCESS : BLOB_STATUS_ITEM_NOT_FOUND;
}

int IsFieldPresent(const _BLOB_INFO* blob, const char* name) {
    if (blob == nullptr) return 0;
    BlobReadGuard guard(blob);
    return FindField(blob, name, nullptr) ? 1 : 0;
}

int IsItemPresent(const _BLOB_INFO* blob, uint64_t index) {
    if (blob == nullptr) return 0;
    BlobReadGuard guard(blob);
    return index < blob->fieldCount ? 1 : 0;
}

blob_field_type GetFieldType(const _BLOB_INFO* blob, uint64_t index) {
    if (blob == nullptr) return BLOB_FIELD_TYPE_UNDEFINED;
    BlobReadGuard guard(blob);
    if (index >= blob->fieldCount) return BLOB_FIELD_TYPE_UNDEFINED;
    return EntryType(blob, blob->fieldIndex[index]);
}

blob_status GetFieldLen(const _BLOB_INFO* blob, uint64_t index, uint64_t* length) {
    if (blob == nullptr || length == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    if (index >= blob->fieldCount) {
        *length = 0;
        return BLOB_STATUS_ITEM_NOT_FOUND;
    }
    const BlobFieldEntry& e = blob->fieldIndex[index];
    const unsigned char* data = blob->buffer + e.dataOffset;
    const uint32_t type = EntryType(blob, e);
    if (type == BLOB_FIELD_TYPE_STRING || type == BLOB_FIELD_TYPE_UTF16) {
        // The padding is the run of 0xFF at the end of the room; byte 0 is never padding.
        for (uint64_t i = e.dataSize; i-- > 1;) {
            if (data[i] != 0xFF) {
                *length = type == BLOB_FIELD_TYPE_UTF16 ? (i + 1) / 2 : i + 1;
                break;
            }
        }
    } else if (type == BLOB_FIELD_TYPE_BLOB) {
        *length = HeaderLength(data);
    } else if (ArrayElementSize(type) != 0) {
        *length = LoadAt<uint32_t>(data);
    } else {
        *length = e.dataSize;
    }
    return BLOB_STATUS_SUCCESS;
}

blob_status GetFieldDescription(const _BLOB_INFO* blob, uint64_t index, char* name,
                                uint64_t* length) {
    if (blob == nullptr || name == nullptr || length == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const BlobFieldEntry& e = blob->fieldIndex[index];
    if (e.dataOffset - e.headerOffset <= 1) return BLOB_STATUS_ITEM_NOT_FOUND;
    if (*length == 0) return BLOB_STATUS_BUFFER_TOO_SMALL;
    const uint64_t nameLength = EntryNameLength(e);
    const uint64_t taken = std::min(nameLength + 1, *length - 1);
    const uint64_t copied = std::min(taken, nameLength);
    std::memcpy(name, blob->buffer + e.headerOffset + 1, static_cast<size_t>(copied));
    name[copied] = 0;
    name[taken] = 0;
    *length = taken;
    return BLOB_STATUS_SUCCESS;
}

blob_status GetFieldDescriptionPtr(const _BLOB_INFO* blob, uint64_t index, const char** name) {
    if (blob == nullptr || name == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const BlobFieldEntry& e = blob->fieldIndex[index];
    if (e.dataOffset - e.headerOffset <= 1) {
        *name = nullptr;
        return BLOB_STATUS_ITEM_NOT_FOUND;
    }
    *name = reinterpret_cast<const char*>(blob->buffer + e.headerOffset + 1);
    return BLOB_STATUS_SUCCESS;
}

blob_status AddField(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                     uint64_t* index) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    return AppendField(blob, name, type, size, index, nullptr);
}

blob_status RemoveField(_BLOB_INFO* blob, uint64_t index) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    if (blob->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const uint32_t used = UsedLength(blob);
    const uint32_t start = blob->fieldIndex[index].headerOffset;
    const bool last = index + 1 == blob->fieldCount;
    const uint32_t next = last ? used : blob->fieldIndex[index + 1].headerOffset;
    const uint32_t removed = next - start;
    --blob->fieldCount;
    if (!last) {
        std::memmove(blob->buffer + start, blob->buffer + next, used - next);
        for (uint64_t i = index; i < blob->fieldCount; ++i) {
            BlobFieldEntry e = blob->fieldIndex[i + 1];
            e.headerOffset -= removed;
            e.dataOffset -= removed;
            blob->fieldIndex[i] = e;
        }
    }
    SetHeaderLength(blob->buffer, used - removed);
    return BLOB_STATUS_SUCCESS;
}

blob_status RemoveFieldByName(_BLOB_INFO* blob, const char* name) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    uint64_t index = 0;
    if (!FindField(blob, name, &index)) return BLOB_STATUS_ITEM_NOT_FOUND;
    return RemoveField(blob, index);
}

}  // namespace TOLVEN
