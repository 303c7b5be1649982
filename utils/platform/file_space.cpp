// The test limit on the bytes the file layer's positioned writes may still put on disk.
#include <atomic>

#include "platform/file.h"

namespace TOLVEN::platform {
namespace {
// Negative: no limit.
constinit std::atomic<int64_t> g_space{-1};
}  // namespace

void SetWriteSpaceForTest(int64_t bytes) noexcept {
    g_space.store(bytes < 0 ? -1 : bytes, std::memory_order_relaxed);
}

namespace detail {
std::size_t GrantWriteSpace(std::size_t wanted) noexcept {
    int64_t space = g_space.load(std::memory_order_relaxed);
    for (;;) {
        if (space < 0) return wanted;
        const int64_t grant =
            static_cast<int64_t>(wanted) < space ? static_cast<int64_t>(wanted) : space;
        if (g_space.compare_exchange_weak(space, space - grant, std::memory_order_relaxed))
            return static_cast<std::size_t>(grant);
    }
}
}  // namespace detail

}  // namespace TOLVEN::platform
