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
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "tolven/blob.h"
#include "tolven/blockalloclist.h"
#include "tolven/csdb.h"
#include "tolven/dblock.h"
#include "tolven/fastblockallocator.h"
#include "tolven/logapi.h"
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

namespace detail {

// Orders key wrappers with the traits' comparison.
template <class Traits>
struct mkdb_key_less {
    template <class Key, class Entry>
    bool operator()(const mkdbkeywrap<Key, Entry>& a, const mkdbkeywrap<Key, Entry>& b) const {
        return Traits::Compare(a.key, b.key) < 0;
    }
    template <class Key, class Entry>
    bool operator()(const mkdbkeywrap_multi<Key, Entry>& a,
                    const mkdbkeywrap_multi<Key, Entry>& b) const {
        const int c = Traits::Compare(a.key, b.key);
        if (c != 0) return c < 0;
        return reinterpret_cast<uintptr_t>(a.row) < reinterpret_cast<uintptr_t>(b.row);
    }
};

// The node pool of an index, and what the index learnt of its blocks: the size of a node
// and the last block handed out, from which the value's offset inside a node is measured.
struct mkdb_node_pool {
    BlockAllocList* list = nullptr;
    void* lastBlock = nullptr;
    uint64_t nodeSize = 0;
};

// The index's map allocator: blocks of the index's pool, noting every block it hands out.
// It points at the pool without holding a reference (the index holds one for the map's
// whole life), so copies cost nothing and a copy the library forgets to destroy (a map's
// node handle after re-insertion) leaks nothing. Not thread-safe (used under the table's
// writer lock).
template <class T>
class mkdb_node_allocator {
  public:
    using value_type = T;
    template <class U>
    struct rebind {
        using other = mkdb_node_allocator<U>;
    };

    explicit mkdb_node_allocator(mkdb_node_pool* pool) noexcept : pool(pool) {}
    template <class U>
    mkdb_node_allocator(const mkdb_node_allocator<U>& other) noexcept : pool(other.pool) {}

    T* allocate(size_t n) {
        void* block = pool->list->GetBlock(n * sizeof(T));
        if (block == nullptr) throw std::bad_alloc();
        pool->lastBlock = block;
        pool->nodeSize = n * sizeof(T);
        return static_cast<T*>(block);
    }
    void deallocate(T* block, size_t n) noexcept {
        if (pool->list->ReleaseBlock(block, n * sizeof(T))) return;
        // A block of the pool that it refused is not the heap's to take.
        if (!pool->list->Owns(block)) std::free(block);
    }

    template <class U>
    bool operator==(const mkdb_node_allocator<U>& other) const noexcept {
        return pool == other.pool;
    }

