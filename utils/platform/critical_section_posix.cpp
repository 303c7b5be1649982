// Recursive spinning lock over a futex word: the slow half. The uncontended enter and leave
// are inline in the header. The owner's OS thread id makes the lock recursive; only the
// owner ever stores its own id, so a relaxed read of the owner field recognises re-entry.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/thread.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN::detail {
namespace {

inline void FutexWait(std::atomic<uint32_t>* word, uint32_t expected) noexcept {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr,
              nullptr, 0);
}

}  // namespace

CriticalSection::CriticalSection(uint32_t spinCount) noexcept : reserved_{} {
    s_.spinCount = spinCount;
}

CriticalSection::~CriticalSection() = default;

bool CriticalSection::TryEnterSlow() noexcept {
    (void)platform::CurrentThreadId();  // fills t_osThreadId for this thread
    return TryEnter();
}

void CriticalSection::WakeOne() noexcept {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&s_.word), FUTEX_WAKE_PRIVATE, 1, nullptr,
              nullptr, 0);
}

void CriticalSection::Enter() noexcept {
    if (TryEnter()) return;
    const uint32_t self = platform::CurrentThreadId();
    for (uint32_t i = 0; i < s_.spinCount; ++i) {
        platform::CpuRelax();
        if (s_.word.load(std::memory_order_relaxed) == 0) {
            uint32_t expected = 0;
            if (s_.word.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                s_.owner.store(self, std::memory_order_relaxed);
                s_.recursion = 1;
                return;
            }
        }
    }
    // Mark the word contended and sleep until it is handed over free.
    while (s_.word.exchange(2, std::memory_order_acquire) != 0)
        FutexWait(&s_.word, 2);
    s_.owner.store(self, std::memory_order_relaxed);
    s_.recursion = 1;
}

bool CriticalSection::IsOwnedByCaller() const noexcept {
    return s_.owner.load(std::memory_order_relaxed) == platform::CurrentThreadId();
}

}  // namespace TOLVEN::detail
