// The index nodes of the multi-key engine: how key wrappers are ordered, the pool a map's
// nodes come from, what a node holds besides its key, and the map type a tree index uses.
// Included by tolven/mkdbimpl.h; not a header to include alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <new>
#include <type_traits>
#include <utility>

#include "tolven/blockalloclist.h"

namespace TOLVEN {

template <class Key, class Entry>
struct mkdbkeywrap;
template <class Key, class Entry>
struct mkdbkeywrap_multi;

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
}  // namespace TOLVEN
