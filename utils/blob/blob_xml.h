// Internals shared by the tokeniser, the XML writer and readers and the text forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "blob/blob_typed.h"
#include "tolven/blobxml.h"

namespace TOLVEN::detail {

// One predefined entity: its text, length and character.
struct XmlEntity {
    const char* text;
    uint32_t length;
    char character;
};
// The five entities in matching order: quot, lt, gt, apos, amp.
extern const XmlEntity kXmlEntities[5];
// The entity that begins at `p` (any case) with `left` characters available: its place in
// kXmlEntities, or -1.
int MatchEntity(const char* p, uint64_t left) noexcept;

// `n` bytes of `a` and `b` equal with A-Z folded (the blob's rule for names), inline.
inline bool EqualFold(const char* a, const char* b, size_t n) noexcept {
    for (size_t i = 0; i < n; ++i) {
        const auto x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x == y) continue;
        if ((x | 0x20) != (y | 0x20) || static_cast<unsigned char>((x | 0x20) - 'a') > 25)
            return false;
    }
    return true;
}

// Deepest nesting of <blob> elements below the document that the reader accepts.
inline constexpr unsigned kMaxXmlDepth = 64;
// Room of the value and name areas of the writers and readers.
inline constexpr uint64_t kXmlValueRoom = 255;
// Stack room of the readers' work areas; larger values go to the heap.
inline constexpr uint64_t kXmlWorkRoom = 8000;

// The names of the field types, by value (0-27).
extern const char* const kBlobFieldTypeNames[28];

// Bounded output: appends that fail, and keep failing, once the text and its terminator no
// longer fit. Not thread-safe.
class TextOut {
  public:
    TextOut(char* buffer, uint64_t room) noexcept : buffer_(buffer), room_(room) {}
    // Appends `n` bytes; false (and nothing written) when they do not fit.
    bool Put(const char* text, uint64_t n) noexcept {
        if (failed_ || n >= room_ - used_) return Fail();
        std::memcpy(buffer_ + used_, text, static_cast<size_t>(n));
        used_ += n;
        return true;
    }
    bool Put(const char* text) noexcept { return Put(text, std::strlen(text)); }
    bool PutChar(char c) noexcept { return Put(&c, 1); }
    // Appends "%i".
    bool PutNumber(uint64_t v) noexcept {
        char digits[24];
        return Put(digits, FormatSigned(digits, static_cast<int64_t>(static_cast<int32_t>(v))));
    }
    // Appends `n` characters of `text` escaped; false when they do not all fit.
    bool PutEscaped(const char* text, uint64_t n) noexcept {
        if (failed_) return false;
        const int w = ConvertToXml(text, n, buffer_ + used_, room_ - used_);
        if (w < 0) return Fail();
        used_ += static_cast<uint64_t>(w);
        return true;
    }
    // Where the next byte goes, and the room from there (terminator included).
    char* End() const noexcept { return buffer_ + used_; }
    uint64_t Left() const noexcept { return room_ - used_; }
    // Counts `n` bytes written at End() by someone else.
    void Advance(uint64_t n) noexcept { used_ += n; }
    bool Failed() const noexcept { return failed_; }
    // Forgets everything written after `mark` (an earlier Used()) and the failure.
    void Rollback(uint64_t mark) noexcept {
        used_ = mark;
        failed_ = false;
    }
    uint64_t Used() const noexcept { return used_; }
    // Terminates what was written.
    void Terminate() noexcept { buffer_[used_] = 0; }

  private:
    bool Fail() noexcept {
        failed_ = true;
        return false;
    }
    char* buffer_;
    uint64_t room_;
    uint64_t used_ = 0;
    bool failed_ = false;
};

// True for the types whose GetStr text stands for the value in the text forms: 2-12,
// 14-23, 25, 26.
inline bool HasValueText(uint32_t type) noexcept {
    return (type >= BLOB_FIELD_TYPE_BOOL && type <= BLOB_FIELD_TYPE_FLOAT64) ||
           IsNumericArrayType(type) || type == BLOB_FIELD_TYPE_TIMESTAMP ||
           type == BLOB_FIELD_TYPE_UTF16;
}

// The nested blob of a BLOB field, borrowed from the buffer (the caller holds the lock and
// releases the handle before the buffer changes). Null when the bytes do not walk.
_BLOB_INFO* BorrowNested(const FieldView& f) noexcept;

// True when `p` of `n` characters holds no markup the readers refuse: a "<!" that does not
// open a comment, or an entity reference ("&name;", "&#...;") other than the five.
bool SafeMarkup(const char* p, uint64_t n) noexcept;

}  // namespace TOLVEN::detail
