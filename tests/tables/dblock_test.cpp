#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tables/table_fixture.h"
#include "tolven/logapi.h"

using namespace TOLVEN;
using namespace tabletest;

namespace {

// Collects log texts while alive.
class LogCapture {
  public:
    LogCapture() {
        EXPECT_EQ(LogInitApi(), LOG_SUCCESS);
        EXPECT_EQ(LogAddCallbackFunc(&Callback, this, &id_, LOGGER_TRACE), LOG_SUCCESS);
    }
    ~LogCapture() { (void)LogRemoveCallback(id_), LogTermApi(); }
    bool Saw(uint32_t level, const std::string& file, const std::string& text) {
        EXPECT_TRUE(LogFlush());
        std::lock_guard<std::mutex> guard(lock_);
        for (const auto& seen : seen_)
            if (seen.level == level && seen.file == file && seen.text == text) return true;
        return false;
    }

  private:
    struct Line {
        uint32_t level;
        std::string file, text;
    };
    static void Callback(_LOGGER_CB_DATA* const data, void* self) {
        auto* capture = static_cast<LogCapture*>(self);
        std::lock_guard<std::mutex> guard(capture->lock_);
        capture->seen_.push_back({data->level, data->file, data->text});
    }
    std::mutex lock_;
    std::vector<Line> seen_;
    uint32_t id_ = 0;
};

// Waits (yielding) until `done` holds.
template <class F>
void Until(F done) {
    while (!done())
        std::this_thread::yield();
}

// The row of `id` inside the table, through the table's own id index.
Row* RowOf(IdIndex* ids, uint64_t id) {
    Row* row = nullptr;
    EXPECT_EQ(ids->FindKey(&id, sizeof id, &row, nullptr), CSDB_SUCCESS);
    return row;
}

struct LockedTable {
    LockedTable() {
        ids = new IdIndex;
        EXPECT_EQ(table.AddIndex(ids, 0, true), CSDB_SUCCESS);
        for (uint64_t id = 1; id <= 3; ++id)
            EXPECT_EQ(Add(table, MakeRow(id, "r")), CSDB_SUCCESS);
    }
    // Locks row `id` for the calling thread and gives its context.
    csdb_context Lock(uint64_t id) {
        csdb_context ctx{};
        EXPECT_EQ(table.FindRow(0, &id, sizeof id, nullptr, &ctx, true), CSDB_SUCCESS);
        return ctx;
    }
    bool Fat(uint64_t id) {
        const uintptr_t word = TableRl::LockWordOf(RowOf(ids, id));
        return word != 0 && (word & 1u) == 0;
    }
    TableRl table;
    IdIndex* ids;
};

}  // namespace

TEST(DbLockHandle, OwnershipCountsAndForcedUnlock) {
    _dblock_handle* handle = nullptr;
    ASSERT_TRUE(_dblock_handle_cache::GetHandle(&handle));
    ASSERT_TRUE(handle->Lock(3, 7));
    EXPECT_FALSE(handle->Lock(1, 8));
    EXPECT_TRUE(handle->IsRecordLockedForThread(8));
    EXPECT_FALSE(handle->IsRecordLockedForThread(7));

    bool refused = true;
    std::thread other([&] { refused = !handle->Unlock(8) && !handle->ForceUnlock(8); });
    other.join();
    EXPECT_TRUE(refused);
    EXPECT_EQ(handle->LockCount(), 3);

    // Waiters wake at once on a forced unlock, whatever the count.
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i)
        waiters.emplace_back([&] { handle->Wait(kInfinite), ++woken; });
    EXPECT_TRUE(handle->ForceUnlock(7));
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(woken.load(), 2);
    EXPECT_EQ(handle->LockCount(), 0);
    EXPECT_EQ(handle->OwnerThread(), 0u);
    _dblock_handle_cache::ReleaseHandle(handle);
}

TEST(DbLockHandle, CacheKeepsTwentyAndDestroysTheRest) {
    std::vector<_dblock_handle*> handles(21);
    for (auto*& h : handles)
        ASSERT_TRUE(_dblock_handle_cache::GetHandle(&h));
    EXPECT_EQ(_dblock_handle_cache::CachedCount(), 0);
    const int32_t live = _dblock_handle::LiveCount();
    for (auto* h : handles)
        _dblock_handle_cache::ReleaseHandle(h);
    EXPECT_EQ(_dblock_handle_cache::CachedCount(), 20);
    EXPECT_EQ(_dblock_handle::LiveCount(), live - 1);
    // A pooled handle comes back with a reference and a cleared event.
    _dblock_handle* again = nullptr;
    ASSERT_TRUE(_dblock_handle_cache::GetHandle(&again));
    EXPECT_EQ(again->refCount.load(), 1);
    EXPECT_FALSE(again->unlocked.IsSignalled());
    _dblock_handle_cache::ReleaseHandle(again);
}

