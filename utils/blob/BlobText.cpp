// The text forms of a blob for operators and logs: the bracketed form, the compact form and
// the delimited row of chosen fields.
#include <cstring>

#include "blob/blob_xml.h"

namespace TOLVEN {
namespace detail {
namespace {

// The text of a field that is neither nested nor absent from the text forms: a STRING's
// text, a number's GetStr form (in `area` of kXmlValueRoom bytes), "null" for a null field.
// False when the field has no text form or its GetStr fails.
bool ValueTextOf(const FieldView& f, char* area, const char** text, uint64_t* length) noexcept {
    if (f.type == BLOB_FIELD_TYPE_STRING) {
        *text = reinterpret_cast<const char*>(f.data);
        *length = TextLength(*text, f.size);
        return true;
    }
    if (f.type == BLOB_FIELD_TYPE_MAX) {
        *text = "null";
        *length = 4;
        return true;
    }
    if (!HasValueText(f.type) || FormatField(f, area, kXmlValueRoom) != BLOB_STATUS_SUCCESS)
        return false;
    *text = area;
    *length = std::strlen(area);
    return true;
}

inline const char* NameOf(const _BLOB_INFO* blob, const BlobFieldEntry& e) noexcept {
    return reinterpret_cast<const char*>(blob->buffer + e.headerOffset + 1);
}

// "<F%i>(name=value) " per field; on overflow the failing piece is taken back and false
// given, so what was written stays whole.
bool WriteBracketed(const _BLOB_INFO* blob, TextOut& out) noexcept {
    BlobReadGuard guard(blob);
    char area[kXmlValueRoom];
    for (uint64_t i = 0; i < blob->fieldCount; ++i) {
        const BlobFieldEntry& e = blob->fieldIndex[i];
        const FieldView f = ViewOf(blob, i);
        const uint32_t nameLength = EntryNameLength(e);
        const uint64_t mark = out.Used();
        auto head = [&]() {
            out.Put("<F", 2);
            out.PutNumber(i);
            out.Put(">(", 2);
            if (nameLength != 0) {
                out.Put(NameOf(blob, e), nameLength);
                out.PutChar('=');
            }
        };
        if (f.type == BLOB_FIELD_TYPE_BLOB) {
            _BLOB_INFO* nested = BorrowNested(f);
            if (nested == nullptr) continue;
            head();
            if (out.Failed()) {
                (void)ReleaseBlob(&nested);
                out.Rollback(mark);
                return false;
            }
            const bool ok = WriteBracketed(nested, out);
            (void)ReleaseBlob(&nested);
            if (!ok) return false;
            const uint64_t before = out.Used();
            if (!out.PutChar(')')) {
                out.Rollback(before);
                return false;
            }
            continue;
        }
        const char* text = nullptr;
        uint64_t length = 0;
        if (!ValueTextOf(f, area, &text, &length)) continue;
        head();
        out.Put(text, length);
        if (!out.Put(") ", 2)) {
            out.Rollback(mark);
            return false;
        }
    }
    return true;
}

// "[name]value" per named field, a nested blob as "[name]" and its own form.
bool WriteCompact(const _BLOB_INFO* blob, TextOut& out) noexcept {
    BlobReadGuard guard(blob);
    char area[kXmlValueRoom];
    for (uint64_t i = 0; i < blob->fieldCount; ++i) {
        const BlobFieldEntry& e = blob->fieldIndex[i];
        const uint32_t nameLength = EntryNameLength(e);
        const FieldView f = ViewOf(blob, i);
        if (nameLength == 0 || f.type == BLOB_FIELD_TYPE_MAX) continue;
        if (f.type == BLOB_FIELD_TYPE_BLOB) {
            _BLOB_INFO* nested = BorrowNested(f);
            if (nested == nullptr) continue;
            out.PutChar('[');
            out.Put(NameOf(blob, e), nameLength);
            const bool ok = out.PutChar(']') && WriteCompact(nested, out);
            (void)ReleaseBlob(&nested);
            if (!ok) return false;
            continue;
        }
        const char* text = nullptr;
        uint64_t length = 0;
        if (!ValueTextOf(f, area, &text, &length)) continue;
        out.PutChar('[');
        out.Put(NameOf(blob, e), nameLength);
        out.PutChar(']');
        if (!out.Put(text, length)) return false;
    }
    return true;
}

// One column of the delimited row: the text of field `index`. Status 1 when it does not
// fit or has no text at all.
blob_status WriteColumn(const _BLOB_INFO* blob, uint64_t index, TextOut& out) noexcept {
    BlobReadGuard guard(blob);
    if (index >= blob->fieldCount) return BLOB_STATUS_ITEM_NOT_FOUND;
    const FieldView f = ViewOf(blob, index);
    const uint64_t before = out.Used();
    if (f.type == BLOB_FIELD_TYPE_BLOB) {
        _BLOB_INFO* nested = BorrowNested(f);
        if (nested != nullptr) {
            (void)WriteBracketed(nested, out);
            (void)ReleaseBlob(&nested);
        }
    } else {
        char area[kXmlValueRoom];
        const char* text = nullptr;
        uint64_t length = 0;
        if (f.type != BLOB_FIELD_TYPE_MAX && ValueTextOf(f, area, &text, &length))
            out.Put(text, length);
    }
    return out.Failed() || out.Used() == before ? BLOB_STATUS_BUFFER_TOO_SMALL
                                                : BLOB_STATUS_SUCCESS;
}

}  // namespace
}  // namespace detail

using namespace detail;

blob_status BlobToString(const _BLOB_INFO* blob, char* buffer, uint64_t* size) {
    if (blob == nullptr || buffer == nullptr || size == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    if (*size == 0) return BLOB_STATUS_BUFFER_TOO_SMALL;
    TextOut out(buffer, *size);
    const bool ok = WriteBracketed(blob, out);
    out.Terminate();
    *size = out.Used();
    return ok ? BLOB_STATUS_SUCCESS : BLOB_STATUS_BUFFER_TOO_SMALL;
}

blob_status BlobToStringEx(const _BLOB_INFO* blob, char* buffer, uint64_t* size) {
    if (blob == nullptr || buffer == nullptr || size == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    TextOut out(buffer, *size);
    if (*size == 0 || !WriteCompact(blob, out)) {
        if (*size != 0) buffer[0] = 0;
        *size = 0;
        return BLOB_STATUS_BUFFER_TOO_SMALL;
    }
    out.Terminate();
    *size = out.Used();
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobToDelimitedString(const _BLOB_INFO* blob, const char** names, uint64_t count,
                                  char* buffer, uint64_t* size, char delimiter) {
    if (blob == nullptr || buffer == nullptr || size == nullptr || (names == nullptr && count != 0))
        return BLOB_STATUS_INVALID_PARAMETER;
    TextOut out(buffer, *size);
    blob_status s = *size == 0 ? BLOB_STATUS_BUFFER_TOO_SMALL : BLOB_STATUS_SUCCESS;
    for (uint64_t k = 0; k < count && s == BLOB_STATUS_SUCCESS; ++k) {
        if (k != 0 && !out.PutChar(delimiter)) {
            s = BLOB_STATUS_BUFFER_TOO_SMALL;
            break;
        }
        uint64_t index = 0;
        s = GetFieldNumber(blob, names[k], &index);
        if (s == BLOB_STATUS_ITEM_NOT_FOUND) {
            s = BLOB_STATUS_SUCCESS;  // an empty column
            continue;
        }
        if (s == BLOB_STATUS_SUCCESS) s = WriteColumn(blob, index, out);
    }
    if (s != BLOB_STATUS_SUCCESS) {
        if (*size != 0) buffer[0] = 0;
        *size = 0;
        return s;
    }
    out.Terminate();
    *size = out.Used();
    return BLOB_STATUS_SUCCESS;
}

}  // namespace TOLVEN
