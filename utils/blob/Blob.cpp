// Blob lifecycle: creation, copy, release, swap, shrinking and the blob lock.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "blob/blob_internal.h"
#include "platform/thread.h"
#include "tolven/blobtime.h"

namespace TOLVEN {
namespace detail {

// ---- the lock ----

namespace {

inline std::atomic_ref<uint32_t> SpinWord(const _BLOB_INFO* blob) noexcept {
    return std::atomic_ref<uint32_t>(const_cast<BlobLock&>(blob->lock).spin);
}
inline BlobLock& LockOf(const _BLOB_INFO* blob) noexcept {
    return const_cast<BlobLock&>(blob->lock);
}
inline void TakeSpin(const _BLOB_INFO* blob) noexcept {
    std::atomic_ref<uint32_t> spin = SpinWord(blob);
    for (;;) {
        uint32_t expected = 0;
        if (spin.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                       std::memory_order_relaxed))
            return;
        platform::CpuRelax();
    }
}
inline void DropSpin(const _BLOB_INFO* blob) noexcept {
    SpinWord(blob).store(0, std::memory_order_release);
}

}  // namespace

void LockRead(const _BLOB_INFO* blob) noexcept {
    const uint32_t self = platform::CurrentThreadId();
    BlobLock& l = LockOf(blob);
    for (;;) {
        TakeSpin(blob);
        if (l.writers == 0 || l.writerThread == self) {
            ++l.readers;
            DropSpin(blob);
            return;
        }
        DropSpin(blob);
        platform::CpuRelax();
    }
}

void UnlockRead(const _BLOB_INFO* blob) noexcept {
    BlobLock& l = LockOf(blob);
    TakeSpin(blob);
    if (l.readers != 0) --l.readers;
    DropSpin(blob);
}

void LockWrite(const _BLOB_INFO* blob) noexcept {
    const uint32_t self = platform::CurrentThreadId();
    BlobLock& l = LockOf(blob);
    for (;;) {
        TakeSpin(blob);
        if (l.writers == 0 && l.readers == 0) {
            l.writers = 1;
            l.writerThread = self;
            DropSpin(blob);
            return;
        }
        if (l.writers != 0 && l.writerThread == self) {
            ++l.writers;
            DropSpin(blob);
            return;
        }
        DropSpin(blob);
        platform::CpuRelax();
    }
}

void UnlockWrite(const _BLOB_INFO* blob) noexcept {
    BlobLock& l = LockOf(blob);
    TakeSpin(blob);
    if (l.writers != 0 && --l.writers == 0) l.writerThread = 0;
    DropSpin(blob);
}

// ---- handles ----

namespace {
inline uint64_t HandleSize(const _BLOB_INFO* blob) noexcept {
    return HasLock(blob) ? kBlobLockedHandleSize : kBlobHandleSize;
}
}  // namespace

_BLOB_INFO* NewHandle(blob_create_option option, uint64_t indexEntries) noexcept {
    const uint64_t size = (option & 2) != 0 ? kBlobLockedHandleSize : kBlobHandleSize;
    uint64_t capacity = 0;
    auto* blob = static_cast<_BLOB_INFO*>(BlobAlloc(size, &capacity));
    if (blob == nullptr) return nullptr;
    std::memset(static_cast<void*>(blob), 0, static_cast<size_t>(size));
    blob->refCount = 1;
    blob->options = static_cast<uint8_t>(option);
    blob->uniqueNames = option != BLOB_CREATE_ALLOW_DUPLICATES ? 1 : 0;
    uint64_t indexBytes = 0;
    blob->fieldIndex = static_cast<BlobFieldEntry*>(BlobAlloc(indexEntries * 12, &indexBytes));
    if (blob->fieldIndex == nullptr) {
        BlobFree(blob, size);
        return nullptr;
    }
    blob->fieldIndexCapacity = indexBytes / 12;
    return blob;
}

void FreeHandle(_BLOB_INFO* blob) noexcept {
    if (blob->borrowedHandle == 0) BlobFree(blob->fieldIndex, blob->fieldIndexCapacity * 12);
    if (blob->borrowedBuffer == 0) BlobFree(blob->buffer, blob->bufferCapacity);
    if (blob->fixedHandle == 0) BlobFree(blob, HandleSize(blob));
}

namespace {

// Exchanges the contents of two blobs; counts, modes, options, locks and the place of the
// handle stay.
void SwapContents(_BLOB_INFO* a, _BLOB_INFO* b) noexcept {
    std::swap(a->buffer, b->buffer);
    std::swap(a->bufferCapacity, b->bufferCapacity);
    std::swap(a->borrowedBuffer, b->borrowedBuffer);
    std::swap(a->borrowedHandle, b->borrowedHandle);
    std::swap(a->fieldIndex, b->fieldIndex);
    std::swap(a->fieldCount, b->fieldCount);
    std::swap(a->fieldIndexCapacity, b->fieldIndexCapacity);
}

// Integer value of a field of an integer type, sign- or zero-extended.
int64_t LoadSigned(const unsigned char* p, uint32_t type) noexcept {
    switch (type) {
        case BLOB_FIELD_TYPE_INT16:
            return LoadAt<int16_t>(p);
        case BLOB_FIELD_TYPE_INT32:
            return LoadAt<int32_t>(p);
        default:
            return LoadAt<int64_t>(p);
    }
}
uint64_t LoadUnsigned(const unsigned char* p, uint32_t type) noexcept {
    switch (type) {
        case BLOB_FIELD_TYPE_UINT16:
            return LoadAt<uint16_t>(p);
        case BLOB_FIELD_TYPE_UINT32:
            return LoadAt<uint32_t>(p);
        default:
            return LoadAt<uint64_t>(p);
    }
}

// Appends a field of `type` and `size` to `blob` and copies `n` bytes of `data` into it.
blob_status AppendCopy(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                       const void* data, uint64_t n) noexcept {
    uint64_t index = 0;
    bool found = false;
    blob_status s = AppendField(blob, name, type, size, &index, &found);
    if (s != BLOB_STATUS_SUCCESS) return s;
    const BlobFieldEntry& e = blob->fieldIndex[index];
    std::memcpy(blob->buffer + e.dataOffset, data,
                static_cast<size_t>(std::min<uint64_t>(n, e.dataSize)));
    return BLOB_STATUS_SUCCESS;
}

blob_status ShrinkFields(_BLOB_INFO* blob, unsigned depth) noexcept {
    if (depth > kMaxBlobDepth) return BLOB_STATUS_INVALID_BLOB;
    _BLOB_INFO* temp = nullptr;
    blob_status s =
        CreateBlob(&temp, UsedLength(blob), static_cast<blob_create_option>(blob->options));
    if (s != BLOB_STATUS_SUCCESS) return s;
    // Field for field: a name that occurs twice stays twice.
    temp->uniqueNames = 0;
    for (uint64_t i = 0; i < blob->fieldCount && s == BLOB_STATUS_SUCCESS; ++i) {
        const BlobFieldEntry e = blob->fieldIndex[i];
        const uint32_t type = EntryType(blob, e);
        const unsigned char* data = blob->buffer + e.dataOffset;
        const char* name = e.dataOffset - e.headerOffset > 1
                               ? reinterpret_cast<const char*>(blob->buffer + e.headerOffset + 1)
                               : nullptr;
        switch (type) {
            case BLOB_FIELD_TYPE_STRING: {
                const void* nul = std::memchr(data, 0, e.dataSize);
                const uint64_t len =
                    nul != nullptr ? static_cast<const unsigned char*>(nul) - data : e.dataSize;
                s = AppendCopy(temp, name, BLOB_FIELD_TYPE_STRING, len + 1, data, len);
                if (s == BLOB_STATUS_SUCCESS) {
                    const BlobFieldEntry& t = temp->fieldIndex[temp->fieldCount - 1];
                    temp->buffer[t.dataOffset + len] = 0;
                }
                break;
            }
            case BLOB_FIELD_TYPE_INT16:
            case BLOB_FIELD_TYPE_INT32:
            case BLOB_FIELD_TYPE_INT64: {
                const int64_t v = LoadSigned(data, type);
                if (v >= INT8_MIN && v <= INT8_MAX) {
                    const int8_t x = static_cast<int8_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_INT8, 1, &x, 1);
                } else if (v >= INT16_MIN && v <= INT16_MAX) {
                    const int16_t x = static_cast<int16_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_INT16, 2, &x, 2);
                } else if (v >= INT32_MIN && v <= INT32_MAX) {
                    const int32_t x = static_cast<int32_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_INT32, 4, &x, 4);
                } else {
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_INT64, 8, &v, 8);
                }
                break;
            }
            case BLOB_FIELD_TYPE_UINT16:
            case BLOB_FIELD_TYPE_UINT32:
            case BLOB_FIELD_TYPE_UINT64: {
                const uint64_t v = LoadUnsigned(data, type);
                if (v <= UINT8_MAX) {
                    const uint8_t x = static_cast<uint8_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_UINT8, 1, &x, 1);
                } else if (v <= UINT16_MAX) {
                    const uint16_t x = static_cast<uint16_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_UINT16, 2, &x, 2);
                } else if (v <= UINT32_MAX) {
                    const uint32_t x = static_cast<uint32_t>(v);
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_UINT32, 4, &x, 4);
                } else {
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_UINT64, 8, &v, 8);
                }
                break;
            }
            case BLOB_FIELD_TYPE_BLOB: {
                _BLOB_INFO* nested = nullptr;
                s = CreateBlob(&nested, data, e.dataSize, true, BLOB_CREATE_DEFAULT);
                if (s != BLOB_STATUS_SUCCESS) break;
                s = ShrinkFields(nested, depth + 1);
                if (s == BLOB_STATUS_SUCCESS)
                    s = AppendCopy(temp, name, BLOB_FIELD_TYPE_BLOB, UsedLength(nested),
                                   nested->buffer, UsedLength(nested));
                (void)ReleaseBlob(&nested);
                break;
            }
            default:
                // The raw add with the room as its size, then the room byte for byte.
                s = AppendCopy(temp, name, static_cast<blob_field_type>(type), e.dataSize, data,
                               e.dataSize);
                break;
        }
    }
    if (s == BLOB_STATUS_SUCCESS) SwapContents(blob, temp);
    (void)ReleaseBlob(&temp);
    return s;
}