TEST(RecordLock, RecursionInflatesAndUnlockClearsTheWord) {
    LockedTable t;
    csdb_context ctx = t.Lock(1);
    EXPECT_EQ(TableRl::LockWordOf(RowOf(t.ids, 1)), detail::ThinWord(detail::RecordLockThreadId()));
    (void)t.Lock(1);
    EXPECT_TRUE(t.Fat(1));
    EXPECT_EQ(t.table.GetLock()->recordLockCount.load(), 2);

    csdb_status fromOther = CSDB_SUCCESS;
    std::thread other([&] { fromOther = t.table.UnlockRecord(&ctx); });
    other.join();
    EXPECT_EQ(fromOther, CSDB_NOT_LOCK_OWNER);

    EXPECT_EQ(t.table.UnlockRecord(&ctx), CSDB_SUCCESS);
    EXPECT_EQ(t.table.UnlockRecord(&ctx), CSDB_SUCCESS);
    EXPECT_EQ(TableRl::LockWordOf(RowOf(t.ids, 1)), 0u);
    EXPECT_EQ(t.table.UnlockRecord(&ctx), CSDB_NOT_LOCK_OWNER);
    EXPECT_EQ(t.table.GetLock()->recordLockCount.load(), 0);

    // A row added locked is locked; the table's count follows.
    csdb_context added{};
    ASSERT_EQ(Add(t.table, MakeRow(9, "r"), &added, 0, true), CSDB_SUCCESS);
    EXPECT_EQ(t.table.GetLock()->recordLockCount.load(), 1);
    EXPECT_EQ(t.table.UnlockRecord(&added), CSDB_SUCCESS);
}

TEST(RecordLock, ReaderWaitsForTheRowAndWakesOnUnlock) {
    LockedTable t;
    csdb_context ctx = t.Lock(2);
    std::atomic<bool> done{false};
    Row seen{};
    std::thread reader([&] {
        uint64_t id = 2;
        EXPECT_EQ(t.table.FindRow(0, &id, sizeof id, &seen, nullptr, false), CSDB_SUCCESS);
        done = true;
    });
    // The waiter inflates the thin lock so that the unlock has an event to set.
    Until([&] { return t.Fat(2); });
    // Other rows stay reachable meanwhile.
    uint64_t id = 1;
    EXPECT_EQ(t.table.FindRow(0, &id, sizeof id, nullptr, nullptr, false), CSDB_SUCCESS);
    EXPECT_FALSE(done.load());
    EXPECT_EQ(t.table.UnlockRecord(&ctx), CSDB_SUCCESS);
    reader.join();
    EXPECT_EQ(seen.id, 2u);
    EXPECT_EQ(TableRl::LockWordOf(RowOf(t.ids, 2)), 0u);
}

TEST(RecordLock, WaiterOnADeletedRowGetsNotFound) {
    LockedTable t;
    (void)t.Lock(3);
    csdb_status result = CSDB_SUCCESS;
    std::thread reader([&] {
        uint64_t id = 3;
        result = t.table.FindRow(0, &id, sizeof id, nullptr, nullptr, false);
    });
    Until([&] { return t.Fat(3); });
    uint64_t id = 3;
    ASSERT_EQ(t.table.DeleteByKey(0, &id, sizeof id, nullptr), CSDB_SUCCESS);
    reader.join();
    EXPECT_EQ(result, CSDB_NOT_FOUND);
    EXPECT_EQ(t.table.GetLock()->recordLockCount.load(), 0);
}

TEST(RecordLock, ClearWaitsForLockedRowsAndRefusesTheirHolder) {
    LogCapture log;
    LockedTable t;
    csdb_context ctx = t.Lock(1);
    EXPECT_EQ(t.table.Clear(), CSDB_RECORD_LOCK_HELD);
    NameIndex refused;  // a refused index stays the caller's
    EXPECT_EQ(t.table.AddIndex(&refused, 1, true), CSDB_RECORD_LOCK_HELD);
    EXPECT_TRUE(log.Saw(LOGGER_ERROR, "include/mkdbimpl",
                        "multikeydb: Clear() called while this thread holds a record lock"));

    std::atomic<bool> cleared{false};
    std::thread clearer([&] {
        EXPECT_EQ(t.table.Clear(), CSDB_SUCCESS);
        cleared = true;
    });
    Until([&] { return t.table.GetLock()->exclusiveWaiters.load() > 0; });
    EXPECT_FALSE(cleared.load());
    EXPECT_EQ(t.table.UnlockRecord(&ctx), CSDB_SUCCESS);
    clearer.join();
    EXPECT_EQ(t.table.Count(), 0u);
}
