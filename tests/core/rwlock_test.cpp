#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "tolven/autothread.h"
#include "tolven/rwlock.h"
#include "tolven/tickcounter.h"

using namespace TOLVEN;

namespace {
// Yields until `pred` holds. Used to order threads; never a time limit.
template <class P>
void WaitUntil(P pred) {
    while (!pred())
        std::this_thread::yield();
}
// A short pause that gives a wrongly admitted thread the chance to show itself. A correct
// lock passes however long or short it is.
void GiveItAChance() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}
// The status another thread gets from `f`.
template <class F>
rwl_status FromOtherThread(F f) {
    rwl_status st = rwl_success;
    std::thread([&] { st = f(); }).join();
    return st;
}
}  // namespace

// ---- both locks ---------------------------------------------------------------------------

template <class L>
class BothLocks : public ::testing::Test {};
using LockTypes = ::testing::Types<ReadWriteLock_pr, ReadWriteLock_pw>;
TYPED_TEST_SUITE(BothLocks, LockTypes);

TYPED_TEST(BothLocks, RecursionOnBothSidesAndWriterMayRead) {
    TypeParam l;
    EXPECT_EQ(l.UnlockReader(), rwl_not_locked);
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    EXPECT_EQ(l.UnlockReader(), rwl_success);
    EXPECT_EQ(l.UnlockReader(), rwl_success);
    ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
    ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    EXPECT_EQ(l.UnlockReader(), rwl_success);
    EXPECT_EQ(l.UnlockWriter(), rwl_success);
    // Still the writer once: another thread cannot get in.
    EXPECT_EQ(FromOtherThread([&] { return l.TryLockWriter(); }), rwl_busy);
    EXPECT_EQ(l.UnlockWriter(), rwl_success);
    EXPECT_EQ(FromOtherThread([&] {
                  const rwl_status st = l.TryLockWriter();
                  if (st == rwl_success) (void)l.UnlockWriter();
                  return st;
              }),
              rwl_success);
}

TYPED_TEST(BothLocks, WritersExcludeEveryoneReadersShare) {
    TypeParam l;
    // Two words a writer changes together; a reader must never see them differ.
    uint64_t a = 0, b = 0;
    std::atomic<int> readersInside{0};
    std::atomic<bool> torn{false}, stop{false};
    constexpr int kWrites = 100;
    std::vector<std::thread> readers, writers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (!stop) {
                ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
                ++readersInside;
                // Recursion inside the read lock, while writers queue.
                ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
                if (a != b) torn = true;
                ASSERT_EQ(l.UnlockReader(), rwl_success);
                --readersInside;
                ASSERT_EQ(l.UnlockReader(), rwl_success);
            }
        });
    }
    for (int w = 0; w < 2; ++w) {
        writers.emplace_back([&] {
            for (int i = 0; i < kWrites; ++i) {
                ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
                EXPECT_EQ(readersInside.load(), 0);
                ++a;
                std::this_thread::yield();
                ++b;
                ASSERT_EQ(l.UnlockWriter(), rwl_success);
            }
        });
    }
    for (auto& t : writers)
        t.join();
    stop = true;
    for (auto& t : readers)
        t.join();
    EXPECT_FALSE(torn);
    EXPECT_EQ(a, 2u * kWrites);
    EXPECT_EQ(b, a);
}

TYPED_TEST(BothLocks, UserModeThreadsSpinInsteadOfBlocking) {
    configure_mainthread();
    TypeParam l;
    uint64_t value = 0;
    std::vector<auto_thread> threads(2);
    for (auto& t : threads) {
        ASSERT_TRUE(t.launch("rwl-usermode", [&] {
            GetCurrentThreadData()->enforceUserMode = true;
            for (int i = 0; i < 200; ++i) {
                ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
                ++value;
                ASSERT_EQ(l.UnlockWriter(), rwl_success);
                ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
                EXPECT_GE(value, 1u);
                ASSERT_EQ(l.UnlockReader(), rwl_success);
            }
        }));
    }
    for (auto& t : threads)
        EXPECT_TRUE(t.join());
    EXPECT_EQ(value, 400u);
}