// The block size that a request of `n` bytes gets.
uint64_t BlockSizeFor(uint64_t n) noexcept {
    static constexpr uint64_t sizes[] = {56, 64, 72, 256, 384, 512, 768, 1024, 2048};
    for (uint64_t s : sizes)
        if (s >= n) return s;
    return n;
}

// One draw of the random generator: (32767 - r) / 32767 scaled by `factor`, cut. The raw
// value is kept to 15 bits on every platform.
int Draw(int factor) noexcept {
    const int r = std::rand() & 0x7FFF;
    return static_cast<int>((32767.0 - r) / 32767.0 * factor);
}

blob_status RandomBlob(_BLOB_INFO** out, blob_create_option option, int depth) noexcept {
    blob_status s = CreateBlob(out, option);
    if (s != BLOB_STATUS_SUCCESS) return s;
    _BLOB_INFO* blob = *out;
    const int fields = Draw(64);
    for (int f = 0; f < fields; ++f) {
        char name[56];
        do {
            const int len = std::clamp(Draw(55), 1, 54);
            for (int i = 0; i < len; ++i)
                name[i] = static_cast<char>(32 + Draw(50));
            name[len] = 0;
        } while (IsFieldPresent(blob, name) != 0);
        const int type = Draw(25);
        const int r = std::rand();
        unsigned char value[16];
        switch (type) {
            case BLOB_FIELD_TYPE_STRING: {
                char text[256];
                const int len = std::clamp(Draw(254), 1, 254);
                for (int i = 0; i < len; ++i)
                    text[i] = static_cast<char>(32 + Draw(50));
                text[len] = 0;
                s = AppendCopy(blob, name, BLOB_FIELD_TYPE_STRING, len + 1, text, len + 1);
                break;
            }
            case BLOB_FIELD_TYPE_BOOL:
                value[0] = 1;
                s = AppendCopy(blob, name, BLOB_FIELD_TYPE_BOOL, 1, value, 1);
                break;
            case BLOB_FIELD_TYPE_INT8:
            case BLOB_FIELD_TYPE_UINT8:
                value[0] = static_cast<unsigned char>(r);
                s = AppendCopy(blob, name, static_cast<blob_field_type>(type), 1, value, 1);
                break;
            case BLOB_FIELD_TYPE_INT16:
            case BLOB_FIELD_TYPE_UINT16:
                StoreAt<uint16_t>(value, static_cast<uint16_t>(r));
                s = AppendCopy(blob, name, static_cast<blob_field_type>(type), 2, value, 2);
                break;
            case BLOB_FIELD_TYPE_INT32:
            case BLOB_FIELD_TYPE_UINT32:
                StoreAt<int32_t>(value, r);
                s = AppendCopy(blob, name, static_cast<blob_field_type>(type), 4, value, 4);
                break;
            case BLOB_FIELD_TYPE_INT64:
            case BLOB_FIELD_TYPE_UINT64:
                StoreAt<int64_t>(value, r);
                s = AppendCopy(blob, name, static_cast<blob_field_type>(type), 8, value, 8);
                break;
            case BLOB_FIELD_TYPE_FLOAT32:
                StoreAt<float>(value, static_cast<float>(r));
                s = AppendCopy(blob, name, BLOB_FIELD_TYPE_FLOAT32, 4, value, 4);
                break;
            case BLOB_FIELD_TYPE_FLOAT64:
                StoreAt<double>(value, static_cast<double>(r));
                s = AppendCopy(blob, name, BLOB_FIELD_TYPE_FLOAT64, 8, value, 8);
                break;
            case BLOB_FIELD_TYPE_BLOB:
                if (depth < 10) {
                    _BLOB_INFO* nested = nullptr;
                    s = RandomBlob(&nested, option, depth + 1);
                    if (s == BLOB_STATUS_SUCCESS)
                        s = AppendCopy(blob, name, BLOB_FIELD_TYPE_BLOB, UsedLength(nested),
                                       nested->buffer, UsedLength(nested));
                    (void)ReleaseBlob(&nested);
                }
                break;
            case BLOB_FIELD_TYPE_TIMESTAMP: {
                _blob_timestamp now{};
                (void)GetCurrentBlobTime(&now);
                s = AppendCopy(blob, name, BLOB_FIELD_TYPE_TIMESTAMP, 16, &now, 16);
                break;
            }
            default:
                break;
        }
        if (s != BLOB_STATUS_SUCCESS) {
            (void)ReleaseBlob(out);
            return s;
        }
    }
    return BLOB_STATUS_SUCCESS;
}

}  // namespace
}  // namespace detail

