// The library's critical section is the Windows one: recursive, with a spin count.
//
// CRITICAL_SECTION lives inside the opaque public storage. Its OwningThread field holds
// the owner's thread id while it is held, which is how the caller's ownership is told.
#include "tolven/detail/critical_section.h"

#include <new>

#include "platform/win32_api.h"

namespace TOLVEN::detail {
namespace {

static_assert(sizeof(CRITICAL_SECTION) <= 48, "CRITICAL_SECTION must fit the public storage");
static_assert(alignof(CRITICAL_SECTION) <= 8, "CRITICAL_SECTION must fit the storage alignment");

inline CRITICAL_SECTION* S(unsigned char* storage) noexcept {
    return std::launder(reinterpret_cast<CRITICAL_SECTION*>(storage));
}
inline const CRITICAL_SECTION* S(const unsigned char* storage) noexcept {
    return std::launder(reinterpret_cast<const CRITICAL_SECTION*>(storage));
}

}  // namespace

CriticalSection::CriticalSection(uint32_t spinCount) noexcept {
    CRITICAL_SECTION* cs = new (storage_) CRITICAL_SECTION;
    // Cannot fail since Windows Vista; the section is usable either way.
    (void)::InitializeCriticalSectionAndSpinCount(cs, spinCount);
}

CriticalSection::~CriticalSection() {
    ::DeleteCriticalSection(S(storage_));
}

bool CriticalSection::TryEnter() noexcept {
    return ::TryEnterCriticalSection(S(storage_)) != FALSE;
}

void CriticalSection::Enter() noexcept {
    ::EnterCriticalSection(S(storage_));
}

void CriticalSection::Leave() noexcept {
    ::LeaveCriticalSection(S(storage_));
}

bool CriticalSection::IsOwnedByCaller() const noexcept {
    // Only the owner stores its own id there, so a relaxed read recognises the owner.
    const HANDLE owner = __atomic_load_n(&S(storage_)->OwningThread, __ATOMIC_RELAXED);
    return owner == reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(::GetCurrentThreadId()));
}

}  // namespace TOLVEN::detail
