// The error text that an operation hands back to a caller who asks for one.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace TOLVEN {

// Carries the first error text of an operation to its caller. Operations take a
// `UtilError*` that may be null; a message is kept only while the object holds no text,
// so the first error wins until `Clear`. Texts longer than the room are cut.
// Not thread-safe.
class UtilError {
  public:
    // Room for the text, terminator included.
    static constexpr size_t kCapacity = 1024;

    UtilError() noexcept { text_[0] = '\0'; }

    // Stores `text` if none is held yet; true if it was stored.
    bool SetError(const char* text) noexcept {
        if (text_[0] != '\0' || text == nullptr || text[0] == '\0') return false;
        const size_t length = std::strlen(text);
        const size_t taken = length < kCapacity ? length : kCapacity - 1;
        std::memcpy(text_, text, taken);
        text_[taken] = '\0';
        return true;
    }

    // printf-style variant of SetError; true if a text was stored.
    [[gnu::format(printf, 2, 3)]] bool SetErrorFormat(const char* format, ...) noexcept {
        if (text_[0] != '\0' || format == nullptr) return false;
        va_list args;
        va_start(args, format);
        const int written = std::vsnprintf(text_, kCapacity, format, args);
        va_end(args);
        if (written < 0) text_[0] = '\0';
        return text_[0] != '\0';
    }

    // The text held, "" when there is none.
    const char* GetError() const noexcept { return text_; }

    // True when a text is held.
    bool HasError() const noexcept { return text_[0] != '\0'; }

    // Forgets the text, so the next error is kept again.
    void Clear() noexcept { text_[0] = '\0'; }

  private:
    char text_[kCapacity];
};

}  // namespace TOLVEN