using namespace detail;

// ---- creation ----

blob_status CreateBlob(_BLOB_INFO** out, blob_create_option option) {
    return CreateBlob(out, kDefaultBufferSize, option);
}

blob_status CreateBlob(_BLOB_INFO** out, uint64_t size, blob_create_option option) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    _BLOB_INFO* blob = NewHandle(option, kDefaultIndexEntries);
    if (blob == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    blob->buffer = static_cast<unsigned char*>(
        BlobAlloc(std::max(size, kBlobHeaderSize), &blob->bufferCapacity));
    if (blob->buffer == nullptr) {
        FreeHandle(blob);
        return BLOB_STATUS_OUT_OF_MEMORY;
    }
    WriteHeader(blob->buffer, static_cast<uint32_t>(kBlobHeaderSize));
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

blob_status CreateBlob(_BLOB_INFO** out, const _BLOB_INFO* source, blob_create_option option) {
    if (out == nullptr || source == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    BlobReadGuard guard(source);
    _BLOB_INFO* blob = NewHandle(option, source->fieldIndexCapacity);
    if (blob == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    const uint32_t used = UsedLength(source);
    blob->buffer = static_cast<unsigned char*>(
        BlobAlloc(std::max<uint64_t>(source->bufferCapacity, used), &blob->bufferCapacity));
    if (blob->buffer == nullptr) {
        FreeHandle(blob);
        return BLOB_STATUS_OUT_OF_MEMORY;
    }
    std::memcpy(blob->buffer, source->buffer, used);
    if (source->fieldCount != 0)
        std::memcpy(blob->fieldIndex, source->fieldIndex,
                    static_cast<size_t>(source->fieldCount * sizeof(BlobFieldEntry)));
    blob->fieldCount = source->fieldCount;
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

blob_status CreateFixedBlob(_BLOB_INFO** out, unsigned char* memory, uint64_t size,
                            uint32_t maxFields, bool inPlace, blob_create_option option) {
    if (out == nullptr || memory == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    _BLOB_INFO* blob;
    if (inPlace) {
        // The handle holds 64-bit words: start it on an 8-byte boundary inside the memory.
        const uint64_t skip = (8 - reinterpret_cast<uintptr_t>(memory) % 8) % 8;
        const uint64_t handleSize = (option & 2) != 0 ? kBlobLockedHandleSize : kBlobHandleSize;
        const uint64_t indexSize = uint64_t{maxFields} * sizeof(BlobFieldEntry);
        if (size < skip + handleSize || size - skip - handleSize < indexSize ||
            size - skip - handleSize - indexSize < kBlobHeaderSize)
            return BLOB_STATUS_BUFFER_TOO_SMALL;
        blob = reinterpret_cast<_BLOB_INFO*>(memory + skip);
        std::memset(static_cast<void*>(blob), 0, static_cast<size_t>(handleSize));
        blob->refCount = 1;
        blob->options = static_cast<uint8_t>(option);
        blob->uniqueNames = option != BLOB_CREATE_ALLOW_DUPLICATES ? 1 : 0;
        blob->borrowedHandle = 1;
        blob->fixedHandle = 1;
        blob->fieldIndex = reinterpret_cast<BlobFieldEntry*>(memory + skip + handleSize);
        blob->fieldIndexCapacity = maxFields;
        blob->buffer = memory + skip + handleSize + indexSize;
        blob->bufferCapacity = size - skip - handleSize - indexSize;
    } else {
        if (size < kBlobHeaderSize) return BLOB_STATUS_BUFFER_TOO_SMALL;
        blob = NewHandle(option, kDefaultIndexEntries);
        if (blob == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        blob->buffer = memory;
        blob->bufferCapacity = size;
    }
    blob->borrowedBuffer = 1;
    WriteHeader(blob->buffer, static_cast<uint32_t>(kBlobHeaderSize));
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

blob_status CreateRandomBlob(_BLOB_INFO** out, blob_create_option option) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    return RandomBlob(out, option, 0);
}

blob_status CopyBlob(_BLOB_INFO* target, const _BLOB_INFO* source) {
    if (target == nullptr || source == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard targetGuard(target);
    BlobReadGuard sourceGuard(source);
    if (target->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    if (target == source) return BLOB_STATUS_SUCCESS;
    const uint32_t used = UsedLength(source);
    if (target->bufferCapacity < used) {
        if (target->borrowedBuffer != 0) return BLOB_STATUS_BUFFER_TOO_SMALL;
        uint64_t capacity = 0;
        auto* block = static_cast<unsigned char*>(BlobAlloc(used, &capacity));
        if (block == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        block[0] = target->buffer[0];
        BlobFree(target->buffer, target->bufferCapacity);
        target->buffer = block;
        target->bufferCapacity = capacity;
    }
    if (target->fieldIndexCapacity <= source->fieldCount) {
        uint64_t bytes = 0;
        auto* index = static_cast<BlobFieldEntry*>(BlobAlloc(source->fieldCount * 12, &bytes));
        if (index == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        if (target->borrowedHandle == 0)
            BlobFree(target->fieldIndex, target->fieldIndexCapacity * 12);
        target->borrowedHandle = 0;
        target->fieldIndex = index;
        target->fieldIndexCapacity = bytes / 12;
    }
    std::memcpy(target->buffer, source->buffer, used);
    const uint64_t entries = std::min(source->fieldCount, target->fieldIndexCapacity);
    if (entries != 0)
        std::memcpy(target->fieldIndex, source->fieldIndex, static_cast<size_t>(entries * 12));
    target->fieldCount = source->fieldCount;
    return BLOB_STATUS_SUCCESS;
}

blob_status Clear(_BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_SUCCESS;
    BlobWriteGuard guard(blob);
    WriteHeader(blob->buffer, static_cast<uint32_t>(kBlobHeaderSize));
    blob->fieldCount = 0;
    return BLOB_STATUS_SUCCESS;
}

int32_t AddRefBlob(_BLOB_INFO* blob) {
    if (blob == nullptr) return 0;
    return std::atomic_ref<int32_t>(blob->refCount).fetch_add(1, std::memory_order_relaxed) + 1;
}

int32_t GetRefCountBlob(const _BLOB_INFO* blob) {
    if (blob == nullptr) return 0;
    return std::atomic_ref<int32_t>(const_cast<_BLOB_INFO*>(blob)->refCount)
        .load(std::memory_order_relaxed);
}

int32_t ReleaseBlob(_BLOB_INFO** blob) {
    if (blob == nullptr || *blob == nullptr) return 0;
    const int32_t left =
        std::atomic_ref<int32_t>((*blob)->refCount).fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        FreeHandle(*blob);
        *blob = nullptr;
    }
    return left;
}

blob_status GetBlobPtr(const _BLOB_INFO* blob, unsigned char** ptr, uint64_t* length) {
    if (blob == nullptr || ptr == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    *ptr = blob->buffer;
    if (length != nullptr) *length = UsedLength(blob);
    return BLOB_STATUS_SUCCESS;
}

uint64_t GetBlobLen(const _BLOB_INFO* blob) {
    if (blob == nullptr) return 0;
    BlobReadGuard guard(blob);
    return UsedLength(blob);
}

uint64_t GetBlobBufferLen(const unsigned char* bytes) {
    return HeaderLength(bytes);
}

blob_status BlobAllowDuplicateField(_BLOB_INFO* blob, bool allow) {
    bool previous = false;
    return BlobAllowDuplicateField(blob, allow, previous);
}

blob_status BlobAllowDuplicateField(_BLOB_INFO* blob, bool allow, bool& previous) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobReadGuard guard(blob);
    previous = blob->uniqueNames == 0;
    blob->uniqueNames = allow ? 0 : 1;
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobPreservePointers(_BLOB_INFO* blob, bool preserve) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    blob->preservePointers = preserve ? 1 : 0;
    return BLOB_STATUS_SUCCESS;
}

blob_status ShrinkBlobFields(_BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    if (blob->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    return ShrinkFields(blob, 0);
}

blob_status ShrinkBlobMemory(_BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    if (blob->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    // Memory in the caller's hands is left alone: it cannot be handed to the pools.
    if (blob->borrowedHandle == 0 && blob->fieldIndexCapacity != blob->fieldCount &&
        BlockSizeFor(blob->fieldCount * 12) < BlockSizeFor(blob->fieldIndexCapacity * 12)) {
        uint64_t bytes = 0;
        auto* index = static_cast<BlobFieldEntry*>(BlobAlloc(blob->fieldCount * 12, &bytes));
        if (index != nullptr) {
            if (blob->fieldCount != 0)
                std::memcpy(index, blob->fieldIndex, static_cast<size_t>(blob->fieldCount * 12));
            BlobFree(blob->fieldIndex, blob->fieldIndexCapacity * 12);
            blob->fieldIndex = index;
            blob->fieldIndexCapacity = bytes / 12;
        }
    }
    const uint32_t used = UsedLength(blob);
    if (blob->borrowedBuffer == 0 && blob->bufferCapacity != used &&
        BlockSizeFor(used) < blob->bufferCapacity) {
        uint64_t capacity = 0;
        auto* block = static_cast<unsigned char*>(BlobAlloc(used, &capacity));
        if (block != nullptr) {
            std::memcpy(block, blob->buffer, used);
            BlobFree(blob->buffer, blob->bufferCapacity);
            blob->buffer = block;
            blob->bufferCapacity = capacity;
        }
    }
    return BLOB_STATUS_SUCCESS;
}

blob_status SwapBlobs(_BLOB_INFO* a, _BLOB_INFO* b) {
    if (a == nullptr || b == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard first(a);
    BlobReadGuard second(b);
    if (a->preservePointers != 0 || b->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    if (a != b) SwapContents(a, b);
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobReadLock(const _BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (!HasLock(blob)) return BLOB_STATUS_NOT_ALLOWED;
    LockRead(blob);
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobReadUnlock(const _BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (!HasLock(blob)) return BLOB_STATUS_NOT_ALLOWED;
    UnlockRead(blob);
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobWriteLock(const _BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (!HasLock(blob)) return BLOB_STATUS_NOT_ALLOWED;
    LockWrite(blob);
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobWriteUnlock(const _BLOB_INFO* blob) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (!HasLock(blob)) return BLOB_STATUS_NOT_ALLOWED;
    UnlockWrite(blob);
    return BLOB_STATUS_SUCCESS;
}

}  // namespace TOLVEN
