// The multi-key engine: fixed-size rows reachable through up to 16 ordered indexes, read
// as blobs through the csdb contract and written through typed calls.
//
// Pieces, from the bottom:
// - an index (mkdbindexbase, implemented by mkdbindeximpl and treeindex) maps a key wrapper
//   to the row's address and a 32-bit generation. Its nodes come from a pool of their own,
//   so that a cursor (csdb_context) can be checked without touching freed memory: the node
//   address must be a live block of that pool and its generation must match.
// - a table (multikeydb_impl, with multikeydb and multikeydb_rl) owns the rows, a pool of
//   them, and one read/write lock over its indexes and its row set. A multikeydb_rl adds
//   per-row record locks (dblock.h).
//
// Index traits. A treeindex is told how to handle its key by a Traits class with:
//   using key_type = Key;                                 // a plain, copyable value
//   static void MakeKey(const Entry& row, Key* key);      // the row's key
//   static int Compare(const Key& a, const Key& b);       // <0, 0, >0
//   static bool KeyToBlob(const Key& key, _BLOB_INFO* blob);    // key fields into a blob
//   static bool BlobToKey(const _BLOB_INFO* blob, Key* key);    // and back; false on failure
// A row converter (the table's Convert) has
//   bool RowToBlob(const Entry& row, _BLOB_INFO* blob);   // the row's named fields
// The blob side is read-only: rows come in only through AddRow and UpdateRow, so Add and
// Update of the contract answer CSDB_CONVERT_FAILED.
//
// Cursors. A context is valid while its node lives with the generation it recorded. When a
// row is updated and a key changes, the row's node is moved inside its index (taken out,
// given the new key, put back), never freed and made anew: its address and generation stay,
// so every context on the updated row, in every index, stays valid and continues from the
// row's new position ("kept"). A stale context in GetNext and GetPrev falls back to a search
// by the key the caller passes back; in an index with equal keys the fallback continues
// after all rows of that key, so it never repeats a row. KeyApprox and GetApprox give
// CSDB_NOT_SUPPORTED: a tree has no approximate search.
//
// Failures. Out of memory inside an index becomes CSDB_OUT_OF_MEMORY. The row pool throws
// std::bad_alloc when it is exhausted (AddRow); every lock is held by a scope guard, so the
// exception leaves no table or row lock behind. A key change that UpdateRow cannot undo
// removes the row and logs "multikeydb::update() corruption!" at ERROR.
//
// This header declares the engine; the template bodies are in tolven/detail/mkdb_*.h and
// what needs no template (record-lock waits, the engine's messages) is in the library.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "tolven/blob.h"
#include "tolven/blockalloclist.h"
#include "tolven/csdb.h"
#include "tolven/dblock.h"
#include "tolven/detail/mkdb_guards.h"
#include "tolven/detail/mkdb_node.h"
#include "tolven/fastblockallocator.h"
#include "tolven/rwlock.h"

