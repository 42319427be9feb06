// An intrusive heap: keeps records by a key and finds the lowest. A pairing heap; a node is added in constant time and
// removed in logarithmic time on average. Nodes of one key come out in the order in which they were added. The caller
// owns the records and holds the lock; nothing here locks or allocates. A zeroed heap is empty.
#ifndef ZEB_HEAP_H
#define ZEB_HEAP_H

#include <cstdint>

typedef struct zeb_heap_node_s {
    struct zeb_heap_node_s *child;
    struct zeb_heap_node_s *next; // the next child of the same node
    struct zeb_heap_node_s *prev; // the child before, or the parent of a first child; null for the root
    int64_t key;
    uint64_t serial; // the order among equal keys; 0: not in a heap
} zeb_heap_node_t;

typedef struct zeb_heap_s {
    zeb_heap_node_t *root; // the lowest; null when the heap is empty
    uint64_t serial;       // of the last node added
} zeb_heap_t;

static inline bool zeb_heap_before(const zeb_heap_node_t *a, const zeb_heap_node_t *b)
{
    return a->key < b->key || (a->key == b->key && a->serial < b->serial);
}

// Makes one of two roots the first child of the other. Either may be null.
static inline zeb_heap_node_t *zeb_heap_merge(zeb_heap_node_t *a, zeb_heap_node_t *b)
{
    if (a == nullptr || b == nullptr)
        return a == nullptr ? b : a;
    zeb_heap_node_t *top = zeb_heap_before(a, b) ? a : b;
    zeb_heap_node_t *below = top == a ? b : a;
    below->next = top->child;
    below->prev = top;
    if (below->next != nullptr)
        below->next->prev = below;
    top->child = below;
    return top;
}

// Merges children to one root: in pairs first, then the pairs. That keeps removals logarithmic.
static inline zeb_heap_node_t *zeb_heap_merge_children(zeb_heap_node_t *first)
{
    zeb_heap_node_t *pairs = nullptr;
    while (first != nullptr) {
        zeb_heap_node_t *second = first->next;
        zeb_heap_node_t *rest = second == nullptr ? nullptr : second->next;
        first->next = first->prev = nullptr;
        if (second != nullptr)
            second->next = second->prev = nullptr;
        zeb_heap_node_t *pair = zeb_heap_merge(first, second);
        pair->next = pairs;
        pairs = pair;
        first = rest;
    }
    zeb_heap_node_t *root = nullptr;
    while (pairs != nullptr) {
        zeb_heap_node_t *rest = pairs->next;
        pairs->next = nullptr;
        root = zeb_heap_merge(root, pairs);
        pairs = rest;
    }
    return root;
}

static inline void zeb_heap_add(zeb_heap_t *heap, zeb_heap_node_t *node, int64_t key)
{
    *node = {nullptr, nullptr, nullptr, key, ++heap->serial};
    heap->root = zeb_heap_merge(heap->root, node);
}

// A node that is in no heap changes nothing.
static inline void zeb_heap_remove(zeb_heap_t *heap, zeb_heap_node_t *node)
{
    if (node->serial == 0)
        return;
    zeb_heap_node_t *below = zeb_heap_merge_children(node->child);
    if (node == heap->root) {
        heap->root = below;
    } else {
        (node->prev->child == node ? node->prev->child : node->prev->next) = node->next;
        if (node->next != nullptr)
            node->next->prev = node->prev;
        heap->root = zeb_heap_merge(heap->root, below);
    }
    *node = {};
}

#endif
