// Recursive spinning lock over a futex word.
//
// The word is 0 when free, 1 when held, 2 when held and a thread may sleep on it. The
// owner's OS thread id makes the lock recursive; only the owner ever stores its own id,
// so a relaxed read of the owner field is enough to recognise re-entry.
#include "tolven/detail/critical_section.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace TOLVEN::detail {
namespace {

struct CsState {
    std::atomic<uint32_t> word{0};
    std::atomic<uint32_t> owner{0};
    uint32_t recursion = 0;
    uint32_t spinCount = 0;
};
static_assert(sizeof(CsState) <= 48, "critical section storage too small");

__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_tid = 0;

inline uint32_t SelfId() noexcept {
    uint32_t id = t_tid;
    if (__builtin_expect(id == 0, 0)) {
        id = static_cast<uint32_t>(::syscall(SYS_gettid));
        t_tid = id;
    }
    return id;
}

inline CsState& S(unsigned char* storage) noexcept {
    return *std::launder(reinterpret_cast<CsState*>(storage));
}
inline const CsState& S(const unsigned char* storage) noexcept {
    return *std::launder(reinterpret_cast<const CsState*>(storage));
}

inline void FutexWait(std::atomic<uint32_t>* word, uint32_t expected) noexcept {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr,
              nullptr, 0);
}
inline void FutexWakeOne(std::atomic<uint32_t>* word) noexcept {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
              0);
}

inline void Relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

}  // namespace

CriticalSection::CriticalSection(uint32_t spinCount) noexcept {
    auto* s = new (storage_) CsState;
    s->spinCount = spinCount;
}

CriticalSection::~CriticalSection() {
    S(storage_).~CsState();
}

bool CriticalSection::TryEnter() noexcept {
    CsState& s = S(storage_);
    const uint32_t self = SelfId();
    if (s.owner.load(std::memory_order_relaxed) == self) {
        ++s.recursion;
        return true;
    }
    uint32_t expected = 0;
    if (s.word.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        s.owner.store(self, std::memory_order_relaxed);
        s.recursion = 1;
        return true;
    }
    return false;
}

void CriticalSection::Enter() noexcept {
    if (TryEnter()) return;
    CsState& s = S(storage_);
    for (uint32_t i = 0; i < s.spinCount; ++i) {
        Relax();
        if (s.word.load(std::memory_order_relaxed) == 0) {
            uint32_t expected = 0;
            if (s.word.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
                s.owner.store(SelfId(), std::memory_order_relaxed);
                s.recursion = 1;
                return;
            }
        }
    }
    // Mark the word contended and sleep until it is handed over free.
    while (s.word.exchange(2, std::memory_order_acquire) != 0)
        FutexWait(&s.word, 2);
    s.owner.store(SelfId(), std::memory_order_relaxed);
    s.recursion = 1;
}

void CriticalSection::Leave() noexcept {
    CsState& s = S(storage_);
    if (--s.recursion != 0) return;
    s.owner.store(0, std::memory_order_relaxed);
    if (s.word.exchange(0, std::memory_order_release) == 2) FutexWakeOne(&s.word);
}

bool CriticalSection::IsOwnedByCaller() const noexcept {
    return S(storage_).owner.load(std::memory_order_relaxed) == SelfId();
}

}  // namespace TOLVEN::detail