    mkdb_node_pool* pool;
};

// What an index node holds besides its key: the row, the generation, and the node's own
// position in the map, so that a cursor step from a node costs one increment.
template <class Entry, size_t IteratorSize>
struct mkdb_node_value {
    Entry* row;
    uint32_t generation;
    alignas(void*) unsigned char self[IteratorSize];
};

}  // namespace detail

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
    explicit mkdbindeximpl(const Allocator& allocator)
        : pool_{Hold(allocator.Shared())},
          map_(typename Map::key_compare(), typename Map::allocator_type(&pool_)) {}
    ~mkdbindeximpl() override {
        detached_.reset();
        map_.clear();
        pool_.list->Release();
    }

    csdb_status FindKey(const void* key, size_t size, Entry** rowOut, csdb_context* ctx) override {
        if (key == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        const Key& k = *static_cast<const Key*>(key);
        iterator it = map_.lower_bound(Low(k));
        if (it == map_.end() || Traits::Compare(it->first.key, k) != 0) return CSDB_NOT_FOUND;
        return Fill(it, rowOut, ctx);
    }

    csdb_status FromContext(const csdb_context* ctx, Entry** rowOut) override {
        iterator it;
        if (!Validate(ctx, &it)) return CSDB_NOT_FOUND;
        if (rowOut != nullptr) *rowOut = it->second.row;
        return CSDB_SUCCESS;
    }

    csdb_status WalkFirst(Entry** rowOut, csdb_context* ctx) override {
        if (map_.empty()) return CSDB_END;
        return Fill(map_.begin(), rowOut, ctx);
    }

    csdb_status WalkNext(Entry** rowOut, csdb_context* ctx) override {
        iterator it;
        if (!Validate(ctx, &it)) return CSDB_NOT_FOUND;
        if (++it == map_.end()) return Zero(ctx, CSDB_END);
        return Fill(it, rowOut, ctx);
    }

    csdb_status KeyBegin(void* key, size_t size, Entry** rowOut, csdb_context* ctx) override {
        if (key != nullptr && size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        if (map_.empty()) return Zero(ctx, CSDB_END);
        return FillKey(map_.begin(), key, rowOut, ctx);
    }

    csdb_status KeyEnd(void* key, size_t size, Entry** rowOut, csdb_context* ctx) override {
        if (key != nullptr && size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        if (map_.empty()) return Zero(ctx, CSDB_END);
        return FillKey(std::prev(map_.end()), key, rowOut, ctx);
    }

    csdb_status KeyFirst(bool match, void* key, size_t size, Entry** rowOut,
                         csdb_context* ctx) override {
        if (key == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        if (map_.empty()) return Zero(ctx, CSDB_END);
        Key& k = *static_cast<Key*>(key);
        iterator it = map_.lower_bound(Low(k));
        if (it == map_.end()) return Zero(ctx, CSDB_NOT_FOUND);
        return Found(match, it, k, rowOut, ctx, CSDB_END);
    }

    csdb_status KeyNext(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override {
        if (key != nullptr && size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        iterator it;
        if (Validate(ctx, &it)) {
            ++it;
        } else {
            if (key == nullptr) return CSDB_NOT_FOUND;
            it = map_.upper_bound(High(*static_cast<const Key*>(key)));
        }
        if (it == map_.end()) return Zero(ctx, CSDB_END);
        if (key == nullptr) return Fill(it, rowOut, ctx);
        return Found(match, it, *static_cast<Key*>(key), rowOut, ctx, CSDB_END);
    }

    csdb_status KeyPrev(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override {
        if (key != nullptr && size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        iterator it;
        if (!Validate(ctx, &it)) {
            if (key == nullptr) return CSDB_NOT_FOUND;
            it = map_.lower_bound(Low(*static_cast<const Key*>(key)));
        }
        if (it == map_.begin()) return Zero(ctx, CSDB_BEGIN);
        --it;
        if (key == nullptr) return Fill(it, rowOut, ctx);
        return Found(match, it, *static_cast<Key*>(key), rowOut, ctx, CSDB_BEGIN);
    }

    csdb_status KeyLast(bool match, void* key, size_t size, Entry** rowOut,
                        csdb_context* ctx) override {
        if (key == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        if (map_.empty()) return Zero(ctx, CSDB_END);
        Key& k = *static_cast<Key*>(key);
        iterator it = map_.upper_bound(High(k));
        if (it == map_.begin()) return Zero(ctx, CSDB_NOT_FOUND);
        return Found(match, std::prev(it), k, rowOut, ctx, CSDB_END);
    }

    csdb_status KeyApprox(void*, size_t, Entry**, csdb_context*) override {
        return CSDB_NOT_SUPPORTED;
    }

    csdb_status FindExact(const _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        Key k{};
        const csdb_status st = ReadKey(key, &k);
        return st != CSDB_SUCCESS ? st : FindKey(&k, sizeof k, rowOut, ctx);
    }
    csdb_status Begin(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        Key k{};
        return WriteKey(KeyBegin(&k, sizeof k, rowOut, ctx), k, key);
    }
    csdb_status End(_BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        Key k{};
        return WriteKey(KeyEnd(&k, sizeof k, rowOut, ctx), k, key);
    }
    csdb_status GetFirst(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        Key k{};
        const csdb_status st = ReadKey(key, &k);
        if (st != CSDB_SUCCESS) return st;
        return WriteKey(KeyFirst(match, &k, sizeof k, rowOut, ctx), k, match ? nullptr : key);
    }
    csdb_status GetNext(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return Step(&mkdbindeximpl::KeyNext, match, key, rowOut, ctx);
    }
    csdb_status GetPrev(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        return Step(&mkdbindeximpl::KeyPrev, match, key, rowOut, ctx);
    }
    csdb_status GetLast(bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) override {
        Key k{};
        const csdb_status st = ReadKey(key, &k);
        if (st != CSDB_SUCCESS) return st;
        return WriteKey(KeyLast(match, &k, sizeof k, rowOut, ctx), k, match ? nullptr : key);
    }
    csdb_status GetApprox(_BLOB_INFO*, Entry**, csdb_context*) override {
        return CSDB_NOT_SUPPORTED;
    }

    csdb_status Insert(Entry* row, csdb_context* ctx) override {
        return InsertAt(row, ctx, ++nextGeneration_);
    }

    csdb_status InsertAt(Entry* row, csdb_context* ctx, uint32_t generation) override {
        if (row == nullptr) return CSDB_BAD_ARGUMENT;
        Key k{};
        Traits::MakeKey(*row, &k);
        if (detachedRow_ == row && detached_.has_value()) {
            detached_->key() = Wrap(k, row);
            auto result = map_.insert(std::move(*detached_));
            detached_.reset();
            if (!result.inserted) {
                detached_.emplace(std::move(result.node));
                return CSDB_DUPLICATE_KEY;
            }
            detachedRow_ = nullptr;
            SetSelf(result.position);
            return Fill(result.position, nullptr, ctx);
        }
        iterator it;
        try {
            auto result = map_.emplace(Wrap(k, row), value_type{row, generation, {}});
            if (!result.second) return CSDB_DUPLICATE_KEY;
            it = result.first;
        } catch (const std::bad_alloc&) {
            return CSDB_OUT_OF_MEMORY;
        }
        if (valueOffset_ < 0)
            valueOffset_ =
                reinterpret_cast<const char*>(&*it) - static_cast<const char*>(pool_.lastBlock);
        SetSelf(it);
        inserts_.fetch_add(1, std::memory_order_relaxed);
        return Fill(it, nullptr, ctx);
    }

    csdb_status Erase(Entry* row, csdb_context* ctx, uint32_t* outGeneration) override {
        if (row == nullptr) return CSDB_BAD_ARGUMENT;
        if (detachedRow_ == row && detached_.has_value()) {
            if (outGeneration != nullptr) *outGeneration = detached_->mapped().generation;
            detached_.reset();
            detachedRow_ = nullptr;
            erases_.fetch_add(1, std::memory_order_relaxed);
            return Zero(ctx, CSDB_SUCCESS);
        }
        iterator it = FindRowNode(row);
        if (it == map_.end()) return CSDB_NOT_FOUND;
        if (outGeneration != nullptr) *outGeneration = it->second.generation;
        map_.erase(it);
        erases_.fetch_add(1, std::memory_order_relaxed);
        return Zero(ctx, CSDB_SUCCESS);
    }

    csdb_status EraseIfChanged(const Entry* newRow, Entry* oldRow, csdb_context* ctx,
                               bool* outChanged) override {
        (void)ctx;  // the node moves, so a context on it stays valid
        if (outChanged != nullptr) *outChanged = false;
        if (newRow == nullptr || oldRow == nullptr) return CSDB_BAD_ARGUMENT;
        Key before{}, after{};
        Traits::MakeKey(*oldRow, &before);
        Traits::MakeKey(*newRow, &after);
        if (Traits::Compare(before, after) == 0) return CSDB_SUCCESS;
        const csdb_status st = Detach(oldRow);
        if (st == CSDB_SUCCESS && outChanged != nullptr) *outChanged = true;
        return st;
    }

    size_t Size() override { return map_.size(); }
    bool IsUnique() override { return !multi; }
    void Clear() override {
        map_.clear();
        detached_.reset();
        detachedRow_ = nullptr;
    }
    void SetIndexNumber(uint32_t number) override { indexNumber_ = number; }
    uint64_t InsertCount() override { return inserts_.load(std::memory_order_relaxed); }
    uint64_t EraseCount() override { return erases_.load(std::memory_order_relaxed); }

    csdb_status KeyToBlob(const Entry* row, _BLOB_INFO* blob) override {
        if (row == nullptr || blob == nullptr) return CSDB_BAD_ARGUMENT;
        Key k{};
        Traits::MakeKey(*row, &k);
        return WriteKey(CSDB_SUCCESS, k, blob);
    }
    csdb_status KeyToBlob(const void* key, size_t size, _BLOB_INFO* blob) override {
        if (key == nullptr || blob == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
        return WriteKey(CSDB_SUCCESS, *static_cast<const Key*>(key), blob);
    }

    csdb_status Detach(Entry* row) override {
        iterator it = FindRowNode(row);
        if (it == map_.end()) return CSDB_NOT_FOUND;
        detached_.reset();
        detached_.emplace(map_.extract(it));
        detachedRow_ = row;
        return CSDB_SUCCESS;
    }

  protected:
    using value_type = typename Map::mapped_type;

    static BlockAllocList* Hold(BlockAllocList* list) {
        if (list == nullptr) throw std::bad_alloc();
        list->AddRef();
        return list;
    }

    // True when the context names a live node of this index with the generation it saw.
    bool Validate(const csdb_context* ctx, iterator* out) const {
        if (ctx == nullptr || ctx->indexNumber != indexNumber_ || ctx->node == 0 ||
            valueOffset_ < 0)
            return false;
        auto* node = reinterpret_cast<char*>(static_cast<uintptr_t>(ctx->node));
        if (!pool_.list->IsValid(node, pool_.nodeSize)) return false;
        auto* pair = reinterpret_cast<pair_type*>(node + valueOffset_);
        if (pair->second.generation != ctx->generation) return false;
        std::memcpy(static_cast<void*>(out), pair->second.self, sizeof(iterator));
        return true;
    }

    static void SetSelf(iterator it) {
        std::memcpy(it->second.self, static_cast<const void*>(&it), sizeof(iterator));
    }

    csdb_status Fill(iterator it, Entry** rowOut, csdb_context* ctx) const {
        if (rowOut != nullptr) *rowOut = it->second.row;
        if (ctx != nullptr) {
            ctx->node = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&*it) -
                                              static_cast<uintptr_t>(valueOffset_));
            ctx->reserved = 0;
            ctx->indexNumber = indexNumber_;
            ctx->generation = it->second.generation;
        }
        return CSDB_SUCCESS;
    }

    csdb_status FillKey(iterator it, void* key, Entry** rowOut, csdb_context* ctx) const {
        if (key != nullptr) *static_cast<Key*>(key) = it->first.key;
        return Fill(it, rowOut, ctx);
    }

    // A found row: with `match` it must carry `key` (else `miss`), without it its key is
    // written back.
    csdb_status Found(bool match, iterator it, Key& key, Entry** rowOut, csdb_context* ctx,
                      csdb_status miss) const {
        if (match) {
            if (Traits::Compare(it->first.key, key) != 0) return Zero(ctx, miss);
            return Fill(it, rowOut, ctx);
        }
        return FillKey(it, &key, rowOut, ctx);
    }

    static csdb_status Zero(csdb_context* ctx, csdb_status st) {
        if (ctx != nullptr) *ctx = csdb_context{};
        return st;
    }

    static csdb_status ReadKey(const _BLOB_INFO* blob, Key* key) {
        if (blob == nullptr) return CSDB_BAD_ARGUMENT;
        return Traits::BlobToKey(blob, key) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
    }

    static csdb_status WriteKey(csdb_status st, const Key& key, _BLOB_INFO* blob) {
        if (st != CSDB_SUCCESS || blob == nullptr) return st;
        (void)TOLVEN::Clear(blob);
        return Traits::KeyToBlob(key, blob) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
    }

    // A cursor step in blob form: the key blob, when given, is the fallback of a stale
    // context, and without `match` is refilled with the new row's key.
    csdb_status Step(csdb_status (mkdbindeximpl::*step)(bool, void*, size_t, Entry**,
                                                        csdb_context*),
                     bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) {
        Key k{};
        if (key == nullptr) return (this->*step)(match, nullptr, sizeof k, rowOut, ctx);
        if (!Traits::BlobToKey(key, &k)) {
            // An empty key blob still lets a valid context move.
            iterator it;
            if (!Validate(ctx, &it)) return CSDB_CONVERT_FAILED;
            return WriteKey((this->*step)(match, nullptr, sizeof k, rowOut, ctx), CurrentKey(ctx),
                            match ? nullptr : key);
        }
        return WriteKey((this->*step)(match, &k, sizeof k, rowOut, ctx), k, match ? nullptr : key);
    }

    Key CurrentKey(const csdb_context* ctx) const {
        iterator it;
        return Validate(ctx, &it) ? it->first.key : Key{};
    }

    static wrap_type Wrap(const Key& key, const Entry* row) {
        if constexpr (multi)
            return wrap_type{key, row};
        else
            return wrap_type{key};
    }
    // The smallest and largest wrappers of `key`.
    static wrap_type Low(const Key& key) { return Wrap(key, nullptr); }
    static wrap_type High(const Key& key) {
        return Wrap(key, reinterpret_cast<const Entry*>(~uintptr_t{0}));
    }

    iterator FindRowNode(Entry* row) {
        Key k{};
        Traits::MakeKey(*row, &k);
        iterator it = map_.find(Wrap(k, row));
        if (it != map_.end() && it->second.row != row) return map_.end();
        return it;
    }

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

namespace detail {

template <bool multi, class Key, class Entry>
using mkdb_wrap_t =
    std::conditional_t<multi, mkdbkeywrap_multi<Key, Entry>, mkdbkeywrap<Key, Entry>>;

// Room for a map iterator, measured on a map of the same key type.
template <bool multi, class Key, class Entry, class Traits>
inline constexpr size_t mkdb_iterator_size = sizeof(
    typename std::map<mkdb_wrap_t<multi, Key, Entry>, void*, mkdb_key_less<Traits>>::iterator);

template <bool multi, class Key, class Entry, class Traits, class Allocator>
using mkdb_map_t =
    std::map<mkdb_wrap_t<multi, Key, Entry>,
             mkdb_node_value<Entry, mkdb_iterator_size<multi, Key, Entry, Traits>>,
             mkdb_key_less<Traits>,
             mkdb_node_allocator<
                 std::pair<const mkdb_wrap_t<multi, Key, Entry>,
                           mkdb_node_value<Entry, mkdb_iterator_size<multi, Key, Entry, Traits>>>>>;

}  // namespace detail

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
    csdb_status EraseContext(csdb_context* ctx) {
        typename base::iterator it;
        if (!this->Validate(ctx, &it)) return CSDB_NOT_FOUND;
        this->map_.erase(it);
        this->erases_.fetch_add(1, std::memory_order_relaxed);
        return base::Zero(ctx, CSDB_SUCCESS);
    }
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

namespace detail {

// Holds a table's reader or writer lock for a scope. Not thread-safe.
template <class L, bool writer>
class mkdb_lock_guard {
  public:
    explicit mkdb_lock_guard(L* lock) : lock_(lock) {
        if constexpr (writer)
            (void)lock_->LockWriter(kInfinite);
        else
            (void)lock_->LockReader(kInfinite);
    }
    ~mkdb_lock_guard() { Release(); }
    mkdb_lock_guard(const mkdb_lock_guard&) = delete;
    mkdb_lock_guard& operator=(const mkdb_lock_guard&) = delete;
    // Releases the lock now.
    void Release() {
        if (lock_ == nullptr) return;
        if constexpr (writer)
            (void)lock_->UnlockWriter();
        else
            (void)lock_->UnlockReader();
        lock_ = nullptr;
    }

  private:
    L* lock_;
};

// Holds a table for exclusive use (writer lock, no row locked) for a scope. `held()` is
// false when the caller holds a row lock of the table itself and was refused.
// Not thread-safe.
template <class L>
class mkdb_exclusive_guard {
  public:
    template <class HeldBySelf>
    mkdb_exclusive_guard(L* lock, HeldBySelf&& heldBySelf)
        : lock_(lock->EnterExclusive(heldBySelf) ? lock : nullptr) {}
    ~mkdb_exclusive_guard() {
        if (lock_ != nullptr) lock_->LeaveExclusive();
    }
    bool held() const noexcept { return lock_ != nullptr; }
    mkdb_exclusive_guard(const mkdb_exclusive_guard&) = delete;
    mkdb_exclusive_guard& operator=(const mkdb_exclusive_guard&) = delete;

  private:
    L* lock_;
};

// A process-wide pointer built on first use under a spin word: compare-and-swap 0 to 1,
// 100 ms asleep between tries; the object is published with a full fence, and the fast
// path reads the pointer without a lock. Constant-initialised, so it may be a namespace
// static. Safe for concurrent use without external locking.
template <class T>
class mkdb_accessor {
  public:
    constexpr mkdb_accessor() noexcept = default;

    // The object, made by `make()` (which returns a T* or null) when there is none yet.
    template <class Make>
    T* Get(Make&& make) {
        T* object = object_.load(std::memory_order_acquire);
        if (object != nullptr) return object;
        Enter();
        object = object_.load(std::memory_order_acquire);
        if (object == nullptr) {
            try {
                object = make();
            } catch (...) {
                Leave();
                throw;
            }
            // A sequentially consistent store: a full fence before the pointer is seen.
            object_.store(object, std::memory_order_seq_cst);
        }
        Leave();
        return object;
    }

    // Under the spin word: when `mayDestroy(object)` agrees (or there is no object), clears
    // the pointer and gives the object to `destroy`. False when refused.
    template <class MayDestroy, class DestroyFn>
    bool Destroy(MayDestroy&& mayDestroy, DestroyFn&& destroy) {
        Enter();
        T* object = object_.load(std::memory_order_acquire);
        if (object != nullptr && !mayDestroy(object)) {
            Leave();
            return false;
        }
        object_.store(nullptr, std::memory_order_release);
        Leave();
        if (object != nullptr) destroy(object);
        return true;
    }

    // The object if built (no building).
    T* Peek() const noexcept { return object_.load(std::memory_order_acquire); }

  private:
    void Enter() {
        uint32_t expected = 0;
        while (!spin_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
            expected = 0;
            RecordLockSleepMs(100);
        }
    }
    void Leave() { spin_.store(0, std::memory_order_release); }

    std::atomic<uint32_t> spin_{0};
    std::atomic<T*> object_{nullptr};
};

// Where the engine's log lines come from.
inline constexpr const char* kMkdbLogSource = "include/mkdbimpl";

}  // namespace detail

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
    ~multikeydb_impl() override {
        ClearRows();
        for (size_t i = 0; i < indexes_.size(); ++i)
            if (owned_[i]) delete indexes_[i];
        if (ownsLock_) delete lock_;
    }
    multikeydb_impl(const multikeydb_impl&) = delete;
    multikeydb_impl& operator=(const multikeydb_impl&) = delete;

    // Adds `index` as number `number`, filled with the rows already in the table; `owned`
    // makes the table delete it. Waits until no row of the table is locked. An index that is
    // refused (any status but CSDB_SUCCESS) stays the caller's.
    csdb_status AddIndex(index_type* index, uint32_t number, bool owned) {
        if (index == nullptr) return CSDB_BAD_ARGUMENT;
        if (indexCount_.load(std::memory_order_acquire) >= Policy::kMaxIndexes ||
            number >= Policy::kMaxIndexes)
            return CSDB_TOO_MANY_INDEXES;
        if (number == 0 && index->IsNullable()) return CSDB_NULLABLE_FIRST_INDEX;
        index->Clear();
        detail::mkdb_exclusive_guard<Locker> guard(lock_, [this] { return HoldsARow(); });
        if (!guard.held()) {
            TOLVEN_LOG(LOGGER_ERROR, detail::kMkdbLogSource, "TOLVEN::multikeydb_impl::AddIndex",
                       "multikeydb: AddIndex() called while this thread holds a record lock");
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

    // Copies `request.row` into the table and every index. With `lockRow` the new row is
    // locked for this thread. Throws std::bad_alloc when the row pool is exhausted.
    csdb_status AddRow(const mkdb_add_request<Entry>& request, bool lockRow) {
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

    // Copies the row whose key equals `key` into `*outRow` (may be null). With `lockRow`
    // the row is also locked for this thread. Waits while another thread holds the row.
    csdb_status FindRow(unsigned int index, const void* key, size_t size, Entry* outRow,
                        csdb_context* ctx, bool lockRow) {
        return ReadRow(
            index,
            [&](index_type* ix, Entry** row, bool) { return ix->FindKey(key, size, row, ctx); },
            [&](Entry* row) {
                if (outRow != nullptr) *outRow = *row;
                return CSDB_SUCCESS;
            },
            lockRow);
    }

    // A typed cursor step over index `index`: `key` (of the index's key size) is the start
    // of a bound search and, for MKDB_NEXT and MKDB_PREV, the fallback of a stale context;
    // it receives the found row's key. The row is copied into `*outRow` (may be null).
    csdb_status StepRow(unsigned int index, mkdb_step step, void* key, size_t size, Entry* outRow,
                        csdb_context* ctx, bool lockRow) {
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
            [&](Entry* row) {
                if (outRow != nullptr) *outRow = *row;
                return CSDB_SUCCESS;
            },
            lockRow);
    }

    // Deletes every row whose key in `index` equals `key`: CSDB_SUCCESS when one went,
    // CSDB_END or CSDB_NOT_FOUND when none matched. Waits for rows other threads hold.
    csdb_status DeleteByKey(unsigned int index, const void* key, size_t size, csdb_context* ctx) {
        (void)ctx;
        return DeleteMatching(
            index, [&](index_type* ix, bool first, Entry** row, csdb_context* at) {
                void* k = const_cast<void*>(key);  // a matching search leaves the key alone
                return first ? ix->KeyFirst(true, k, size, row, at)
                             : ix->KeyNext(true, k, size, row, at);
            });
    }

    // Gives up one hold of this thread's lock on the context's row: CSDB_NOT_LOCK_OWNER
    // when this thread holds none.
    csdb_status UnlockRecord(csdb_context* ctx) {
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

    // Replaces the context's row by `newRow` in place, keeping every index consistent. A
    // key that changes moves the row's node in that index; contexts on the row stay valid.
    // A duplicate key rolls the row back and is the result. Waits while another thread
    // holds the row.
    csdb_status UpdateRow(csdb_context* ctx, const Entry* newRow) {
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

    // ---- csdb --------------------------------------------------------------------------

    csdb_status FindExact(unsigned int index, const _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool) {
            return ix->FindExact(key, r, ctx);
        });
    }
    csdb_status Begin(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                      csdb_context* ctx) override {
        return ReadBlob(index, row,
                        [&](index_type* ix, Entry** r, bool) { return ix->Begin(key, r, ctx); });
    }
    csdb_status End(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                    csdb_context* ctx) override {
        return ReadBlob(index, row,
                        [&](index_type* ix, Entry** r, bool) { return ix->End(key, r, ctx); });
    }
    csdb_status GetFirst(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                         csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool) {
            return ix->GetFirst(false, key, r, ctx);
        });
    }
    csdb_status GetNext(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool restarted) {
            if (restarted && ix->FromContext(ctx, r) == CSDB_SUCCESS) return CSDB_SUCCESS;
            return ix->GetNext(false, key, r, ctx);
        });
    }
    csdb_status GetPrev(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool restarted) {
            if (restarted && ix->FromContext(ctx, r) == CSDB_SUCCESS) return CSDB_SUCCESS;
            return ix->GetPrev(false, key, r, ctx);
        });
    }
    csdb_status GetLast(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                        csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool) {
            return ix->GetLast(false, key, r, ctx);
        });
    }
    csdb_status GetApprox(unsigned int index, _BLOB_INFO* key, _BLOB_INFO* row,
                          csdb_context* ctx) override {
        return ReadBlob(index, row, [&](index_type* ix, Entry** r, bool) {
            return ix->GetApprox(key, r, ctx);
        });
    }
    // Rows are added through AddRow only.
    csdb_status Add(const _BLOB_INFO* row, csdb_context* ctx) override {
        (void)ctx;
        return row == nullptr ? CSDB_BAD_ARGUMENT : CSDB_CONVERT_FAILED;
    }
    csdb_status DeleteAll(unsigned int index, const _BLOB_INFO* key, csdb_context* ctx) override {
        (void)ctx;
        if (key == nullptr) return CSDB_BAD_ARGUMENT;
        auto* k = const_cast<_BLOB_INFO*>(key);  // a matching search leaves the key alone
        return DeleteMatching(
            index, [&](index_type* ix, bool first, Entry** row, csdb_context* at) {
                return first ? ix->GetFirst(true, k, row, at) : ix->GetNext(true, k, row, at);
            });
    }
    csdb_status DeleteItem(csdb_context* ctx) override {
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
    // Rows are changed through UpdateRow only.
    csdb_status Update(unsigned int index, const _BLOB_INFO* key, const _BLOB_INFO* row,
                       csdb_context* ctx) override {
        (void)index, (void)row, (void)ctx;
        return key == nullptr ? CSDB_BAD_ARGUMENT : CSDB_CONVERT_FAILED;
    }
    size_t NumIndexes() override {
        read_guard guard(lock_);
        return indexCount_.load(std::memory_order_relaxed);
    }
    size_t Count() override {
        read_guard guard(lock_);
        index_type* ix = FirstIndex(true);
        return ix == nullptr ? 0 : ix->Size();
    }
    // Erases every row, once no row is locked. CSDB_RECORD_LOCK_HELD (logged) when this
    // thread holds a row lock in the table, since it would wait for itself.
    csdb_status Clear() override {
        detail::mkdb_exclusive_guard<Locker> guard(lock_, [this] { return HoldsARow(); });
        if (!guard.held()) {
            TOLVEN_LOG(LOGGER_ERROR, detail::kMkdbLogSource, "TOLVEN::multikeydb_impl::Clear",
                       "multikeydb: Clear() called while this thread holds a record lock");
            return CSDB_RECORD_LOCK_HELD;
        }
        ClearRows();
        return CSDB_SUCCESS;
    }

    // The table's lock (for inspection and the typed wrappers).
    Locker* GetLock() const noexcept { return lock_; }
    // Index slots (the highest number in use plus one).
    uint32_t IndexSlots() const noexcept { return indexSlots_; }

    // The lock word of a row handed out by this table (inspection; meaningful under the
    // row's latch or with the table quiet).
    static uintptr_t LockWordOf(const Entry* row) noexcept {
        if constexpr (kLocks)
            return Header(const_cast<Entry*>(row)).word.load(std::memory_order_relaxed);
        else
            return 0;
    }

  private:
    static _dbrow_header& Header(Entry* row) noexcept {
        // The row follows a 16-byte, 8-aligned header: it starts 16 bytes in.
        return *reinterpret_cast<_dbrow_header*>(reinterpret_cast<char*>(row) -
                                                 sizeof(_dbrow_header));
    }
    static_assert(sizeof(_dbrow_header) == 16, "the row header is two words");

    index_type* IndexAt(unsigned int number) const {
        return number < indexes_.size() ? indexes_[number] : nullptr;
    }
    // The first index in number order, skipping nullable ones when asked.
    index_type* FirstIndex(bool notNullable) const {
        for (index_type* ix : indexes_)
            if (ix != nullptr && !(notNullable && ix->IsNullable())) return ix;
        return nullptr;
    }

    Entry* NewRow(const Entry& source) {
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

    // Takes the row out of every index, gives up its record lock and returns it to the
    // pool. CSDB_NOT_INDEXED when no index held it. Writer lock held, latch not held.
    csdb_status EraseRow(Entry* row) {
        csdb_status result = CSDB_NOT_INDEXED;
        for (index_type* ix : indexes_) {
            if (ix == nullptr) continue;
            uint32_t generation = 0;
            if (ix->Erase(row, nullptr, &generation) == CSDB_SUCCESS) result = CSDB_SUCCESS;
        }
        FreeRow(row);
        return result;
    }

    // Gives up the row's record lock and returns it to the pool; no index holds it now.
    void FreeRow(Entry* row) {
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

    // Erases every row: the rows are collected from the first index, every index is
    // emptied at once, and each row gives up its record lock and goes back to the pool.
    // The same end as erasing row by row, without a search per row and index.
    void ClearRows() {
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

    // True when the calling thread holds a lock on a row of the table (writer lock held).
    bool HoldsARow() {
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

    // For a row another thread holds (latch and table lock taken): readies the wait, lets
    // go of both, and waits for the holder. The caller starts its operation again.
    template <class Guard>
    void WaitForHolder(_dbrow_header& header, detail::RowLatchGuard& latch, Guard& guard) {
        _dblock_handle* handle = lock_->PrepareWait(header);
        latch.Release();
        guard.Release();
        Locker::WaitRow(handle);
    }

    // With the row's latch taken: when another thread holds the row, readies the wait,
    // releases latch and table lock, waits, and says so (the caller starts again).
    template <class Guard>
    bool WaitIfLocked(Entry* row, Guard& guard) {
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

    // The read path: search under the reader lock, then with the row's latch either wait
    // for a row another thread holds and search again, or hand the row to `use` (and lock
    // it for this thread when asked).
    template <class Search, class Use>
    csdb_status ReadRow(unsigned int index, Search&& search, Use&& use, bool lockRow) {
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

    template <class Search>
    csdb_status ReadBlob(unsigned int index, _BLOB_INFO* blob, Search&& search) {
        return ReadRow(
            index, search,
            [&](Entry* row) {
                if (blob == nullptr) return CSDB_SUCCESS;
                (void)TOLVEN::Clear(blob);
                return convert_.RowToBlob(*row, blob) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
            },
            false);
    }

    // Erases the rows a matching search finds; `search(ix, first, row, ctx)` starts it
    // (first) or steps it. A row another thread holds is waited for, and the search starts
    // again from the key.
    template <class Search>
    csdb_status DeleteMatching(unsigned int index, Search&& search) {
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

    // UpdateRow's body, writer lock and latch held. `*gone` asks the caller to erase the
    // row after a roll-back that failed.
    csdb_status UpdateLocked(csdb_context* ctx, Entry* row, const Entry& newRow, bool* gone) {
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
            TOLVEN_LOG(LOGGER_ERROR, detail::kMkdbLogSource, "TOLVEN::multikeydb_impl::UpdateRow",
                       "multikeydb::update() corruption!");
            *gone = true;
        }
        return result;
    }

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
