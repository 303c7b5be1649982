// A string of fixed capacity with a case policy for comparisons, used as the key and value
// of configuration maps.
#pragma once

#include <cstddef>
#include <cstring>

namespace TOLVEN {

// Compares byte by byte as unsigned; <0, 0 or >0.
struct fstring_case_sensitive {
    static int compare(const char* a, const char* b) noexcept { return std::strcmp(a, b); }
};

// Compares byte by byte as unsigned, taking A to Z as their lower-case letters.
struct fstring_case_insensitive {
    static int compare(const char* a, const char* b) noexcept {
        const auto* x = reinterpret_cast<const unsigned char*>(a);
        const auto* y = reinterpret_cast<const unsigned char*>(b);
        for (;; ++x, ++y) {
            const unsigned char cx = (*x >= 'A' && *x <= 'Z') ? *x - 'A' + 'a' : *x;
            const unsigned char cy = (*y >= 'A' && *y <= 'Z') ? *y - 'A' + 'a' : *y;
            if (cx != cy) return cx < cy ? -1 : 1;
            if (cx == '\0') return 0;
        }
    }
};

// Up to N characters and a terminator, stored inline. Longer text is cut to N characters.
// Comparisons follow the policy `Case`. Not thread-safe.
template <std::size_t N, class Case>
class fstring {
  public:
    fstring() noexcept { data_[0] = '\0'; }
    // Copies `text` (null gives the empty string), cut to N characters.
    fstring(const char* text) noexcept { assign(text); }  // NOLINT: implicit by design

    // Replaces the content with `text`, cut to N characters.
    fstring& operator=(const char* text) noexcept {
        assign(text);
        return *this;
    }
    // Replaces the content with `text`, cut to N characters; null gives the empty string.
    void assign(const char* text) noexcept {
        std::size_t n = 0;
        if (text != nullptr)
            while (n < N && text[n] != '\0')
                ++n;
        assign(text, n);
    }
    // Replaces the content with the first `length` bytes of `text`, cut to N.
    void assign(const char* text, std::size_t length) noexcept {
        size_ = length < N ? length : N;
        if (size_ > 0) std::memcpy(data_, text, size_);
        data_[size_] = '\0';
    }

    // The terminated text.
    const char* c_str() const noexcept { return data_; }
    // Characters held.
    std::size_t size() const noexcept { return size_; }
    // True when no character is held.
    bool empty() const noexcept { return size_ == 0; }
    // Most characters the string can hold.
    static constexpr std::size_t capacity() noexcept { return N; }

    friend bool operator<(const fstring& a, const fstring& b) noexcept {
        return Case::compare(a.data_, b.data_) < 0;
    }
    friend bool operator==(const fstring& a, const fstring& b) noexcept {
        return Case::compare(a.data_, b.data_) == 0;
    }

  private:
    std::size_t size_ = 0;
    char data_[N + 1];
};

}  // namespace TOLVEN
