// The flat XML tokeniser: entity escapes both ways, one tag, one element with its content.
#include <cstdint>
#include <cstring>

#include "blob/blob_xml.h"

namespace TOLVEN {
namespace detail {

const XmlEntity kXmlEntities[5] = {
    {"&quot;", 6, '"'}, {"&lt;", 4, '<'}, {"&gt;", 4, '>'}, {"&apos;", 6, '\''}, {"&amp;", 5, '&'},
};

int MatchEntity(const char* p, uint64_t left) noexcept {
    if (left < 4) return -1;
    for (int k = 0; k < 5; ++k) {
        const XmlEntity& e = kXmlEntities[k];
        if (left >= e.length && EqualFold(p, e.text, e.length)) return k;
    }
    return -1;
}

namespace {

inline bool IsBlank(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Stores a message about `text` (at most `length` characters of it) in `error`.
void Report(UtilError* error, const char* format, uint64_t position, const char* text,
            uint64_t length) noexcept {
    if (error == nullptr || error->HasError()) return;
    char copy[512];
    const uint64_t n = TextLength(text, length < sizeof copy - 1 ? length : sizeof copy - 1);
    std::memcpy(copy, text, static_cast<size_t>(n));
    copy[n] = 0;
    error->SetErrorFormat(format, static_cast<unsigned>(position), copy);
}

// Character classes of the scanner: the characters that end a run in each state. NUL ends
// every run.
constexpr uint8_t kOutsideTag = 1;  // '<'
constexpr uint8_t kInToken = 2;     // blanks, '<', '>', '/', '"'
constexpr uint8_t kInQuote = 4;     // '<', '>', '"'
struct ClassTable {
    uint8_t v[256];
    constexpr ClassTable() : v() {
        v[0] = kOutsideTag | kInToken | kInQuote;
        v[static_cast<unsigned char>('<')] = kOutsideTag | kInToken | kInQuote;
        v[static_cast<unsigned char>(' ')] = kInToken;
        v[static_cast<unsigned char>('\t')] = kInToken;
        v[static_cast<unsigned char>('\r')] = kInToken;
        v[static_cast<unsigned char>('\n')] = kInToken;
        v[static_cast<unsigned char>('/')] = kInToken;
        v[static_cast<unsigned char>('>')] = kInToken | kInQuote;
        v[static_cast<unsigned char>('"')] = kInToken | kInQuote;
    }
};
constexpr ClassTable kClassTable;
constexpr const uint8_t* kClass = kClassTable.v;

void ClearName(XmlNameRet* ret) noexcept {
    ret->name = nullptr;
    ret->nameLength = 0;
    ret->attributeCount = 0;
    ret->flags = 0;
    ret->entityCount = 0;
}

void ClearData(XmlNameDataRet* ret) noexcept {
    ClearName(ret);
    ret->data = nullptr;
    ret->dataLength = 0;
    ret->dataEmpty = false;
}

}  // namespace
}  // namespace detail

using namespace detail;

int ConvertToXml(const char* text, uint64_t length, char* out, uint64_t size) {
    if (out == nullptr || size == 0) return -1;
    uint64_t w = 0;
    if (text != nullptr) {
        for (uint64_t i = 0; i < length && text[i] != 0 && size - w > 1; ++i) {
            const char c = text[i];
            int k = -1;
            switch (c) {
                case '"':
                    k = 0;
                    break;
                case '<':
                    k = 1;
                    break;
                case '>':
                    k = 2;
                    break;
                case '\'':
                    k = 3;
                    break;
                case '&':
                    k = 4;
                    break;
                default:
                    break;
            }
            if (k < 0) {
                out[w++] = c;
                continue;
            }
            const XmlEntity& e = kXmlEntities[k];
            if (e.length >= size - w) {
                out[0] = 0;
                return -1;
            }
            std::memcpy(out + w, e.text, e.length);
            w += e.length;
        }
    }
    out[w] = 0;
    return static_cast<int>(w);
}

int ConvertFromXml(const char* text, uint64_t length, char* out, uint64_t size) {
    if (out == nullptr || size == 0) return -1;
    uint64_t w = 0;
    if (text != nullptr) {
        // Nothing to replace and room for all: a copy up to the first NUL.
        const void* nul = std::memchr(text, 0, length);
        const uint64_t n = nul != nullptr ? static_cast<const char*>(nul) - text : length;
        if (n < size && std::memchr(text, '&', n) == nullptr) {
            std::memcpy(out, text, n);
            out[n] = 0;
            return static_cast<int>(n);
        }
    }
    if (text != nullptr) {
        for (uint64_t i = 0; i < length && text[i] != 0 && size - w > 1;) {
            const int k = text[i] == '&' ? MatchEntity(text + i, length - i) : -1;
            if (k < 0) {
                out[w++] = text[i++];
                continue;
            }
            if (size - w < 2) {
                out[0] = 0;
                return -1;
            }
            out[w++] = kXmlEntities[k].character;
            i += kXmlEntities[k].length;
        }
    }
    out[w] = 0;
    return static_cast<int>(w);
}

int ParseXmlName(const char* text, uint64_t length, XmlNameRet* ret, UtilError* error) {
    if (ret == nullptr) return -1;
    ClearName(ret);
    if (text == nullptr) return 0;
    bool inTag = false, inQuote = false, inComment = false;
    const char* token = nullptr;  // start of the open token
    uint64_t i = 0;
    auto fail = [&](const char* format) {
        Report(error, format, i, text, length);
        ClearName(ret);
        return -1;
    };
    // Ends the open token at `end`: the first is the name, later ones attributes.
    auto endToken = [&](uint64_t end) {
        const auto n = static_cast<uint32_t>(text + end - token);
        if (token == ret->name)
            ret->nameLength = n;
        else
            ret->attributes[ret->attributeCount++] = XmlAttribute{token, n};
        token = nullptr;
    };
    for (; i < length && text[i] != 0; ++i) {
        // Runs of characters that change nothing are passed over first: text outside a tag,
        // the inside of a token.
        if (!inComment) {
            const uint8_t stop = !inTag             ? kOutsideTag
                                 : token == nullptr ? 0
                                 : inQuote          ? kInQuote
                                                    : kInToken;
            if (stop != 0) {
                while (i < length && (kClass[static_cast<unsigned char>(text[i])] & stop) == 0)
                    ++i;
                if (i == length || text[i] == 0) break;
            }
        }
        const char c = text[i];
        if (inComment) {
            if (c == '-' && length - i >= 3 && text[i + 1] == '-' && text[i + 2] == '>') {
                inComment = false;
                i += 2;  // the closing '>' belongs to the comment
            }
            continue;
        }
        switch (c) {
            case ' ':
            case '\t':
            case '\r':
            case '\n':
                if (token != nullptr && !inQuote) endToken(i);
                continue;
            case '<':
                if (length - i >= 4 && std::memcmp(text + i, "<!--", 4) == 0) {
                    if (token != nullptr && !inQuote) endToken(i);
                    inComment = true;
                    i += 3;
                    continue;
                }
                if (inTag) return fail("Invalid format.  Unexpected < at position %u in %s.");
                inTag = true;
                continue;
            case '>':
                if (!inTag) continue;
                if (inQuote) return fail("Invalid format.  Unexpected > at position %u in %s.");
                if (token != nullptr) endToken(i);
                if (ret->name == nullptr)
                    return fail("Invalid format.  Expected name or value at position %u in %s.");
                return static_cast<int>(i + 1);
            case '/':
                if (!inTag || inQuote) break;
                if ((ret->flags & kXmlTagClose) != 0)
                    return fail(
                        "Invalid format.  Duplicate closing tag / found at position %u in %s.");
                ret->flags |= kXmlTagClose;
                if ((ret->flags & kXmlTagOpen) != 0 && token != nullptr) endToken(i);
                continue;
            case '"':
                if (!inTag) continue;
                if (token == nullptr) break;  // starts a token below
                inQuote = !inQuote;
                continue;
            default:
                break;
        }
        // Any other character, or one of the above taken as ordinary.
        if (!inTag || token != nullptr) continue;
        if (ret->name != nullptr && (ret->flags & kXmlTagClose) != 0)
            return fail(
                "Invalid format.  Data not allowed after the close tag at position %u in %s.");
        if (ret->name != nullptr && ret->attributeCount == kXmlMaxAttributes)
            return fail("Invalid format.  Too many attributes at position %u in %s.");
        token = text + i;
        if (ret->name == nullptr) {
            ret->name = token;
            if ((ret->flags & kXmlTagClose) == 0) ret->flags |= kXmlTagOpen;
        }
        if (c == '"') inQuote = true;
    }
    if (inQuote && token != nullptr)
        return fail("Invalid format.  Expected name or value at position %u in %s.");
    if (inComment) {
        if (error != nullptr) error->SetError("Invalid format.  A comment tag was not closed.");
        ClearName(ret);
        return -1;
    }
    if (inTag) {
        if (error != nullptr) error->SetError("Invalid format.  The close tag was not found.");
        ClearName(ret);
        return -1;
    }
    return static_cast<int>(i);
}

int ParseXmlNameAndData(const char* text, uint64_t length, XmlNameDataRet* ret, UtilError* error) {
    if (ret == nullptr) return -1;
    ClearData(ret);
    const int head = ParseXmlName(text, length, ret, error);
    if (head < 0) return -1;
    if (ret->name == nullptr) {
        // No tag: fine when the scan took everything (blanks, comments), else nothing found.
        if (static_cast<uint64_t>(head) == length) return head;
        if (error != nullptr) error->SetError("Invalid format.  Item not found.");
        return -1;
    }
    if ((ret->flags & (kXmlTagOpen | kXmlTagClose)) == (kXmlTagOpen | kXmlTagClose)) return head;
    XmlNameRet inner;
    uint32_t depth = 1;
    for (uint64_t i = static_cast<uint64_t>(head); i < length && text[i] != 0;) {
        const char c = text[i];
        if (ret->data == nullptr && c != ' ' && c != '\t' && c != '\r' && c != '\n')
            ret->data = text + i;
        if (c == '<') {
            const int n = ParseXmlName(text + i, length - i, &inner, error);
            if (n < 0) {
                ClearData(ret);
                return -1;
            }
            if (inner.name != nullptr && inner.nameLength == ret->nameLength &&
                EqualFold(inner.name, ret->name, inner.nameLength)) {
                if ((inner.flags & kXmlTagOpen) != 0) ++depth;
                if ((inner.flags & kXmlTagClose) != 0) --depth;
                if (depth == 0) {
                    ret->dataLength = static_cast<uint32_t>(text + i - ret->data);
                    ret->dataEmpty = ret->dataLength == 0;
                    return static_cast<int>(i + static_cast<uint64_t>(n));
                }
            }
            i += static_cast<uint64_t>(n);
            continue;
        }
        if (c == '>') {
            Report(error, "Invalid format.  Unexpected > at position %u in %s.", i, text, length);
            ClearData(ret);
            return -1;
        }
        if (c == '&' && MatchEntity(text + i, length - i) >= 0) ++ret->entityCount;
        ++i;
    }
    if (error != nullptr && !error->HasError()) {
        const uint32_t n = ret->nameLength < 254 ? ret->nameLength : 254;
        error->SetErrorFormat("Invalid format.  End tag not found for item %.*s.",
                              static_cast<int>(n), ret->name);
    }
    ClearData(ret);
    return -1;
}

}  // namespace TOLVEN