namespace TOLVEN {

// An index whose rows may lack a key. Same behaviour as NotNullable here; such an index
// may not be index 0.
struct Nullable {
    static constexpr bool kNullable = true;
};
// An index every row has a key for.
struct NotNullable {
    static constexpr bool kNullable = false;
};

// The table's fixed settings; `maxIndexes` is the number of index slots (16 throughout).
template <class Entry, int unused1, int unused2, int unused3, int maxIndexes>
struct multikeydb_policy {
    static constexpr uint32_t kMaxIndexes = static_cast<uint32_t>(maxIndexes);
};

// The abstract index over rows of type Entry. Raw-key operations take a pointer to the
// index's Key and its size, which must equal the key's size (else CSDB_BAD_ARGUMENT).
// Not thread-safe: the owning table's lock serialises writers and lets readers share.
template <class Entry>
class mkdbindexbase {
  public:
    virtual ~mkdbindexbase() = default;
    // Exact search; a miss is CSDB_NOT_FOUND.
    virtual csdb_status FindKey(const void* key, size_t size, Entry** rowOut,
                                csdb_context* ctx) = 0;
    // Checks the context and gives its row; a stale one is CSDB_NOT_FOUND.
    virtual csdb_status FromContext(const csdb_context* ctx, Entry** rowOut) = 0;
    // The first row in index order (CSDB_END when empty).
    virtual csdb_status WalkFirst(Entry** rowOut, csdb_context* ctx) = 0;
    // The row after the context's; CSDB_END past the last, CSDB_NOT_FOUND when stale.
    virtual csdb_status WalkNext(Entry** rowOut, csdb_context* ctx) = 0;
    // The first row and its key (key may be null); CSDB_END when empty.
    virtual csdb_status KeyBegin(void* key, size_t size, Entry** rowOut, csdb_context* ctx) = 0;
    // The last row and its key (key may be null); CSDB_END when empty.
    virtual csdb_status KeyEnd(void* key, size_t size, Entry** rowOut, csdb_context* ctx) = 0;
    // The first row at or after `key`: CSDB_END when empty, CSDB_NOT_FOUND when every key is
    // below it; with `match`, CSDB_END when that row's key differs.
    virtual csdb_status KeyFirst(bool match, void* key, size_t size, Entry** rowOut,
                                 csdb_context* ctx) = 0;
    // The row after the context's, or after `key` when the context is stale (a null key:
    // CSDB_NOT_FOUND then). CSDB_END past the last row; the context is zeroed.
    virtual csdb_status KeyNext(bool match, void* key, size_t size, Entry** rowOut,
                                csdb_context* ctx) = 0;
    // The row before the context's, or before `key`; CSDB_BEGIN before the first.
    virtual csdb_status KeyPrev(bool match, void* key, size_t size, Entry** rowOut,
                                csdb_context* ctx) = 0;
    // The last row at or before `key`: CSDB_NOT_FOUND when every key is above it.
    virtual csdb_status KeyLast(bool match, void* key, size_t size, Entry** rowOut,
                                csdb_context* ctx) = 0;
    // No approximate search: CSDB_NOT_SUPPORTED.
    virtual csdb_status KeyApprox(void* key, size_t size, Entry** rowOut, csdb_context* ctx) = 0;
    // Blob forms of the searches above: the key is read from the blob through the traits
    // (CSDB_CONVERT_FAILED when it cannot be), and without `match` refilled on success.
    virtual csdb_status FindExact(const _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status Begin(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status End(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status GetFirst(bool match, _BLOB_INFO* key, Entry** rowOut,
                                 csdb_context* ctx) = 0;
    virtual csdb_status GetNext(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status GetPrev(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status GetLast(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    virtual csdb_status GetApprox(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) = 0;
    // Inserts the row with the next generation.
    virtual csdb_status Insert(Entry* row, csdb_context* ctx) = 0;
    // Inserts the row with `generation`; a node taken out by EraseIfChanged or Detach for
    // this row is put back instead (it keeps its own generation and allocates nothing).
    virtual csdb_status InsertAt(Entry* row, csdb_context* ctx, uint32_t generation) = 0;
    // Removes the row's node (or drops its taken-out node) and gives its generation.
    virtual csdb_status Erase(Entry* row, csdb_context* ctx, uint32_t* outGeneration) = 0;
    // Compares the keys of `newRow` and `oldRow` (the row in place); when they differ the
    // row's node is taken out to be put back by InsertAt, and `*outChanged` is true.
    virtual csdb_status EraseIfChanged(const Entry* newRow, Entry* oldRow, csdb_context* ctx,
                                       bool* outChanged) = 0;
    // Nodes in the index.
    virtual size_t Size() = 0;
    // True for an index of unique keys.
    virtual bool IsUnique() = 0;
    // Empties the index.
    virtual void Clear() = 0;
    // Sets the number contexts of this index carry.
    virtual void SetIndexNumber(uint32_t number) = 0;
    // Nodes inserted over the index's life (a fresh node; moves do not count).
    virtual uint64_t InsertCount() = 0;
    // Nodes erased over the index's life.
    virtual uint64_t EraseCount() = 0;
    // The row's key into a blob.
    virtual csdb_status KeyToBlob(const Entry* row, _BLOB_INFO* blob) = 0;
    // A raw key of `size` bytes into a blob.
    virtual csdb_status KeyToBlob(const void* key, size_t size, _BLOB_INFO* blob) = 0;
    // True for a nullable index.
    virtual bool IsNullable() = 0;
    // Takes the row's node out by the row's present key, to be put back by InsertAt.
    virtual csdb_status Detach(Entry* row) = 0;
};

// The key of a unique index.
template <class Key, class Entry>
struct mkdbkeywrap {
    Key key;
};

// The key of an index with equal keys: the row's address is the last sort term, so rows
// with equal keys are distinct and ordered by address.
template <class Key, class Entry>
struct mkdbkeywrap_multi {
    Key key;
    const Entry* row;
};

// The ordered-map index: `Map` maps a key wrapper to a detail::mkdb_node_value.
// Not thread-safe: the owning table's lock serialises writers and lets readers share.
template <bool multi, class Map, class Key, class Entry, class Traits>
class mkdbindeximpl : public mkdbindexbase<Entry> {
  protected:
    using iterator = typename Map::iterator;
    using wrap_type = typename Map::key_type;
    using pair_type = typename Map::value_type;
    static_assert(std::is_trivially_copyable_v<iterator>, "map iterators must be plain values");
    static_assert(sizeof(iterator) <= sizeof(Map::mapped_type::self), "room for the position");

  public:
    // An index on the pool of `allocator`'s list, made now so that readers only ever read
    // the pointer. The index holds one reference on the list until the map is gone.
    template <class Allocator>
    explicit mkdbindeximpl(const Allocator& allocator);
    ~mkdbindeximpl() override;

    // mkdbindexbase, as documented there.
    csdb_status FindKey(const void* key, size_t size, Entry** rowOut, csdb_context* ctx) override;
    csdb_status FromContext(const csdb_context* ctx, Entry** rowOut) override;
    csdb_status WalkFirst(Entry** rowOut, csdb_context* ctx) override;
    csdb_status WalkNext(Entry** rowOut, csdb_context* ctx) override;
    csdb_status KeyBegin(void* key, size_t size, Entry** rowOut, csdb_context* ctx) override {
        return KeyEdge(false, key, size, rowOut, ctx);
    }
    csdb_status KeyEnd(void* key, size_t size, Entry** rowOut, csdb_context* ctx) override {
        return KeyEdge(true, key, size, rowOut, ctx);
    }
    csdb_status KeyFirst(bool match, void* key, size_t size, Entry** rowOut,
                         csdb_context* ctx) override {
        return KeyBound(false, match, key, size, rowOut, ctx);
    }
    csdb_status KeyNext(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override;
    csdb_status KeyPrev(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override;
    csdb_status KeyLast(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override {
        return KeyBound(true, match, key, size, rowOut, ctx);
    }
    csdb_status KeyApprox(void*, size_t, Entry**, csdb_context*) override {
        return CSDB_NOT_SUPPORTED;
    }
    csdb_status FindExact(const _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override;
    csdb_status Begin(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return BlobEdge(false, key, rowOut, ctx);
    }
    csdb_status End(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return BlobEdge(true, key, rowOut, ctx);
    }
    csdb_status GetFirst(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return BlobBound(&mkdbindeximpl::KeyFirst, match, key, rowOut, ctx);
    }
    csdb_status GetNext(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return Step(&mkdbindeximpl::KeyNext, match, key, rowOut, ctx);
    }
    csdb_status GetPrev(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return Step(&mkdbindeximpl::KeyPrev, match, key, rowOut, ctx);
    }
    csdb_status GetLast(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return BlobBound(&mkdbindeximpl::KeyLast, match, key, rowOut, ctx);
    }
    csdb_status GetApprox(_BLOB_INFO*, Entry**, csdb_context*) override {
        return CSDB_NOT_SUPPORTED;
    }
    csdb_status Insert(Entry* row, csdb_context* ctx) override;
    csdb_status InsertAt(Entry* row, csdb_context* ctx, uint32_t generation) override;
    csdb_status Erase(Entry* row, csdb_context* ctx, uint32_t* outGeneration) override;
    csdb_status EraseIfChanged(const Entry* newRow, Entry* oldRow, csdb_context* ctx,
                               bool* outChanged) override;
    size_t Size() override { return map_.size(); }
    bool IsUnique() override { return !multi; }
    void Clear() override;
    void SetIndexNumber(uint32_t number) override { indexNumber_ = number; }
    uint64_t InsertCount() override { return inserts_.load(std::memory_order_relaxed); }
    uint64_t EraseCount() override { return erases_.load(std::memory_order_relaxed); }
    csdb_status KeyToBlob(const Entry* row, _BLOB_INFO* blob) override;
    csdb_status KeyToBlob(const void* key, size_t size, _BLOB_INFO* blob) override;
    csdb_status Detach(Entry* row) override;

  protected:
    using value_type = typename Map::mapped_type;
    // A raw-key search or cursor step (KeyFirst, KeyLast, KeyNext or KeyPrev).
    using step_type = csdb_status (mkdbindeximpl::*)(bool, void*, size_t, Entry**, csdb_context*);

    // Adds the index's reference on its node pool; a missing pool throws std::bad_alloc.
    static BlockAllocList* Hold(BlockAllocList* list);
    // True when the context names a live node of this index with the generation it saw.
    bool Validate(const csdb_context* ctx, iterator* out) const;
    // Records a node's own position inside it.
    static void SetSelf(iterator it);
    // Gives the node's row and fills the context for it.
    csdb_status Fill(iterator it, Entry** rowOut, csdb_context* ctx) const;
    // Fill, and the node's key into `key` (may be null).
    csdb_status FillKey(iterator it, void* key, Entry** rowOut, csdb_context* ctx) const;
    // A found row: with `match` it must carry `key` (else `miss`), without it its key is
    // written back.
    csdb_status Found(bool match, iterator it, Key& key, Entry** rowOut, csdb_context* ctx,
                      csdb_status miss) const;
    // Zeroes the context (may be null) and gives `st`.
    static csdb_status Zero(csdb_context* ctx, csdb_status st);
    // The key of a blob through the traits.
    static csdb_status ReadKey(const _BLOB_INFO* blob, Key* key);
    // After a successful `st`, the key into the blob (may be null) through the traits.
    static csdb_status WriteKey(csdb_status st, const Key& key, _BLOB_INFO* blob);
    // KeyFirst (the first row at or after the key) or KeyLast (`last`: the last row at or
    // before it).
    csdb_status KeyBound(bool last, bool match, void* key, size_t size, Entry** rowOut,
                         csdb_context* ctx);
    // KeyBegin (first row) or KeyEnd (`last`).
    csdb_status KeyEdge(bool last, void* key, size_t size, Entry** rowOut, csdb_context* ctx);
    // Begin or End (`last`) in blob form: the found row's key into the blob.
    csdb_status BlobEdge(bool last, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx);
    // GetFirst or GetLast: the bound search `search` from the key blob, which without
    // `match` is refilled with the found row's key.
    csdb_status BlobBound(step_type search, bool match, _BLOB_INFO* key, Entry** rowOut,
                          csdb_context* ctx);
    // A cursor step in blob form: the key blob, when given, is the fallback of a stale
    // context, and without `match` is refilled with the new row's key.
    csdb_status Step(step_type step, bool match, _BLOB_INFO* key, Entry** rowOut,
                     csdb_context* ctx);
    // The key of the context's node (a default key when stale).
    Key CurrentKey(const csdb_context* ctx) const;
    // The wrapper of `key` for the row.
    static wrap_type Wrap(const Key& key, const Entry* row);
    // The smallest and largest wrappers of `key`.
    static wrap_type Low(const Key& key) { return Wrap(key, nullptr); }
    static wrap_type High(const Key& key) {
        return Wrap(key, reinterpret_cast<const Entry*>(~uintptr_t{0}));
    }
    // The row's node, found by the row's present key (end() when absent).
    iterator FindRowNode(Entry* row);

    detail::mkdb_node_pool pool_;
    Map map_;
    ptrdiff_t valueOffset_ = -1;
    uint32_t indexNumber_ = 0;
    uint32_t nextGeneration_ = 0;
    std::atomic<uint64_t> inserts_{0};
    std::atomic<uint64_t> erases_{0};
    // The node of a row whose key is being changed, between EraseIfChanged and InsertAt.
    // (Held in an optional and only ever move-constructed: node handles are not assigned.)
    std::optional<typename Map::node_type> detached_;
    Entry* detachedRow_ = nullptr;
};

// The concrete tree index: keys of type Key built from rows by Traits, nodes from a pool of
// Allocator (a fast_allocator; `multi` allows equal keys). Not thread-safe: the owning
// table's lock serialises writers and lets readers share.
template <bool multi, class Key, class Entry, class Traits, class Allocator, class NullPolicy>
class treeindex
    : public mkdbindeximpl<multi, detail::mkdb_map_t<multi, Key, Entry, Traits, Allocator>, Key,
                           Entry, Traits> {
    using base = mkdbindeximpl<multi, detail::mkdb_map_t<multi, Key, Entry, Traits, Allocator>, Key,
                               Entry, Traits>;

  public:
    // An empty index with a node pool of its own.
    treeindex() : base(Allocator()) {}
    bool IsNullable() override { return NullPolicy::kNullable; }

    // Checks the context and removes its node.
    csdb_status EraseContext(csdb_context* ctx);
};

// A row of a table with record locks: the latch and lock word, then the row.
template <class Entry>
struct _data_ex {
    _dbrow_header header;
    Entry entry;
};

// What AddRow adds: the row to copy, and optionally a context to fill for index
// `contextIndex`. Plain value; not thread-safe.
template <class Entry>
struct mkdb_add_request {
    const Entry* row = nullptr;
    csdb_context* ctx = nullptr;
    uint32_t contextIndex = 0;
};

// Where a typed cursor step goes (StepRow).
enum mkdb_step : uint32_t {
    MKDB_BEGIN = 0,         // the first row
    MKDB_END = 1,           // the last row
    MKDB_AT_OR_AFTER = 2,   // the first row at or after the key
    MKDB_AT_OR_BEFORE = 3,  // the last row at or before the key
    MKDB_NEXT = 4,          // the row after the context's (or after the key)
    MKDB_PREV = 5,          // the row before the context's (or before the key)
};

// The multi-key table. `recordLocks` 1 gives every row a latch and a lock word and makes
// readers wait for rows other threads hold (Locker is then _record_locker<Lock>); 0 stores
// bare rows and has none of those steps (_empty_record_locker<Lock>). Rows come from a pool
// of Allocator (fast_allocator<Entry, rowsPerChunk, 1>). Up to Policy::kMaxIndexes indexes;
// index numbers may leave holes.
// Safe for concurrent use without external locking: one read/write lock covers the indexes
// and the rows; a row's latch covers its lock word and its copy-out.
template <int recordLocks, class Entry, class Convert, class Lock, class Allocator, class Policy,
          class Locker>
class multikeydb_impl : public csdb {
    static_assert(recordLocks == 0 || recordLocks == 1, "recordLocks is 0 or 1");
    static_assert(Locker::kEnabled == (recordLocks == 1), "the locker must suit recordLocks");
    static_assert(alignof(Entry) <= 8, "rows are 8-byte aligned");
    static constexpr bool kLocks = recordLocks == 1;
    using stored_type = std::conditional_t<kLocks, _data_ex<Entry>, Entry>;
    using row_allocator =
        typename std::allocator_traits<Allocator>::template rebind_alloc<stored_type>;
    using index_type = mkdbindexbase<Entry>;
    using read_guard = detail::mkdb_lock_guard<Locker, false>;
    using write_guard = detail::mkdb_lock_guard<Locker, true>;

  public:
    using entry_type = Entry;

    // A table with a lock of its own, its critical sections spinning `spinCount` times.
    explicit multikeydb_impl(uint32_t spinCount = 4000)
        : lock_(new Locker(spinCount)), ownsLock_(true) {}
    // A table on a caller's lock; `owned` makes the table delete it.
    multikeydb_impl(Locker* lock, bool owned) : lock_(lock), ownsLock_(owned) {}
    // Erases the rows, deletes the owned indexes and the owned lock.
    ~multikeydb_impl() override;
    multikeydb_impl(const multikeydb_impl&) = delete;
    multikeydb_impl& operator=(const multikeydb_impl&) = delete;

    // Adds `index` as number `number`, filled with the rows already in the table; `owned`
    // makes the table delete it. Waits until no row of the table is locked. An index that is
    // refused (any status but CSDB_SUCCESS) stays the caller's.
    csdb_status AddIndex(index_type* index, uint32_t number, bool owned);
    // Copies `request.row` into the table and every index. With `lockRow` the new row is
    // locked for this thread. Throws std::bad_alloc when the row pool is exhausted.
    csdb_status AddRow(const mkdb_add_request<Entry>& request, bool lockRow);
    // Copies the row whose key equals `key` into `*outRow` (may be null). With `lockRow`
    // the row is also locked for this thread. Waits while another thread holds the row.
    csdb_status FindRow(unsigned int index, const void* key, size_t size, Entry* outRow,
                        csdb_context* ctx, bool lockRow);
    // A typed cursor step over index `index`: `key` (of the index's key size) is the start
    // of a bound search and, for MKDB_NEXT and MKDB_PREV, the fallback of a stale context;
    // it receives the found row's key. The row is copied into `*outRow` (may be null).
    csdb_status StepRow(unsigned int index, mkdb_step step, void* key, size_t size, Entry* outRow,
                        csdb_context* ctx, bool lockRow);
    // Deletes every row whose key in `index` equals `key`: CSDB_SUCCESS when one went,
    // CSDB_END or CSDB_NOT_FOUND when none matched. Waits for rows other threads hold.
    csdb_status DeleteByKey(unsigned int index, const void* key, size_t size, csdb_context* ctx);
    // Gives up one hold of this thread's lock on the context's row: CSDB_NOT_LOCK_OWNER
    // when this thread holds none.
    csdb_status UnlockRecord(csdb_context* ctx);
    // Replaces the context's row by `newRow` in place, keeping every index consistent. A
    // key that changes moves the row's node in that index; contexts on the row stay valid.
    // A duplicate key rolls the row back and is the result. Waits while another thread
    // holds the row.
    csdb_status UpdateRow(csdb_context* ctx, const Entry* newRow);

    // csdb, as documented there. Rows are added through AddRow and changed through
    // UpdateRow only: Add and Update answer CSDB_CONVERT_FAILED. Clear erases every row
    // once no row is locked; CSDB_RECORD_LOCK_HELD (logged) when this thread holds a row
    // lock in the table, since it would wait for itself.
    csdb_status FindExact(unsigned int index, const _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override;
    csdb_status Begin(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                      csdb_context* ctx) override {
        return ReadBy(&index_type::Begin, index, key, row, ctx);
    }
    csdb_status End(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                    csdb_context* ctx) override {
        return ReadBy(&index_type::End, index, key, row, ctx);
    }
    csdb_status GetFirst(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                         csdb_context* ctx) override {
        return ReadFromKey(&index_type::GetFirst, false, index, key, row, ctx);
    }
    csdb_status GetNext(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadFromKey(&index_type::GetNext, true, index, key, row, ctx);
    }
    csdb_status GetPrev(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadFromKey(&index_type::GetPrev, true, index, key, row, ctx);
    }
    csdb_status GetLast(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadFromKey(&index_type::GetLast, false, index, key, row, ctx);
    }
    csdb_status GetApprox(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override {
        return ReadBy(&index_type::GetApprox, index, key, row, ctx);
    }
    csdb_status Add(const _BLOB_INFO* row, csdb_context* ctx) override;
    csdb_status DeleteAll(unsigned int index, const _BLOB_INFO* key, csdb_context* ctx) override;
    csdb_status DeleteItem(csdb_context* ctx) override;
    csdb_status Update(unsigned int index, const _BLOB_INFO* key, const _BLOB_INFO* row,
                       csdb_context* ctx) override;
    size_t NumIndexes() override;
    size_t Count() override;
    csdb_status Clear() override;

    // The table's lock (for inspection and the typed wrappers).
    Locker* GetLock() const noexcept { return lock_; }
    // Index slots (the highest number in use plus one).
    uint32_t IndexSlots() const noexcept { return indexSlots_; }
    // The lock word of a row handed out by this table (inspection; meaningful under the
    // row's latch or with the table quiet).
    static uintptr_t LockWordOf(const Entry* row) noexcept;

  private:
    static_assert(sizeof(_dbrow_header) == 16, "the row header is two words");

    // The header in front of a row of a table with record locks.
    static _dbrow_header& Header(Entry* row) noexcept;
    // The index of that number, or null.
    index_type* IndexAt(unsigned int number) const;
    // The first index in number order, skipping nullable ones when asked.
    index_type* FirstIndex(bool notNullable) const;
    // A row from the pool, copied from `source` (with a cleared header).
    Entry* NewRow(const Entry& source);
    // Takes the row out of every index, gives up its record lock and returns it to the
    // pool. CSDB_NOT_INDEXED when no index held it. Writer lock held, latch not held.
    csdb_status EraseRow(Entry* row);
    // Gives up the row's record lock and returns it to the pool; no index holds it now.
    void FreeRow(Entry* row);
    // Erases every row: the rows are collected from the first index, every index is
    // emptied at once, and each row gives up its record lock and goes back to the pool.
    // The same end as erasing row by row, without a search per row and index.
    void ClearRows();
    // True when the calling thread holds a lock on a row of the table (writer lock held).
    bool HoldsARow();
    // For a row another thread holds (latch and table lock taken): readies the wait, lets
    // go of both, and waits for the holder. The caller starts its operation again.
    template <class Guard>
    void WaitForHolder(_dbrow_header& header, detail::RowLatchGuard& latch, Guard& guard);
    // With the row's latch taken: when another thread holds the row, readies the wait,
    // releases latch and table lock, waits, and says so (the caller starts again).
    template <class Guard>
    bool WaitIfLocked(Entry* row, Guard& guard);
    // The read path: search under the reader lock, then with the row's latch either wait
    // for a row another thread holds and search again, or hand the row to `use` (and lock
    // it for this thread when asked).
    template <class Search, class Use>
    csdb_status ReadRow(unsigned int index, Search&& search, Use&& use, bool lockRow);
    // The read path of the csdb calls: the row, when asked for, into a cleared blob.
    template <class Search>
    csdb_status ReadBlob(unsigned int index, _BLOB_INFO* blob, Search&& search);
    // A blob read through the index's keyless search `search` (Begin, End, GetApprox).
    csdb_status ReadBy(csdb_status (index_type::*search)(_BLOB_INFO*, Entry**, csdb_context*),
                       unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row, csdb_context* ctx);
    // A blob read through the index's search from a key (GetFirst, GetNext, GetPrev,
    // GetLast); a cursor step (`resumes`) goes on from the context's row after a wait.
    csdb_status ReadFromKey(csdb_status (index_type::*search)(bool, _BLOB_INFO*, Entry**,
                                                              csdb_context*),
                            bool resumes, unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                            csdb_context* ctx);
    // Erases the rows a matching search finds; `search(ix, first, row, ctx)` starts it
    // (first) or steps it. A row another thread holds is waited for, and the search starts
    // again from the key.
    template <class Search>
    csdb_status DeleteMatching(unsigned int index, Search&& search);
    // UpdateRow's body, writer lock and latch held. `*gone` asks the caller to erase the
    // row after a roll-back that failed.
    csdb_status UpdateLocked(csdb_context* ctx, Entry* row, const Entry& newRow, bool* gone);

    std::vector<index_type*> indexes_;
    std::vector<bool> owned_;
    uint32_t indexSlots_ = 0;
    std::atomic<uint32_t> indexCount_{0};
    row_allocator rows_;
    Convert convert_;
    Locker* lock_;
    bool ownsLock_;
};

// A multi-key table without record locks. Safe for concurrent use without external locking.
template <class Entry, class Convert, class Lock, class Allocator, class Policy, class Locker>
class multikeydb : public multikeydb_impl<0, Entry, Convert, Lock, Allocator, Policy, Locker> {
    using base = multikeydb_impl<0, Entry, Convert, Lock, Allocator, Policy, Locker>;

  public:
    using base::base;
};

// A multi-key table with record locks. Safe for concurrent use without external locking.
template <class Entry, class Convert, class Lock, class Allocator, class Policy, class Locker>
class multikeydb_rl : public multikeydb_impl<1, Entry, Convert, Lock, Allocator, Policy, Locker> {
    using base = multikeydb_impl<1, Entry, Convert, Lock, Allocator, Policy, Locker>;

  public:
    using base::base;
};

}  // namespace TOLVEN

// The bodies of the templates above.
#include "tolven/detail/mkdb_index_impl.h"
#include "tolven/detail/mkdb_table_impl.h"
