// The XML form of a blob: the writer, the reader of that form, and the free-form file reader.
#include <array>
#include <cstdio>
#include <cstring>

#include "blob/blob_xml.h"

namespace TOLVEN {
namespace detail {

const char* const kBlobFieldTypeNames[28] = {
    "BLOB_FIELD_TYPE_UNDEFINED",     "BLOB_FIELD_TYPE_STRING",
    "BLOB_FIELD_TYPE_BOOL",          "BLOB_FIELD_TYPE_INT8",
    "BLOB_FIELD_TYPE_INT16",         "BLOB_FIELD_TYPE_INT32",
    "BLOB_FIELD_TYPE_INT64",         "BLOB_FIELD_TYPE_UINT8",
    "BLOB_FIELD_TYPE_UINT16",        "BLOB_FIELD_TYPE_UINT32",
    "BLOB_FIELD_TYPE_UINT64",        "BLOB_FIELD_TYPE_FLOAT32",
    "BLOB_FIELD_TYPE_FLOAT64",       "BLOB_FIELD_TYPE_BLOB",
    "BLOB_FIELD_TYPE_INT8_ARRAY",    "BLOB_FIELD_TYPE_INT16_ARRAY",
    "BLOB_FIELD_TYPE_INT32_ARRAY",   "BLOB_FIELD_TYPE_INT64_ARRAY",
    "BLOB_FIELD_TYPE_UINT8_ARRAY",   "BLOB_FIELD_TYPE_UINT16_ARRAY",
    "BLOB_FIELD_TYPE_UINT32_ARRAY",  "BLOB_FIELD_TYPE_UINT64_ARRAY",
    "BLOB_FIELD_TYPE_FLOAT32_ARRAY", "BLOB_FIELD_TYPE_FLOAT64_ARRAY",
    "BLOB_FIELD_TYPE_BINARY",        "BLOB_FIELD_TYPE_TIMESTAMP",
    "BLOB_FIELD_TYPE_UTF16",         "BLOB_FIELD_TYPE_MAX",
};

_BLOB_INFO* BorrowNested(const FieldView& f) noexcept {
    _BLOB_INFO* nested = nullptr;
    if (CreateBlob(&nested, f.data, f.size, false, BLOB_CREATE_DEFAULT) != BLOB_STATUS_SUCCESS)
        return nullptr;
    return nested;
}

namespace {

inline bool IsNameChar(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == ':' || c == '.' || c == '-';
}

}  // namespace

bool SafeMarkup(const char* p, uint64_t n) noexcept {
    const char* end = p + n;
    for (const char* q = p; (q = static_cast<const char*>(std::memchr(q, '<', end - q))); ++q) {
        if (end - q >= 2 && q[1] == '!' && !(end - q >= 4 && q[2] == '-' && q[3] == '-'))
            return false;
    }
    for (const char* q = p; (q = static_cast<const char*>(std::memchr(q, '&', end - q))); ++q) {
        // "&name;" or "&#...;" other than the five: a reference we do not expand.
        if (MatchEntity(q, static_cast<uint64_t>(end - q)) >= 0 || end - q < 3) continue;
        const char* k = q + 1;
        if (*k != '#' && !IsNameChar(*k)) continue;
        for (++k; k < end && k - q < 64 && IsNameChar(*k); ++k) {
        }
        if (k < end && *k == ';') return false;
    }
    return true;
}

namespace {

// ---- writer ----

// Writes the fields of `blob` as elements into `out`; false on overflow.
bool WriteXmlFields(const _BLOB_INFO* blob, TextOut& out, bool withTypes) noexcept {
    BlobReadGuard guard(blob);
    char tag[kXmlValueRoom];
    char value[kXmlValueRoom];
    for (uint64_t i = 0; i < blob->fieldCount; ++i) {
        const BlobFieldEntry& e = blob->fieldIndex[i];
        const FieldView f = ViewOf(blob, i);
        if (f.type != BLOB_FIELD_TYPE_STRING && f.type != BLOB_FIELD_TYPE_BLOB &&
            !HasValueText(f.type))
            continue;  // BINARY and null fields have no XML form
        const uint32_t nameLength = EntryNameLength(e);
        uint64_t tagLength;
        if (nameLength != 0) {
            const int w =
                ConvertToXml(reinterpret_cast<const char*>(blob->buffer + e.headerOffset + 1),
                             nameLength, tag, sizeof tag);
            tagLength = w < 0 ? 0 : static_cast<uint64_t>(w);
        } else {
            tagLength = FormatSigned(tag, static_cast<int32_t>(i));
        }
        if (f.type == BLOB_FIELD_TYPE_BLOB) {
            _BLOB_INFO* nested = BorrowNested(f);
            if (nested == nullptr) continue;
            out.Put("<blob name=\"", 12);
            out.Put(tag, tagLength);
            out.Put("\">", 2);
            const bool ok = !out.Failed() && WriteXmlFields(nested, out, withTypes);
            (void)ReleaseBlob(&nested);
            if (!ok || !out.Put("</blob>", 7)) return false;
            continue;
        }
        const char* text;
        uint64_t textLength;
        if (f.type == BLOB_FIELD_TYPE_STRING) {
            text = reinterpret_cast<const char*>(f.data);
            textLength = TextLength(text, f.size);
        } else {
            if (FormatField(f, value, sizeof value) != BLOB_STATUS_SUCCESS) continue;
            text = value;
            textLength = std::strlen(value);
        }
        out.Put("<f", 2);
        out.Put(tag, tagLength);
        if (withTypes) {
            out.Put(" type=\"", 7);
            out.Put(kBlobFieldTypeNames[f.type < 28 ? f.type : 0]);
            out.Put("\">", 2);
        } else {
            out.PutChar('>');
        }
        out.PutEscaped(text, textLength);
        out.Put("</f", 3);
        out.Put(tag, tagLength);
        if (!out.PutChar('>')) return false;
    }
    return true;
}

// ---- readers ----

inline bool IsBlankOrQuote(char c) noexcept {
    return c == ' ' || c == '\t' || c == '"';
}

// Strips quotes and blanks at both ends of the text in `s`, in place.
char* StripValue(char* s) noexcept {
    while (IsBlankOrQuote(*s))
        ++s;
    size_t n = std::strlen(s);
    while (n > 0 && IsBlankOrQuote(s[n - 1]))
        --n;
    s[n] = 0;
    return s;
}

// True when `p` of `n` characters is `word` in any case.
inline bool IsWord(const char* p, uint64_t n, const char* word) noexcept {
    return n == std::strlen(word) && EqualFold(p, word, static_cast<size_t>(n));
}

// The value behind `key` (of `keyLength`, with its '=') in an attribute, unescaped into
// `out` of kXmlValueRoom bytes and stripped; null when the attribute has another key or
// does not unescape.
const char* AttributeValue(const XmlAttribute& a, const char* key, uint32_t keyLength,
                           char* out) noexcept {
    if (a.length < keyLength || !EqualFold(a.text, key, keyLength)) return nullptr;
    if (ConvertFromXml(a.text + keyLength, a.length - keyLength, out, kXmlValueRoom) < 0)
        return nullptr;
    return StripValue(out);
}

// True when the tag, its attributes and its content hold only markup the readers take.
bool SafeElement(const XmlNameDataRet& rec) noexcept {
    if (rec.nameLength == 0 || rec.name[0] == '!' || rec.name[0] == '?') return false;
    if (!SafeMarkup(rec.name, rec.nameLength)) return false;
    for (uint32_t k = 0; k < rec.attributeCount; ++k)
        if (!SafeMarkup(rec.attributes[k].text, rec.attributes[k].length)) return false;
    return rec.data == nullptr || SafeMarkup(rec.data, rec.dataLength);
}

// The field type that a `type` value names, STRING when none.
blob_field_type TypeOfName(const char* value) noexcept {
    // All the names begin with the same 16 characters, "BLOB_FIELD_TYPE_".
    constexpr size_t kPrefix = 16;
    static const auto kSuffixLengths = [] {
        std::array<uint8_t, 27> lengths{};
        for (size_t t = 0; t < lengths.size(); ++t)
            lengths[t] = static_cast<uint8_t>(std::strlen(kBlobFieldTypeNames[t]) - kPrefix);
        return lengths;
    }();
    const size_t n = std::strlen(value);
    if (n <= kPrefix || !EqualFold(value, kBlobFieldTypeNames[1], kPrefix))
        return BLOB_FIELD_TYPE_STRING;
    for (uint32_t t = 1; t < 27; ++t)
        if (kSuffixLengths[t] == n - kPrefix &&
            EqualFold(value + kPrefix, kBlobFieldTypeNames[t] + kPrefix, n - kPrefix))
            return static_cast<blob_field_type>(t);
    return BLOB_FIELD_TYPE_STRING;
}

// One element that is not a nested blob: a field from its text.
blob_status ReadXmlField(_BLOB_INFO* blob, const XmlNameDataRet& rec,
                         blobxml_option option) noexcept {
    char typeArea[kXmlValueRoom];
    const char* typeValue = "";
    bool xml = false;
    for (uint32_t k = 0; k < rec.attributeCount; ++k) {
        if (const char* v = AttributeValue(rec.attributes[k], "type=", 5, typeArea)) {
            typeValue = v;
            if (std::strlen(v) >= 3 && EqualFold(v, "xml", 3)) {
                xml = true;
                break;
            }
        }
    }
    char nameArea[kXmlValueRoom];
    if (ConvertFromXml(rec.name, rec.nameLength, nameArea, sizeof nameArea) < 0)
        return BLOB_STATUS_INVALID_PARAMETER;
    const char* name = nameArea;
    if ((option & BLOBXML_RAW_NAMES) == 0) {
        if (name[0] != 'f' && name[0] != 'F') return BLOB_STATUS_INVALID_PARAMETER;
        ++name;
    }
    if (rec.dataLength == 0) return BLOB_STATUS_INVALID_PARAMETER;
    WorkArea<char, kXmlWorkRoom> work(uint64_t{rec.dataLength} + 1);
    if (work.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    if (xml || rec.entityCount == 0) {
        std::memcpy(work.get(), rec.data, rec.dataLength);
        work.get()[rec.dataLength] = 0;
        return AddField(blob, name, work.get(), TypeOfName(typeValue));
    }
    const int n =
        ConvertFromXml(rec.data, rec.dataLength, work.get(), uint64_t{rec.dataLength} + 1);
    return AddStr(blob, name, work.get(), static_cast<uint64_t>(n));
}

blob_status ReadXmlElements(_BLOB_INFO* blob, const char* text, uint64_t length,
                            blobxml_option option, unsigned depth) noexcept;

// A <blob> element: a nested blob, named by its "name" attribute.
blob_status ReadXmlNested(_BLOB_INFO* blob, const XmlNameDataRet& rec, blobxml_option option,
                          unsigned depth) noexcept {
    if (rec.attributeCount == 0 || depth >= kMaxXmlDepth) return BLOB_STATUS_INVALID_PARAMETER;
    char nameArea[kXmlValueRoom];
    const char* name = nullptr;
    for (uint32_t k = 0; k < rec.attributeCount && name == nullptr; ++k)
        name = AttributeValue(rec.attributes[k], "name=", 5, nameArea);
    _BLOB_INFO* nested = nullptr;
    blob_status s = CreateBlob(&nested, BLOB_CREATE_DEFAULT);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if (rec.dataLength != 0)
        s = ReadXmlElements(nested, rec.data, rec.dataLength, option, depth + 1);
    if (s == BLOB_STATUS_SUCCESS) s = AddBlob(blob, name, nested);
    (void)ReleaseBlob(&nested);
    return s;
}

// The content of a <blob> element, one element after the other.
blob_status ReadXmlElements(_BLOB_INFO* blob, const char* text, uint64_t length,
                            blobxml_option option, unsigned depth) noexcept {
    XmlNameDataRet rec;
    for (uint64_t pos = 0; pos < length && text[pos] != 0;) {
        const int n = ParseXmlNameAndData(text + pos, length - pos, &rec, nullptr);
        if (n <= 0) return n < 0 ? BLOB_STATUS_INVALID_PARAMETER : BLOB_STATUS_SUCCESS;
        pos += static_cast<uint64_t>(n);
        if (rec.name == nullptr) continue;  // only blanks and comments were left
        // The markup of the whole document was checked once; here only a declaration or a
        // processing instruction in a tag's place is left to refuse.
        if ((rec.flags & kXmlTagOpen) == 0 || rec.name[0] == '!' || rec.name[0] == '?')
            return BLOB_STATUS_INVALID_PARAMETER;
        const blob_status s = IsWord(rec.name, rec.nameLength, "blob")
                                  ? ReadXmlNested(blob, rec, option, depth)
                                  : ReadXmlField(blob, rec, option);
        if (s != BLOB_STATUS_SUCCESS) return s;
    }
    return BLOB_STATUS_SUCCESS;
}

// ---- the free-form reader ----

blob_status FreeFormElements(_BLOB_INFO* blob, const char* text, uint64_t length, unsigned depth,
                             UtilError* error) noexcept;

blob_status Refuse(UtilError* error, const char* format, const char* subject,
                   uint64_t length) noexcept {
    if (error != nullptr) {
        const int n = static_cast<int>(length < 255 ? length : 255);
        char copy[256];
        std::memcpy(copy, subject, static_cast<size_t>(n));
        copy[n] = 0;
        error->SetErrorFormat(format, copy);
    }
    return BLOB_STATUS_INVALID_PARAMETER;
}

blob_status FreeFormElement(_BLOB_INFO* blob, const XmlNameDataRet& rec, unsigned depth,
                            UtilError* error) noexcept {
    if (!SafeElement(rec))
        return Refuse(error, "Invalid format.  Markup or entity not accepted in [%s]", rec.name,
                      rec.nameLength);
    char name[kXmlValueRoom];
    if (ConvertFromXml(rec.name, rec.nameLength, name, sizeof name) < 0)
        return BLOB_STATUS_INVALID_PARAMETER;
    _BLOB_INFO* nested = nullptr;
    bool parent = false;
    blob_status s = BLOB_STATUS_SUCCESS;
    for (uint32_t k = 0; k < rec.attributeCount && s == BLOB_STATUS_SUCCESS; ++k) {
        const XmlAttribute& a = rec.attributes[k];
        const auto* eq = static_cast<const char*>(std::memchr(a.text, '=', a.length));
        if (eq == nullptr) {
            s = Refuse(error, "Sign '=' not found in attribute [%s]", a.text, a.length);
            break;
        }
        char area[kXmlValueRoom];
        const auto keyLength = static_cast<uint32_t>(eq - a.text);
        if (ConvertFromXml(eq + 1, a.length - keyLength - 1, area, sizeof area) < 0) {
            s = BLOB_STATUS_INVALID_PARAMETER;
            break;
        }
        const char* value = StripValue(area);
        if (a.length >= 5 && EqualFold(a.text, "name=", 5)) {
            std::memmove(name, value, std::strlen(value) + 1);
            continue;
        }
        parent = true;
        if (nested == nullptr) s = CreateBlob(&nested, BLOB_CREATE_DEFAULT);
        if (s != BLOB_STATUS_SUCCESS) break;
        char key[kXmlValueRoom];
        const uint32_t n = keyLength < kXmlValueRoom ? keyLength : kXmlValueRoom - 1;
        std::memcpy(key, a.text, n);
        key[n] = 0;
        s = AddStr(nested, key, value, UINT64_MAX);
    }
    bool children = false;
    if (s == BLOB_STATUS_SUCCESS && rec.dataLength != 0) {
        uint32_t i = 0;
        while (i < rec.dataLength && (rec.data[i] == ' ' || rec.data[i] == '\t'))
            ++i;
        children = i < rec.dataLength && rec.data[i] == '<';
        if (!children && parent)
            s = Refuse(error, "Invalid data, a nested tag expected since attributes present: [%s]",
                       name, std::strlen(name));
    }
    if (s == BLOB_STATUS_SUCCESS && (parent || children)) {
        if (depth >= kMaxXmlDepth)
            s = Refuse(error, "Invalid format.  Nesting too deep at [%s]", name, std::strlen(name));
        if (s == BLOB_STATUS_SUCCESS && nested == nullptr)
            s = CreateBlob(&nested, BLOB_CREATE_DEFAULT);
        if (s == BLOB_STATUS_SUCCESS && children)
            s = FreeFormElements(nested, rec.data, rec.dataLength, depth + 1, error);
        if (s == BLOB_STATUS_SUCCESS) s = AddBlob(blob, name, nested);
    } else if (s == BLOB_STATUS_SUCCESS) {
        if (rec.entityCount == 0) {
            s = AddStr(blob, name, rec.data, rec.dataLength);
        } else {
            WorkArea<char, kXmlWorkRoom> work(uint64_t{rec.dataLength} + 1);
            if (work.get() == nullptr) {
                s = BLOB_STATUS_OUT_OF_MEMORY;
            } else {
                const int n = ConvertFromXml(rec.data, rec.dataLength, work.get(),
                                             uint64_t{rec.dataLength} + 1);
                s = AddStr(blob, name, work.get(), static_cast<uint64_t>(n));
            }
        }
    }
    if (nested != nullptr) (void)ReleaseBlob(&nested);
    return s;
}

blob_status FreeFormElements(_BLOB_INFO* blob, const char* text, uint64_t length, unsigned depth,
                             UtilError* error) noexcept {
    XmlNameDataRet rec;
    for (uint64_t pos = 0; pos < length && text[pos] != 0;) {
        const int n = ParseXmlNameAndData(text + pos, length - pos, &rec, error);
        if (n < 0) return BLOB_STATUS_INVALID_PARAMETER;
        if (n == 0) break;
        pos += static_cast<uint64_t>(n);
        if ((rec.flags & kXmlTagOpen) != 0) {
            const blob_status s = FreeFormElement(blob, rec, depth, error);
            if (s != BLOB_STATUS_SUCCESS) return s;
        }
        while (pos < length && (text[pos] == ' ' || text[pos] == '\t'))
            ++pos;
    }
    return BLOB_STATUS_SUCCESS;
}

// Closes a file when the scope ends.
struct FileCloser {
    std::FILE* f;
    ~FileCloser() {
        if (f != nullptr) std::fclose(f);
    }
};

}  // namespace
}  // namespace detail

using namespace detail;

blob_status BlobToXML(const _BLOB_INFO* blob, char* buffer, uint64_t* size, bool withTypes) {
    if (blob == nullptr || buffer == nullptr || size == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    TextOut out(buffer, *size);
    if (*size == 0 || !out.Put("<blob>", 6) || !WriteXmlFields(blob, out, withTypes) ||
        !out.Put("</blob>", 7)) {
        if (*size != 0) buffer[0] = 0;
        *size = 0;
        return BLOB_STATUS_BUFFER_TOO_SMALL;
    }
    out.Terminate();
    *size = out.Used();
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobFromXml(const char* text, uint64_t length, _BLOB_INFO** out,
                        blobxml_option option) {
    if (out == nullptr || text == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    XmlNameDataRet rec;
    const int n = ParseXmlNameAndData(text, length, &rec, nullptr);
    if (n < 0 || rec.name == nullptr || !IsWord(rec.name, rec.nameLength, "blob") ||
        !SafeMarkup(text, static_cast<uint64_t>(n)))
        return BLOB_STATUS_INVALID_PARAMETER;
    _BLOB_INFO* blob = nullptr;
    blob_status s = CreateBlob(&blob, BLOB_CREATE_DEFAULT);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if (rec.dataLength != 0) s = ReadXmlElements(blob, rec.data, rec.dataLength, option, 0);
    if (s != BLOB_STATUS_SUCCESS) {
        (void)ReleaseBlob(&blob);
        return s;
    }
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobFromXmlFile(const char* path, _BLOB_INFO** out, UtilError* error) {
    if (out == nullptr || path == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    FileCloser file{std::fopen(path, "r")};
    if (file.f == nullptr) {
        if (error != nullptr) error->SetErrorFormat("Cannot open xml file [%s]", path);
        return BLOB_STATUS_INVALID_PARAMETER;
    }
    long size = -1;
    if (std::fseek(file.f, 0, SEEK_END) == 0) size = std::ftell(file.f);
    if (size < 0 || std::fseek(file.f, 0, SEEK_SET) != 0) {
        if (error != nullptr) error->SetErrorFormat("Cannot determine size of file [%s]", path);
        return BLOB_STATUS_INVALID_PARAMETER;
    }
    const uint64_t limit =
        static_cast<uint64_t>(size) > kXmlWorkRoom ? static_cast<uint64_t>(size) : kXmlWorkRoom;
    WorkArea<char, kXmlWorkRoom + 1> work(limit + 1);
    if (work.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    uint64_t used = 0;
    char piece[255];
    while (std::fgets(piece, sizeof piece, file.f) != nullptr) {
        size_t n = std::strlen(piece);
        while (n > 0 && (piece[n - 1] == '\r' || piece[n - 1] == '\n' || piece[n - 1] == ' ' ||
                         piece[n - 1] == '\t'))
            --n;
        size_t start = 0;
        while (start < n && (piece[start] == ' ' || piece[start] == '\t'))
            ++start;
        if (used + (n - start) > limit) {
            if (error != nullptr)
                error->SetErrorFormat("Cannot parse XML file - file size exceeds %u Bytes: [%s]",
                                      static_cast<unsigned>(limit), path);
            return BLOB_STATUS_INVALID_PARAMETER;
        }
        std::memcpy(work.get() + used, piece + start, n - start);
        used += n - start;
    }
    work.get()[used] = 0;
    _BLOB_INFO* blob = nullptr;
    blob_status s = CreateBlob(&blob, BLOB_CREATE_DEFAULT);
    if (s != BLOB_STATUS_SUCCESS) return s;
    s = FreeFormElements(blob, work.get(), used, 0, error);
    if (s != BLOB_STATUS_SUCCESS) {
        (void)ReleaseBlob(&blob);
        return s;
    }
    *out = blob;
    return BLOB_STATUS_SUCCESS;
}

}  // namespace TOLVEN
