// The bodies of the multi-key engine's indexes (mkdbindeximpl, treeindex), declared in
// tolven/mkdbimpl.h. Included at the end of that header; not a header to include alone.
#pragma once

#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace TOLVEN {

template <bool multi, class Map, class Key, class Entry, class Traits>
template <class Allocator>
inline mkdbindeximpl<multi, Map, Key, Entry, Traits>::mkdbindeximpl(const Allocator& allocator)
    : pool_{Hold(allocator.Shared())},
      map_(typename Map::key_compare(), typename Map::allocator_type(&pool_)) {}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline mkdbindeximpl<multi, Map, Key, Entry, Traits>::~mkdbindeximpl() {
    detached_.reset();
    map_.clear();
    pool_.list->Release();
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::FindKey(const void* key,
                                                                          size_t size,
                                                                          Entry** rowOut,
                                                                          csdb_context* ctx) {
    if (key == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
    const Key& k = *static_cast<const Key*>(key);
    iterator it = map_.lower_bound(Low(k));
    if (it == map_.end() || Traits::Compare(it->first.key, k) != 0) return CSDB_NOT_FOUND;
    return Fill(it, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::FromContext(
    const csdb_context* ctx, Entry** rowOut) {
    iterator it;
    if (!Validate(ctx, &it)) return CSDB_NOT_FOUND;
    if (rowOut != nullptr) *rowOut = it->second.row;
    return CSDB_SUCCESS;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::WalkFirst(Entry** rowOut,
                                                                            csdb_context* ctx) {
    if (map_.empty()) return CSDB_END;
    return Fill(map_.begin(), rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::WalkNext(Entry** rowOut,
                                                                           csdb_context* ctx) {
    iterator it;
    if (!Validate(ctx, &it)) return CSDB_NOT_FOUND;
    if (++it == map_.end()) return Zero(ctx, CSDB_END);
    return Fill(it, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyNext(bool match, void* key,
                                                                          size_t size,
                                                                          Entry** rowOut,
                                                                          csdb_context* ctx) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyPrev(bool match, void* key,
                                                                          size_t size,
                                                                          Entry** rowOut,
                                                                          csdb_context* ctx) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::FindExact(const _BLOB_INFO* key,
                                                                            Entry** rowOut,
                                                                            csdb_context* ctx) {
    Key k{};
    const csdb_status st = ReadKey(key, &k);
    return st != CSDB_SUCCESS ? st : FindKey(&k, sizeof k, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Insert(Entry* row,
                                                                         csdb_context* ctx) {
    return InsertAt(row, ctx, ++nextGeneration_);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::InsertAt(Entry* row,
                                                                           csdb_context* ctx,
                                                                           uint32_t generation) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Erase(Entry* row,
                                                                        csdb_context* ctx,
                                                                        uint32_t* outGeneration) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::EraseIfChanged(
    const Entry* newRow, Entry* oldRow, csdb_context* ctx, bool* outChanged) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline void mkdbindeximpl<multi, Map, Key, Entry, Traits>::Clear() {
    map_.clear();
    detached_.reset();
    detachedRow_ = nullptr;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyToBlob(const Entry* row,
                                                                            _BLOB_INFO* blob) {
    if (row == nullptr || blob == nullptr) return CSDB_BAD_ARGUMENT;
    Key k{};
    Traits::MakeKey(*row, &k);
    return WriteKey(CSDB_SUCCESS, k, blob);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyToBlob(const void* key,
                                                                            size_t size,
                                                                            _BLOB_INFO* blob) {
    if (key == nullptr || blob == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
    return WriteKey(CSDB_SUCCESS, *static_cast<const Key*>(key), blob);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Detach(Entry* row) {
    iterator it = FindRowNode(row);
    if (it == map_.end()) return CSDB_NOT_FOUND;
    detached_.reset();
    detached_.emplace(map_.extract(it));
    detachedRow_ = row;
    return CSDB_SUCCESS;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline BlockAllocList* mkdbindeximpl<multi, Map, Key, Entry, Traits>::Hold(BlockAllocList* list) {
    if (list == nullptr) throw std::bad_alloc();
    list->AddRef();
    return list;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline bool mkdbindeximpl<multi, Map, Key, Entry, Traits>::Validate(const csdb_context* ctx,
                                                                    iterator* out) const {
    if (ctx == nullptr || ctx->indexNumber != indexNumber_ || ctx->node == 0 || valueOffset_ < 0)
        return false;
    auto* node = reinterpret_cast<char*>(static_cast<uintptr_t>(ctx->node));
    if (!pool_.list->IsValid(node, pool_.nodeSize)) return false;
    auto* pair = reinterpret_cast<pair_type*>(node + valueOffset_);
    if (pair->second.generation != ctx->generation) return false;
    std::memcpy(static_cast<void*>(out), pair->second.self, sizeof(iterator));
    return true;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline void mkdbindeximpl<multi, Map, Key, Entry, Traits>::SetSelf(iterator it) {
    std::memcpy(it->second.self, static_cast<const void*>(&it), sizeof(iterator));
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Fill(iterator it, Entry** rowOut,
                                                                       csdb_context* ctx) const {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::FillKey(iterator it, void* key,
                                                                          Entry** rowOut,
                                                                          csdb_context* ctx) const {
    if (key != nullptr) *static_cast<Key*>(key) = it->first.key;
    return Fill(it, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Found(bool match, iterator it,
                                                                        Key& key, Entry** rowOut,
                                                                        csdb_context* ctx,
                                                                        csdb_status miss) const {
    if (match) {
        if (Traits::Compare(it->first.key, key) != 0) return Zero(ctx, miss);
        return Fill(it, rowOut, ctx);
    }
    return FillKey(it, &key, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Zero(csdb_context* ctx,
                                                                       csdb_status st) {
    if (ctx != nullptr) *ctx = csdb_context{};
    return st;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::ReadKey(const _BLOB_INFO* blob,
                                                                          Key* key) {
    if (blob == nullptr) return CSDB_BAD_ARGUMENT;
    return Traits::BlobToKey(blob, key) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::WriteKey(csdb_status st,
                                                                           const Key& key,
                                                                           _BLOB_INFO* blob) {
    if (st != CSDB_SUCCESS || blob == nullptr) return st;
    (void)TOLVEN::Clear(blob);
    return Traits::KeyToBlob(key, blob) ? CSDB_SUCCESS : CSDB_CONVERT_FAILED;
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyBound(bool last, bool match,
                                                                           void* key, size_t size,
                                                                           Entry** rowOut,
                                                                           csdb_context* ctx) {
    if (key == nullptr || size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
    if (map_.empty()) return Zero(ctx, CSDB_END);
    Key& k = *static_cast<Key*>(key);
    iterator it;
    if (last) {
        it = map_.upper_bound(High(k));
        if (it == map_.begin()) return Zero(ctx, CSDB_NOT_FOUND);
        --it;
    } else {
        it = map_.lower_bound(Low(k));
        if (it == map_.end()) return Zero(ctx, CSDB_NOT_FOUND);
    }
    return Found(match, it, k, rowOut, ctx, CSDB_END);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::KeyEdge(bool last, void* key,
                                                                          size_t size,
                                                                          Entry** rowOut,
                                                                          csdb_context* ctx) {
    if (key != nullptr && size != sizeof(Key)) return CSDB_BAD_ARGUMENT;
    if (map_.empty()) return Zero(ctx, CSDB_END);
    return FillKey(last ? std::prev(map_.end()) : map_.begin(), key, rowOut, ctx);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::BlobEdge(bool last,
                                                                           _BLOB_INFO* key,
                                                                           Entry** rowOut,
                                                                           csdb_context* ctx) {
    Key k{};
    return WriteKey(last ? KeyEnd(&k, sizeof k, rowOut, ctx) : KeyBegin(&k, sizeof k, rowOut, ctx),
                    k, key);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::BlobBound(
    step_type search, bool match, _BLOB_INFO* key, Entry** rowOut, csdb_context* ctx) {
    Key k{};
    const csdb_status st = ReadKey(key, &k);
    if (st != CSDB_SUCCESS) return st;
    return WriteKey((this->*search)(match, &k, sizeof k, rowOut, ctx), k, match ? nullptr : key);
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline csdb_status mkdbindeximpl<multi, Map, Key, Entry, Traits>::Step(step_type step, bool match,
                                                                       _BLOB_INFO* key,
                                                                       Entry** rowOut,
                                                                       csdb_context* ctx) {
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

template <bool multi, class Map, class Key, class Entry, class Traits>
inline Key mkdbindeximpl<multi, Map, Key, Entry, Traits>::CurrentKey(
    const csdb_context* ctx) const {
    iterator it;
    return Validate(ctx, &it) ? it->first.key : Key{};
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline auto mkdbindeximpl<multi, Map, Key, Entry, Traits>::Wrap(const Key& key, const Entry* row)
    -> wrap_type {
    if constexpr (multi)
        return wrap_type{key, row};
    else
        return wrap_type{key};
}

template <bool multi, class Map, class Key, class Entry, class Traits>
inline auto mkdbindeximpl<multi, Map, Key, Entry, Traits>::FindRowNode(Entry* row) -> iterator {
    Key k{};
    Traits::MakeKey(*row, &k);
    iterator it = map_.find(Wrap(k, row));
    if (it != map_.end() && it->second.row != row) return map_.end();
    return it;
}

template <bool multi, class Key, class Entry, class Traits, class Allocator, class NullPolicy>
inline csdb_status treeindex<multi, Key, Entry, Traits, Allocator, NullPolicy>::EraseContext(
    csdb_context* ctx) {
    typename base::iterator it;
    if (!this->Validate(ctx, &it)) return CSDB_NOT_FOUND;
    this->map_.erase(it);
    this->erases_.fetch_add(1, std::memory_order_relaxed);
    return base::Zero(ctx, CSDB_SUCCESS);
}

}  // namespace TOLVEN