// ---- ReadWriteLock_pr ---------------------------------------------------------------------

TEST(ReadWriteLockPr, ReaderIgnoresItsTimeoutAndWaitsForTheWriter) {
    ReadWriteLock_pr l;
    // One thread already known to the lock, one new to it: both must wait.
    std::atomic<bool> knownReady{false}, writerIn{false}, knownIn{false}, newIn{false};
    std::thread known([&] {
        ASSERT_EQ(l.LockReader(0), rwl_success);
        ASSERT_EQ(l.UnlockReader(), rwl_success);
        knownReady = true;
        WaitUntil([&] { return writerIn.load(); });
        ASSERT_EQ(l.LockReader(0), rwl_success);
        knownIn = true;
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    WaitUntil([&] { return knownReady.load(); });
    ASSERT_EQ(l.LockWriter(0), rwl_success);
    writerIn = true;
    std::thread fresh([&] {
        ASSERT_EQ(l.LockReader(0), rwl_success);
        newIn = true;
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    GiveItAChance();
    EXPECT_FALSE(knownIn);
    EXPECT_FALSE(newIn);
    EXPECT_EQ(l.UnlockWriter(), rwl_success);
    known.join();
    fresh.join();
    EXPECT_TRUE(knownIn && newIn);
}

TEST(ReadWriteLockPr, TryLockWriterIsBusyForAWriterButWaitsForReaders) {
    ReadWriteLock_pr l;
    std::atomic<bool> readerIn{false}, release{false}, writerIn{false}, writerRelease{false};
    std::thread reader([&] {
        ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
        readerIn = true;
        WaitUntil([&] { return release.load(); });
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    WaitUntil([&] { return readerIn.load(); });
    std::atomic<int> tryResult{-1};
    std::thread writer([&] {
        tryResult = static_cast<int>(l.TryLockWriter());
        writerIn = true;
        WaitUntil([&] { return writerRelease.load(); });
        ASSERT_EQ(l.UnlockWriter(), rwl_success);
    });
    // The writer has the main lock and waits for the reader: a second writer is refused.
    WaitUntil([&] { return l.WriterDepth() == 1; });
    EXPECT_EQ(l.TryLockWriter(), rwl_busy);
    GiveItAChance();
    EXPECT_FALSE(writerIn);
    release = true;
    reader.join();
    WaitUntil([&] { return writerIn.load(); });
    EXPECT_EQ(tryResult, static_cast<int>(rwl_success));
    writerRelease = true;
    writer.join();
}

TEST(ReadWriteLockPr, EndedReaderThreadsAreDroppedByTheNextWriter) {
    ReadWriteLock_pr l;
    for (int i = 0; i < 3; ++i) {
        std::thread([&] {
            ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
            ASSERT_EQ(l.UnlockReader(), rwl_success);
        }).join();
    }
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    ASSERT_EQ(l.UnlockReader(), rwl_success);
    EXPECT_EQ(l.ReaderCount(), 4u);
    ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
    EXPECT_EQ(l.ReaderCount(), 1u);
    ASSERT_EQ(l.UnlockWriter(), rwl_success);
    // The survivor still reads and still holds a writer back.
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    std::atomic<int> r{-1};
    std::thread writer([&] {
        r = static_cast<int>(l.TryLockWriter());
        if (r == rwl_success) (void)l.UnlockWriter();
    });
    GiveItAChance();
    EXPECT_EQ(r, -1);
    ASSERT_EQ(l.UnlockReader(), rwl_success);
    writer.join();
    EXPECT_EQ(r, static_cast<int>(rwl_success));
}

TEST(ReadWriteLockPr, ReadTakenUnderTheWriteLockStaysAfterUnlockWriter) {
    ReadWriteLock_pr l(0);
    // A lone reader may take the write lock.
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    ASSERT_EQ(l.TryLockWriter(), rwl_success);
    ASSERT_EQ(l.UnlockWriter(), rwl_success);
    ASSERT_EQ(l.UnlockReader(), rwl_success);

    // A writer's first read of the lock still needs its UnlockReader after UnlockWriter.
    ReadWriteLock_pr fresh;
    ASSERT_EQ(fresh.LockWriter(kInfinite), rwl_success);
    ASSERT_EQ(fresh.LockReader(kInfinite), rwl_success);
    ASSERT_EQ(fresh.UnlockWriter(), rwl_success);
    std::atomic<bool> writerIn{false};
    std::thread writer([&] {
        ASSERT_EQ(fresh.LockWriter(kInfinite), rwl_success);
        writerIn = true;
        ASSERT_EQ(fresh.UnlockWriter(), rwl_success);
    });
    GiveItAChance();
    EXPECT_FALSE(writerIn) << "the read lock is still held";
    ASSERT_EQ(fresh.UnlockReader(), rwl_success);
    writer.join();
    EXPECT_TRUE(writerIn);
}

// ---- ReadWriteLock_pw ---------------------------------------------------------------------

TEST(ReadWriteLockPw, TryLockWriterAndUnlocksByTheWrongThread) {
    ReadWriteLock_pw l;
    ASSERT_EQ(l.TryLockWriter(), rwl_success);
    EXPECT_EQ(l.TryLockWriter(), rwl_busy) << "even for the writer itself";
    EXPECT_EQ(FromOtherThread([&] { return l.TryLockWriter(); }), rwl_busy);
    EXPECT_EQ(FromOtherThread([&] { return l.UnlockWriter(); }), rwl_not_locked);
    ASSERT_EQ(l.UnlockWriter(), rwl_success);
    EXPECT_EQ(l.UnlockWriter(), rwl_not_locked);

    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
    EXPECT_EQ(FromOtherThread([&] { return l.TryLockWriter(); }), rwl_timeout);
    EXPECT_EQ(l.TryLockWriter(), rwl_timeout) << "a read lock cannot be upgraded";
    EXPECT_EQ(l.WaitingWriters(), 0);
    EXPECT_EQ(FromOtherThread([&] { return l.UnlockReader(); }), rwl_not_locked);
    EXPECT_EQ(l.SlotCount(), 1) << "a stranger's unlock changes nothing";
    ASSERT_EQ(l.UnlockReader(), rwl_success);
    EXPECT_EQ(l.SlotCount(), 0);
}

TEST(ReadWriteLockPw, WaitingWriterLetsOldReadersInAndKeepsNewOnesOut) {
    ReadWriteLock_pw l;
    std::atomic<int> step{0};
    std::vector<int> order;  // appended under the lock
    std::thread oldReader([&] {
        ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
        step = 1;
        WaitUntil([&] { return step.load() == 2; });
        // A writer waits now; this thread already reads and gets in again at once.
        ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
        step = 3;
        WaitUntil([&] { return step.load() == 4; });
        ASSERT_EQ(l.UnlockReader(), rwl_success);
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    WaitUntil([&] { return step.load() == 1; });
    std::thread writer([&] {
        ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
        order.push_back(1);
        ASSERT_EQ(l.UnlockWriter(), rwl_success);
    });
    WaitUntil([&] { return l.WaitingWriters() == 1; });
    step = 2;
    WaitUntil([&] { return step.load() == 3; });
    std::thread newReader([&] {
        ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
        order.push_back(2);
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    WaitUntil([&] { return l.WaitingReaders() == 1; });
    EXPECT_EQ(l.SlotCount(), 1);
    step = 4;
    oldReader.join();
    writer.join();
    newReader.join();
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(order[0], 1) << "the waiting writer goes before the new reader";
    EXPECT_EQ(l.WaitingReaders(), 0u);
    EXPECT_EQ(l.WaitingWriters(), 0);
    EXPECT_EQ(l.SlotCount(), 0);
}

TEST(ReadWriteLockPw, TimeOutsLeaveTheCountsAsTheyWere) {
    ReadWriteLock_pw l;
    ASSERT_EQ(l.LockWriter(kInfinite), rwl_success);
    uint64_t waited = 0;
    EXPECT_EQ(FromOtherThread([&] {
                  const uint64_t t0 = GetTickCount64Ms();
                  const rwl_status st = l.LockReader(100);
                  waited = GetTickCount64Ms() - t0;
                  return st;
              }),
              rwl_timeout);
    EXPECT_GE(waited, 95u);
    EXPECT_EQ(l.WaitingReaders(), 0u);
    EXPECT_EQ(l.SlotCount(), 0);
    EXPECT_EQ(FromOtherThread([&] { return l.LockWriter(20); }), rwl_timeout);
    EXPECT_EQ(l.WaitingWriters(), 0);
    ASSERT_EQ(l.UnlockWriter(), rwl_success);
}

TEST(ReadWriteLockPw, WriterThatGivesUpReleasesTheReadersItHeldBack) {
    ReadWriteLock_pw l;
    std::atomic<bool> release{false};
    std::thread holder([&] {
        ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
        WaitUntil([&] { return release.load(); });
        ASSERT_EQ(l.UnlockReader(), rwl_success);
    });
    WaitUntil([&] { return l.SlotCount() == 1; });
    // The writer waits for the holder and shuts out new readers; when it gives up, a reader
    // that queued behind it must get in while the holder still reads.
    std::atomic<int> writerResult{-1};
    std::thread writer([&] { writerResult = static_cast<int>(l.LockWriter(300)); });
    WaitUntil([&] { return l.WaitingWriters() == 1 || writerResult.load() != -1; });
    std::thread reader([&] {
        // Bounded, so that a reader left asleep fails the test instead of hanging it.
        EXPECT_EQ(l.LockReader(60000), rwl_success);
        (void)l.UnlockReader();
    });
    writer.join();
    reader.join();
    EXPECT_EQ(writerResult, static_cast<int>(rwl_timeout));
    release = true;
    holder.join();
    EXPECT_EQ(l.WaitingReaders(), 0u);
    EXPECT_EQ(l.SlotCount(), 0);
}

TEST(ReadWriteLockPw, SlotTableGrowsAndTrimsOnlyTrailingEmptySlots) {
    ReadWriteLock_pw l;
    constexpr int kThreads = 12;  // more than the table's first capacity
    std::atomic<int> holding{0}, releaseUpTo{-1}, done{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        // One after another, so that thread i owns slot i.
        WaitUntil([&] { return holding.load() == i; });
        threads.emplace_back([&, i] {
            ASSERT_EQ(l.LockReader(kInfinite), rwl_success);
            ++holding;
            WaitUntil([&] { return releaseUpTo.load() >= i; });
            ASSERT_EQ(l.UnlockReader(), rwl_success);
            ++done;
        });
    }
    WaitUntil([&] { return holding.load() == kThreads; });
    EXPECT_EQ(l.SlotCount(), kThreads);
    releaseUpTo = 0;  // the first slot empties but stays counted
    WaitUntil([&] { return done.load() == 1; });
    EXPECT_EQ(l.SlotCount(), kThreads);
    ASSERT_EQ(l.LockReader(kInfinite), rwl_success);  // a newcomer takes it
    EXPECT_EQ(l.SlotCount(), kThreads);
    releaseUpTo = kThreads - 1;
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(l.SlotCount(), 1);
    ASSERT_EQ(l.UnlockReader(), rwl_success);
    EXPECT_EQ(l.SlotCount(), 0);
}
