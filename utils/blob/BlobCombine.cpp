// Moving a field's bytes between blobs: combine, copy, and the in-place string trim and bulk
// remove.
#include <cstring>

#include "blob/blob_xml.h"
#include "tolven/blobcompare.h"

namespace TOLVEN {
namespace detail {
namespace {

// A source field, copied out when source and target are one blob (the target's changes
// would move it).
class SourceField {
  public:
    SourceField(const _BLOB_INFO* source, uint64_t index, bool detach) noexcept
        : view_(ViewOf(source, index)), copy_(detach ? view_.size : 0) {
        if (!detach) return;
        if (copy_.get() == nullptr) {
            ok_ = false;
            return;
        }
        std::memcpy(copy_.get(), view_.data, view_.size);
        view_.data = copy_.get();
    }
    bool ok() const noexcept { return ok_; }
    const FieldView& view() const noexcept { return view_; }

  private:
    FieldView view_;
    WorkArea<unsigned char, 256> copy_;
    bool ok_ = true;
};

// Appends a field of the source's type and room to `target` and copies the room, padding
// included. Status 11 for an array or binary room below 5.
blob_status RawAdd(_BLOB_INFO* target, const char* name, const FieldView& f) noexcept {
    uint64_t size = f.size;
    if (ArrayElementSize(f.type) != 0) {
        if (f.size < 5) return BLOB_STATUS_DATA_CORRUPT;
        size = f.size - 4;
    }
    uint64_t index = 0;
    bool found = false;
    blob_status s =
        AppendField(target, name, static_cast<blob_field_type>(f.type), size, &index, &found);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if (found) {
        // A field of that name exists under unique names: it gives way to the new one.
        s = RemoveField(target, index);
        if (s == BLOB_STATUS_SUCCESS)
            s = AppendField(target, name, static_cast<blob_field_type>(f.type), size, &index,
                            nullptr);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    std::memcpy(target->buffer + target->fieldIndex[index].dataOffset, f.data, f.size);
    return BLOB_STATUS_SUCCESS;
}

// Merges or replaces the nested blob of target field `ti` with the source's nested blob.
blob_status NestedInto(_BLOB_INFO* target, uint64_t ti, const FieldView& src,
                       bool combine) noexcept {
    _BLOB_INFO* from = BorrowNested(src);
    if (from == nullptr) return BLOB_STATUS_INVALID_BLOB;
    blob_status s;
    if (combine) {
        _BLOB_INFO* into = nullptr;
        s = GetBlob(target, ti, &into);
        if (s == BLOB_STATUS_SUCCESS) {
            s = CombineBlobs(into, from, false);
            if (s == BLOB_STATUS_SUCCESS) s = SetBlob(target, ti, into);
            (void)ReleaseBlob(&into);
        }
    } else {
        s = SetBlob(target, ti, from);
    }
    (void)ReleaseBlob(&from);
    return s;
}

// The copy core: field `si` of `source` into the target's first field of `targetName` (the
// source's own name when null). Both locks are held.
blob_status CopyCore(_BLOB_INFO* target, const _BLOB_INFO* source, uint64_t si,
                     const char* targetName, bool combine, bool keepIfEmpty) noexcept {
    if (si >= source->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const BlobFieldEntry& se = source->fieldIndex[si];
    const bool same = target == source;
    // The name lives in the source's buffer: copy it when the target is the same blob.
    if (targetName == nullptr) {
        if (EntryNameLength(se) == 0) return BLOB_STATUS_ITEM_NOT_FOUND;
        targetName = reinterpret_cast<const char*>(source->buffer + se.headerOffset + 1);
    }
    WorkArea<char, kXmlValueRoom> name(same ? std::strlen(targetName) + 1 : 0);
    if (same) {
        if (name.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        std::memcpy(name.get(), targetName, std::strlen(targetName) + 1);
        targetName = name.get();
    }
    const SourceField source_field(source, si, same);
    if (!source_field.ok()) return BLOB_STATUS_OUT_OF_MEMORY;
    const FieldView& src = source_field.view();
    uint64_t ti = 0;
    if (!FindField(target, targetName, &ti)) return RawAdd(target, targetName, src);
    const FieldView dst = ViewOf(target, ti);
    if (dst.type == BLOB_FIELD_TYPE_BLOB && src.type == BLOB_FIELD_TYPE_BLOB)
        return NestedInto(target, ti, src, combine);
    if (dst.type == src.type && dst.size == src.size) {
        std::memmove(const_cast<unsigned char*>(dst.data), src.data, src.size);
        return BLOB_STATUS_SUCCESS;
    }
    if (dst.type == BLOB_FIELD_TYPE_STRING && keepIfEmpty && src.size < 2)
        return BLOB_STATUS_SUCCESS;
    const blob_status s = RemoveField(target, ti);
    if (s != BLOB_STATUS_SUCCESS) return s;
    return RawAdd(target, targetName, src);
}

// The by-name path: look the source name up, then the core.
blob_status ByName(_BLOB_INFO* target, const _BLOB_INFO* source, const char* sourceName,
                   const char* targetName, bool combine, bool keepIfEmpty) noexcept {
    if (target == nullptr || source == nullptr || sourceName == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard gw(target);
    BlobReadGuard gr(source);
    uint64_t si = 0;
    if (!FindField(source, sourceName, &si)) return BLOB_STATUS_ITEM_NOT_FOUND;
    return CopyCore(target, source, si, targetName, combine, keepIfEmpty);
}

inline bool InSet(const char* set, char c) noexcept {
    return set != nullptr && c != 0 && std::strchr(set, c) != nullptr;
}

// Trims a STRING field in place; the caller holds the write lock.
blob_status Trim(_BLOB_INFO* blob, uint64_t index, const char* left, const char* right) noexcept {
    if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const FieldView f = ViewOf(blob, index);
    if (f.type != BLOB_FIELD_TYPE_STRING) return BLOB_STATUS_INVALID_PARAMETER;
    auto* p = const_cast<unsigned char*>(f.data);
    uint64_t length = TextLength(reinterpret_cast<const char*>(p), f.size);
    uint64_t skip = 0;
    while (skip < length && InSet(left, static_cast<char>(p[skip])))
        ++skip;
    if (skip != 0) {
        std::memmove(p, p + skip, static_cast<size_t>(length - skip + 1));
        std::memset(p + length - skip + 1, 0xFF, static_cast<size_t>(skip));
        length -= skip;
    }
    if (length == 0 || right == nullptr) return BLOB_STATUS_SUCCESS;
    uint64_t k = length - 1;
    while (k > 0 && InSet(right, static_cast<char>(p[k])))
        p[k--] = 0xFF;
    if (k != 0) {
        // The old terminator becomes padding and the text ends behind the last kept byte.
        p[length] = 0xFF;
        p[k + 1] = 0;
    }
    return BLOB_STATUS_SUCCESS;
}

}  // namespace
}  // namespace detail

using namespace detail;

blob_status CombineBlobs(_BLOB_INFO* target, const _BLOB_INFO* source, bool keepIfEmpty) {
    if (target == nullptr || source == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard gw(target);
    BlobReadGuard gr(source);
    for (uint64_t i = 0; i < source->fieldCount; ++i) {
        const BlobFieldEntry& e = source->fieldIndex[i];
        if (EntryNameLength(e) == 0) return BLOB_STATUS_ITEM_NOT_FOUND;
        const char* name = reinterpret_cast<const char*>(source->buffer + e.headerOffset + 1);
        uint64_t si = 0;
        if (!FindField(source, name, &si)) return BLOB_STATUS_ITEM_NOT_FOUND;
        const blob_status s = CopyCore(target, source, si, nullptr, true, keepIfEmpty);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    return BLOB_STATUS_SUCCESS;
}

blob_status CombineFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, const char* sourceName,
                               const char* targetName, bool keepIfEmpty) {
    return ByName(target, source, sourceName, targetName, true, keepIfEmpty);
}

blob_status CopyFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, const char* sourceName,
                            const char* targetName) {
    return ByName(target, source, sourceName, targetName, false, false);
}

blob_status CopyFieldByName(_BLOB_INFO* target, const _BLOB_INFO* source, uint64_t index,
                            const char* targetName) {
    if (target == nullptr || source == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard gw(target);
    BlobReadGuard gr(source);
    return CopyCore(target, source, index, targetName, false, false);
}

blob_status CopyField(_BLOB_INFO* target, const _BLOB_INFO* source, uint64_t index) {
    if (target == nullptr || source == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard gw(target);
    BlobReadGuard gr(source);
    if (index >= source->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const bool same = target == source;
    const SourceField source_field(source, index, same);
    if (!source_field.ok()) return BLOB_STATUS_OUT_OF_MEMORY;
    const FieldView& src = source_field.view();
    const BlobFieldEntry se = source->fieldIndex[index];
    WorkArea<char, kXmlValueRoom> name(EntryNameLength(se) + 1);
    if (name.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    std::memcpy(name.get(), source->buffer + se.headerOffset + 1, EntryNameLength(se));
    name.get()[EntryNameLength(se)] = 0;
    if (index < target->fieldCount) {
        const FieldView dst = ViewOf(target, index);
        if (dst.type == BLOB_FIELD_TYPE_BLOB && src.type == BLOB_FIELD_TYPE_BLOB)
            return NestedInto(target, index, src, true);
        const blob_status s = RemoveField(target, index);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    return RawAdd(target, name.get(), src);
}

blob_status TrimStringField(_BLOB_INFO* blob, uint64_t index, const char* left, const char* right) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    return Trim(blob, index, left, right);
}

blob_status TrimStringFieldByName(_BLOB_INFO* blob, const char* name, const char* left,
                                  const char* right) {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    uint64_t index = 0;
    if (!FindField(blob, name, &index)) return BLOB_STATUS_ITEM_NOT_FOUND;
    return Trim(blob, index, left, right);
}

blob_status RemoveFieldsByName(_BLOB_INFO* blob, const char** names, uint64_t count) {
    if (blob == nullptr || (names == nullptr && count != 0)) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    if (blob->preservePointers != 0) return BLOB_STATUS_NOT_ALLOWED;
    for (uint64_t k = 0; k < count; ++k)
        (void)RemoveFieldByName(blob, names[k]);
    return BLOB_STATUS_SUCCESS;
}

}  // namespace TOLVEN
