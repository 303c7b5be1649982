// The bodies of the multi-key table (multikeydb_impl), declared in tolven/mkdbimpl.h.
// Included at the end of that header; not a header to include alone.
#pragma once

#include <new>
#include <vector>

namespace TOLVEN {

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                       Locker>::~multikeydb_impl() {
    ClearRows();
    for (size_t i = 0; i < indexes_.size(); ++i)
        if (owned_[i]) delete indexes_[i];
    if (ownsLock_) delete lock_;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::AddIndex(index_type* index, uint32_t number,
                                                     bool owned) {
    if (index == nullptr) return CSDB_BAD_ARGUMENT;
    if (indexCount_.load(std::memory_order_acquire) >= Policy::kMaxIndexes ||
        number >= Policy::kMaxIndexes)
        return CSDB_TOO_MANY_INDEXES;
    if (number == 0 && index->IsNullable()) return CSDB_NULLABLE_FIRST_INDEX;
    index->Clear();
    detail::mkdb_exclusive_guard<Locker> guard(lock_, [this] { return HoldsARow(); });
    if (!guard.held()) {
        detail::LogMkdbMessage(detail::mkdb_message::add_index_refused);
        return CSDB_RECORD_LOCK_HELD;
    }
    if (indexCount_.load(std::memory_order_relaxed) >= Policy::kMaxIndexes)
        return CSDB_TOO_MANY_INDEXES;
    if (number < indexes_.size() && indexes_[number] != nullptr) return CSDB_DUPLICATE_KEY;
    index->SetIndexNumber(number);
    if (index_type* source = FirstIndex(true); source != nullptr && source->Size() > 0) {
        Entry* row = nullptr;
        csdb_context ctx{};
        csdb_status st = source->WalkFirst(&row, &ctx);
        while (st == CSDB_SUCCESS) {
            const csdb_status inserted = index->Insert(row, nullptr);
            if (inserted != CSDB_SUCCESS && inserted != CSDB_KEY_NULL) {
                index->Clear();
                return inserted;
            }
            st = source->WalkNext(&row, &ctx);
        }
        if (st != CSDB_END) {
            index->Clear();
            return st;
        }
    }
    try {
        if (number >= indexes_.size()) {
            indexes_.resize(number + 1, nullptr);
            owned_.resize(number + 1, false);
        }
    } catch (const std::bad_alloc&) {
        index->Clear();
        return CSDB_OUT_OF_MEMORY;
    }
    indexes_[number] = index;
    owned_[number] = owned;
    indexCount_.fetch_add(1, std::memory_order_acq_rel);
    indexSlots_ = static_cast<uint32_t>(indexes_.size());
    return CSDB_SUCCESS;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::AddRow(const mkdb_add_request<Entry>& request,
                                                   bool lockRow) {
    write_guard guard(lock_);
    if (indexCount_.load(std::memory_order_relaxed) == 0) return CSDB_NOT_OPEN;
    if (request.row == nullptr) return CSDB_BAD_ARGUMENT;
    Entry* row = NewRow(*request.row);
    bool indexed = false;
    for (size_t i = 0; i < indexes_.size(); ++i) {
        if (indexes_[i] == nullptr) continue;
        csdb_context* ctx =
            request.ctx != nullptr && request.contextIndex == i ? request.ctx : nullptr;
        const csdb_status st = indexes_[i]->Insert(row, ctx);
        if (st == CSDB_KEY_NULL) continue;
        if (st != CSDB_SUCCESS) {
            (void)EraseRow(row);
            if (request.ctx != nullptr) *request.ctx = csdb_context{};
            return st;
        }
        indexed = true;
    }
    if (!indexed) {
        (void)EraseRow(row);
        return CSDB_NO_SUCH_INDEX;
    }
    if constexpr (kLocks) {
        if (lockRow) {
            _dbrow_header& header = Header(row);
            detail::RowLatchGuard latch(header);
            (void)lock_->LockRow(header, detail::RecordLockThreadId());
        }
    } else {
        (void)lockRow;
    }
    return CSDB_SUCCESS;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::FindRow(unsigned int index, const void* key,
                                                    size_t size, Entry* outRow, csdb_context* ctx,
                                                    bool lockRow) {
    return ReadRow(
        index, [&](index_type* ix, Entry** row, bool) { return ix->FindKey(key, size, row, ctx); },
        detail::mkdb_copy_out<Entry>{outRow}, lockRow);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::StepRow(unsigned int index, mkdb_step step, void* key,
                                                    size_t size, Entry* outRow, csdb_context* ctx,
                                                    bool lockRow) {
    return ReadRow(
        index,
        [&](index_type* ix, Entry** row, bool restarted) -> csdb_status {
            if (restarted && (step == MKDB_NEXT || step == MKDB_PREV) &&
                ix->FromContext(ctx, row) == CSDB_SUCCESS)
                return CSDB_SUCCESS;
            switch (step) {
                case MKDB_BEGIN:
                    return ix->KeyBegin(key, size, row, ctx);
                case MKDB_END:
                    return ix->KeyEnd(key, size, row, ctx);
                case MKDB_AT_OR_AFTER:
                    return ix->KeyFirst(false, key, size, row, ctx);
                case MKDB_AT_OR_BEFORE:
                    return ix->KeyLast(false, key, size, row, ctx);
                case MKDB_NEXT:
                    return ix->KeyNext(false, key, size, row, ctx);
                case MKDB_PREV:
                    return ix->KeyPrev(false, key, size, row, ctx);
            }
            return CSDB_BAD_ARGUMENT;
        },
        detail::mkdb_copy_out<Entry>{outRow}, lockRow);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::DeleteByKey(unsigned int index, const void* key,
                                                        size_t size, csdb_context* ctx) {
    (void)ctx;
    return DeleteMatching(index, [&](index_type* ix, bool first, Entry** row, csdb_context* at) {
        void* k = const_cast<void*>(key);  // a matching search leaves the key alone
        return first ? ix->KeyFirst(true, k, size, row, at) : ix->KeyNext(true, k, size, row, at);
    });
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::UnlockRecord(csdb_context* ctx) {
    if (ctx == nullptr) return CSDB_BAD_ARGUMENT;
    read_guard guard(lock_);
    index_type* ix = IndexAt(ctx->indexNumber);
    if (ix == nullptr) return CSDB_NO_SUCH_INDEX;
    Entry* row = nullptr;
    const csdb_status st = ix->FromContext(ctx, &row);
    if (st != CSDB_SUCCESS) return st;
    if constexpr (kLocks) {
        _dbrow_header& header = Header(row);
        detail::RowLatchGuard latch(header);
        const uint32_t self = detail::RecordLockThreadId();
        if (Locker::LockedByOther(header, self) || !lock_->UnlockRow(header, self))
            return CSDB_NOT_LOCK_OWNER;
        return CSDB_SUCCESS;
    } else {
        return CSDB_NOT_LOCK_OWNER;
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::UpdateRow(csdb_context* ctx, const Entry* newRow) {
    if (ctx == nullptr || newRow == nullptr) return CSDB_BAD_ARGUMENT;
    for (;;) {
        write_guard guard(lock_);
        index_type* ix = IndexAt(ctx->indexNumber);
        if (ix == nullptr) return CSDB_NO_SUCH_INDEX;
        Entry* row = nullptr;
        const csdb_status found = ix->FromContext(ctx, &row);
        if (found != CSDB_SUCCESS) return found;
        if constexpr (kLocks) {
            _dbrow_header& header = Header(row);
            detail::RowLatchGuard latch(header);
            if (Locker::LockedByOther(header, detail::RecordLockThreadId())) {
                WaitForHolder(header, latch, guard);
                continue;
            }
            bool gone = false;
            const csdb_status st = UpdateLocked(ctx, row, *newRow, &gone);
            if (gone) {
                latch.Release();
                (void)EraseRow(row);
            }
            return st;
        } else {
            bool gone = false;
            const csdb_status st = UpdateLocked(ctx, row, *newRow, &gone);
            if (gone) (void)EraseRow(row);
            return st;
        }
    }
}

// ---- csdb ------------------------------------------------------------------------------

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::FindExact(unsigned int index, const _BLOB_INFO* key,
                                                      _BLOB_INFO* row, csdb_context* ctx) {
    return ReadBlob(index, row,
                    [&](index_type* ix, Entry** r, bool) { return ix->FindExact(key, r, ctx); });
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::Add(const _BLOB_INFO* row, csdb_context* ctx) {
    (void)ctx;
    return row == nullptr ? CSDB_BAD_ARGUMENT : CSDB_CONVERT_FAILED;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::DeleteAll(unsigned int index, const _BLOB_INFO* key,
                                                      csdb_context* ctx) {
    (void)ctx;
    if (key == nullptr) return CSDB_BAD_ARGUMENT;
    auto* k = const_cast<_BLOB_INFO*>(key);  // a matching search leaves the key alone
    return DeleteMatching(index, [&](index_type* ix, bool first, Entry** row, csdb_context* at) {
        return first ? ix->GetFirst(true, k, row, at) : ix->GetNext(true, k, row, at);
    });
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::DeleteItem(csdb_context* ctx) {
    if (ctx == nullptr) return CSDB_BAD_ARGUMENT;
    for (;;) {
        write_guard guard(lock_);
        index_type* ix = IndexAt(ctx->indexNumber);
        if (ix == nullptr) return CSDB_NO_SUCH_INDEX;
        Entry* row = nullptr;
        const csdb_status st = ix->FromContext(ctx, &row);
        if (st != CSDB_SUCCESS) return st;
        if (WaitIfLocked(row, guard)) continue;
        *ctx = csdb_context{};
        return EraseRow(row);
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::Update(unsigned int index, const _BLOB_INFO* key,
                                                   const _BLOB_INFO* row, csdb_context* ctx) {
    (void)index, (void)row, (void)ctx;
    return key == nullptr ? CSDB_BAD_ARGUMENT : CSDB_CONVERT_FAILED;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline size_t
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::NumIndexes() {
    read_guard guard(lock_);
    return indexCount_.load(std::memory_order_relaxed);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline size_t
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::Count() {
    read_guard guard(lock_);
    index_type* ix = FirstIndex(true);
    return ix == nullptr ? 0 : ix->Size();
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::Clear() {
    detail::mkdb_exclusive_guard<Locker> guard(lock_, [this] { return HoldsARow(); });
    if (!guard.held()) {
        detail::LogMkdbMessage(detail::mkdb_message::clear_refused);
        return CSDB_RECORD_LOCK_HELD;
    }
    ClearRows();
    return CSDB_SUCCESS;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline uintptr_t multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                 Locker>::LockWordOf(const Entry* row) noexcept {
    if constexpr (kLocks)
        return Header(const_cast<Entry*>(row)).word.load(std::memory_order_relaxed);
    else
        return 0;
}

// ---- rows ------------------------------------------------------------------------------

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline _dbrow_header& multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                      Locker>::Header(Entry* row) noexcept {
    // The row follows a 16-byte, 8-aligned header: it starts 16 bytes in.
    return *reinterpret_cast<_dbrow_header*>(reinterpret_cast<char*>(row) - sizeof(_dbrow_header));
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline auto multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::IndexAt(
    unsigned int number) const -> index_type* {
    return number < indexes_.size() ? indexes_[number] : nullptr;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline auto multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                            Locker>::FirstIndex(bool notNullable) const -> index_type* {
    for (index_type* ix : indexes_)
        if (ix != nullptr && !(notNullable && ix->IsNullable())) return ix;
    return nullptr;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline Entry* multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::NewRow(
    const Entry& source) {
    stored_type* block = rows_.allocate(1);
    if constexpr (kLocks) {
        new (&block->header) _dbrow_header();
        try {
            new (&block->entry) Entry(source);
        } catch (...) {
            rows_.deallocate(block, 1);
            throw;
        }
        return &block->entry;
    } else {
        try {
            return new (block) Entry(source);
        } catch (...) {
            rows_.deallocate(block, 1);
            throw;
        }
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::EraseRow(Entry* row) {
    csdb_status result = CSDB_NOT_INDEXED;
    for (index_type* ix : indexes_) {
        if (ix == nullptr) continue;
        uint32_t generation = 0;
        if (ix->Erase(row, nullptr, &generation) == CSDB_SUCCESS) result = CSDB_SUCCESS;
    }
    FreeRow(row);
    return result;
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline void multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::FreeRow(
    Entry* row) {
    row->~Entry();
    if constexpr (kLocks) {
        _dbrow_header& header = Header(row);
        {
            detail::RowLatchGuard latch(header);
            lock_->OnRowErase(header, detail::RecordLockThreadId());
        }
        header.~_dbrow_header();
        rows_.deallocate(reinterpret_cast<stored_type*>(&header), 1);
    } else {
        rows_.deallocate(row, 1);
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline void
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::ClearRows() {
    index_type* first = FirstIndex(true);
    if (first == nullptr || first->Size() == 0) return;
    std::vector<Entry*> rows;
    try {
        rows.reserve(first->Size());
        Entry* row = nullptr;
        csdb_context at{};
        for (csdb_status st = first->WalkFirst(&row, &at); st == CSDB_SUCCESS;
             st = first->WalkNext(&row, &at))
            rows.push_back(row);
    } catch (const std::bad_alloc&) {
        // No room for the list: erase row by row instead.
        for (Entry* row = nullptr; first->WalkFirst(&row, nullptr) == CSDB_SUCCESS;)
            if (EraseRow(row) == CSDB_NOT_INDEXED) break;
        return;
    }
    for (index_type* ix : indexes_)
        if (ix != nullptr) ix->Clear();
    for (Entry* row : rows)
        FreeRow(row);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline bool
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::HoldsARow() {
    if constexpr (kLocks) {
        index_type* first = FirstIndex(true);
        if (first == nullptr) return false;
        const uint32_t self = detail::RecordLockThreadId();
        Entry* row = nullptr;
        csdb_context at{};
        for (csdb_status st = first->WalkFirst(&row, &at); st == CSDB_SUCCESS;
             st = first->WalkNext(&row, &at)) {
            _dbrow_header& header = Header(row);
            detail::RowLatchGuard latch(header);
            if (Locker::HeldBy(header, self)) return true;
        }
    }
    return false;
}

// ---- waits and the shared paths --------------------------------------------------------

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
template <class Guard>
inline void multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                            Locker>::WaitForHolder(_dbrow_header& header,
                                                   detail::RowLatchGuard& latch, Guard& guard) {
    _dblock_handle* handle = lock_->PrepareWait(header);
    latch.Release();
    guard.Release();
    Locker::WaitRow(handle);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
template <class Guard>
inline bool multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                            Locker>::WaitIfLocked(Entry* row, Guard& guard) {
    if constexpr (kLocks) {
        _dbrow_header& header = Header(row);
        detail::RowLatchGuard latch(header);
        if (!Locker::LockedByOther(header, detail::RecordLockThreadId())) return false;
        WaitForHolder(header, latch, guard);
        return true;
    } else {
        (void)row, (void)guard;
        return false;
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
template <class Search, class Use>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::ReadRow(unsigned int index, Search&& search, Use&& use,
                                                    bool lockRow) {
    bool restarted = false;
    for (;;) {
        read_guard guard(lock_);
        index_type* ix = IndexAt(index);
        if (ix == nullptr) return CSDB_NO_SUCH_INDEX;
        Entry* row = nullptr;
        const csdb_status st = search(ix, &row, restarted);
        if (st != CSDB_SUCCESS) return st;
        if constexpr (kLocks) {
            _dbrow_header& header = Header(row);
            detail::RowLatchGuard latch(header);
            const uint32_t self = detail::RecordLockThreadId();
            if (Locker::LockedByOther(header, self)) {
                WaitForHolder(header, latch, guard);
                restarted = true;
                continue;
            }
            const csdb_status used = use(row);
            if (used == CSDB_SUCCESS && lockRow) (void)lock_->LockRow(header, self);
            return used;
        } else {
            (void)lockRow;
            return use(row);
        }
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
template <class Search>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::ReadBlob(unsigned int index, _BLOB_INFO* blob,
                                                     Search&& search) {
    return ReadRow(
        index, search,
        [&](Entry* row) {
            if (blob == nullptr) return CSDB_SUCCESS;
            (void)TOLVEN::Clear(blob);
            return convert_.RowToBlob(*row, blob) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
        },
        false);
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::ReadBy(
    csdb_status (index_type::*search)(_BLOB_INFO*, Entry**, csdb_context*), unsigned int index,
    _BLOB_INFO* key, _BLOB_INFO* row, csdb_context* ctx) {
    return ReadBlob(index, row,
                    [&](index_type* ix, Entry** r, bool) { return (ix->*search)(key, r, ctx); });
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status
multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy, Locker>::ReadFromKey(
    csdb_status (index_type::*search)(bool, _BLOB_INFO*, Entry**, csdb_context*), bool resumes,
    unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row, csdb_context* ctx) {
    return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool restarted) {
        if (resumes && restarted && ix->FromContext(ctx, r) == CSDB_SUCCESS) return CSDB_SUCCESS;
        return (ix->*search)(false, key, r, ctx);
    });
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
template <class Search>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::DeleteMatching(unsigned int index, Search&& search) {
    uint64_t erased = 0;
    for (;;) {
        write_guard guard(lock_);
        index_type* ix = IndexAt(index);
        if (ix == nullptr) return CSDB_NO_SUCH_INDEX;
        Entry* row = nullptr;
        csdb_context at{};
        csdb_status st = search(ix, true, &row, &at);
        bool restart = false;
        while (st == CSDB_SUCCESS) {
            if (WaitIfLocked(row, guard)) {
                restart = true;
                break;
            }
            Entry* next = nullptr;
            st = search(ix, false, &next, &at);
            (void)EraseRow(row);
            ++erased;
            row = next;
        }
        if (restart) continue;
        return st == CSDB_END && erased > 0 ? CSDB_SUCCESS : st;
    }
}

template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
inline csdb_status multikeydb_impl<recordLocks, Entry, Convert, Lock, Allocator, Policy,
                                   Locker>::UpdateLocked(csdb_context* ctx, Entry* row,
                                                         const Entry& newRow, bool* gone) {
    uint32_t moved = 0;  // indexes whose key changed, by bit
    for (size_t i = 0; i < indexes_.size(); ++i) {
        if (indexes_[i] == nullptr) continue;
        bool changed = false;
        csdb_context* own = ctx->indexNumber == i ? ctx : nullptr;
        if (indexes_[i]->EraseIfChanged(&newRow, row, own, &changed) == CSDB_SUCCESS && changed)
            moved |= uint32_t{1} << i;
    }
    Entry saved(*row);
    *row = newRow;
    csdb_status result = CSDB_SUCCESS;
    uint32_t back = 0;  // indexes the row is back in
    for (size_t i = 0; i < indexes_.size() && result == CSDB_SUCCESS; ++i) {
        if ((moved & (uint32_t{1} << i)) == 0) continue;
        csdb_context* own = ctx->indexNumber == i ? ctx : nullptr;
        const csdb_status st = indexes_[i]->InsertAt(row, own, 0);
        if (st == CSDB_SUCCESS || st == CSDB_KEY_NULL)
            back |= uint32_t{1} << i;
        else
            result = st;
    }
    if (result == CSDB_SUCCESS) return CSDB_SUCCESS;
    // Roll back: take the moved nodes out again, restore the row, put them back.
    bool repaired = true;
    for (size_t i = 0; i < indexes_.size(); ++i)
        if ((back & (uint32_t{1} << i)) != 0 && indexes_[i]->Detach(row) != CSDB_SUCCESS)
            repaired = false;
    *row = saved;
    for (size_t i = 0; i < indexes_.size(); ++i)
        if ((moved & (uint32_t{1} << i)) != 0 &&
            indexes_[i]->InsertAt(row, nullptr, 0) != CSDB_SUCCESS)
            repaired = false;
    if (!repaired) {
        detail::LogMkdbMessage(detail::mkdb_message::update_corruption);
        *gone = true;
    }
    return result;
}

}  // namespace TOLVEN
