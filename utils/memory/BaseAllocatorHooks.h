// Seams of the page allocator for tests.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// Locks pages; gives false and leaves an error code with the platform on refusal.
using PageLockFn = bool (*)(void* address, uint64_t bytes);

// Replaces the page locker of AllocateEx (null restores the platform's) and re-arms the
// once-per-process report of a refusal; returns the old locker.
PageLockFn SetPageLockerForTest(PageLockFn locker);

}  // namespace TOLVEN::detail
