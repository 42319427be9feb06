/* An index beside an intrusive list: finds a record by its key without walking the list. The list owns the records and
 * keeps their order; the index refers to the same records by a second link. Of several records with one key it finds
 * the first one added, as a walk of the list would. A zeroed index is empty. Nothing here locks or allocates. The
 * number of chains is fixed, so a search takes a few steps among a thousand records and some hundreds among a hundred
 * thousand. The caller holds the lock that guards the list.
 *
 * The types are for C and C++, the functions for C++ alone. */
#ifndef PLATFORM_LIST_INDEX_H
#define PLATFORM_LIST_INDEX_H

#include <stdint.h>
#include <stdlib.h>

#include "platform/list_head.h"

#define LIST_INDEX_BITS 8
#define LIST_INDEX_CHAIN_NUM (1 << LIST_INDEX_BITS)

/* Embedded in a record under the name `index_link`. */
typedef struct list_index_link_s {
    struct list_index_link_s *next;
    uint64_t key;
} list_index_link_t;

typedef struct list_index_s {
    list_index_link_t *chain[LIST_INDEX_CHAIN_NUM];
    int num; /* records */
} list_index_t;

/* A list with its index. In C++ it knows the type of its records. */
typedef struct list_indexed_s {
    struct list_head list;
    list_index_t index;
} list_indexed_t;

#ifndef __cplusplus
#define LIST_INDEXED(type) list_indexed_t
#else
#define LIST_INDEXED(type) indexed_list<type>

// A key of two numbers.
static inline uint64_t list_index_key(uint32_t high, uint32_t low)
{
    return (uint64_t)high << 32 | low;
}

// The upper bits of the product depend on every bit of the key, so neighbouring node ids spread over all chains.
static inline unsigned list_index_chain(uint64_t key)
{
    return (unsigned)(key * 0x9E3779B97F4A7C15ull >> (64 - LIST_INDEX_BITS));
}

// The first record of the key that `match` accepts, or null.
template <typename T, typename Match>
static inline T *list_index_find_if(const list_index_t *index, uint64_t key, Match match)
{
    for (list_index_link_t *link = index->chain[list_index_chain(key)]; link != nullptr; link = link->next) {
        T *record = list_entry(link, T, index_link);
        if (link->key == key && match(record))
            return record;
    }
    return nullptr;
}

// The first record of the key, or null.
template <typename T>
static inline T *list_index_find(const list_index_t *index, uint64_t key)
{
    return list_index_find_if<T>(index, key, [](const T *) { return true; });
}

// Adds a record at the end of its chain.
template <typename T>
static inline void list_index_add(list_index_t *index, T *record, uint64_t key)
{
    list_index_link_t **end = &index->chain[list_index_chain(key)];
    while (*end != nullptr)
        end = &(*end)->next;
    record->index_link.key = key;
    record->index_link.next = nullptr;
    *end = &record->index_link;
    index->num++;
}

// Appends a record to its list and adds it to the index.
template <typename T>
static inline void list_index_append(struct list_head *head, list_index_t *index, T *record, uint64_t key)
{
    list_add_tail(&record->list, head);
    list_index_add(index, record, key);
}

// The first record of the key. If there is none, appends and returns the record that `create` returns.
template <typename T, typename Create>
static inline T *list_index_find_or_create(struct list_head *head, list_index_t *index, uint64_t key, Create create)
{
    T *record = list_index_find<T>(index, key);
    if (record != nullptr)
        return record;
    record = create();
    list_index_append(head, index, record, key);
    return record;
}

// Takes a record out of the index. A record that is not in the index changes nothing.
template <typename T>
static inline void list_index_del(list_index_t *index, T *record)
{
    list_index_link_t **at = &index->chain[list_index_chain(record->index_link.key)];
    while (*at != nullptr && *at != &record->index_link)
        at = &(*at)->next;
    if (*at == nullptr)
        return;
    *at = record->index_link.next;
    index->num--;
}

// Takes a record off its list and out of the index; the caller frees it.
template <typename T>
static inline void list_index_remove(list_index_t *index, T *record)
{
    list_del(&record->list);
    list_index_del(index, record);
}

// A list with its index. T has the links `list` and `index_link`.
template <typename T>
struct indexed_list : list_indexed_t {
};

template <typename T>
static inline void indexed_list_init(indexed_list<T> *records)
{
    INIT_LIST_HEAD(&records->list);
    records->index = {};
}

template <typename T>
static inline int indexed_list_num(const indexed_list<T> *records)
{
    return records->index.num;
}

// The first record of the key that `match` accepts, or null.
template <typename T, typename Match>
static inline T *indexed_list_find_if(const indexed_list<T> *records, uint64_t key, Match match)
{
    return list_index_find_if<T>(&records->index, key, match);
}

// The first record of the key, or null.
template <typename T>
static inline T *indexed_list_find(const indexed_list<T> *records, uint64_t key)
{
    return list_index_find<T>(&records->index, key);
}

template <typename T>
static inline void indexed_list_append(indexed_list<T> *records, T *record, uint64_t key)
{
    list_index_append(&records->list, &records->index, record, key);
}

// The first record of the key. If there is none, appends and returns the record that `create` returns.
template <typename T, typename Create>
static inline T *indexed_list_find_or_create(indexed_list<T> *records, uint64_t key, Create create)
{
    return list_index_find_or_create<T>(&records->list, &records->index, key, create);
}

// Takes a record off; the caller frees it.
template <typename T>
static inline void indexed_list_remove(indexed_list<T> *records, T *record)
{
    list_index_remove(&records->index, record);
}

// Calls visit(record) for each record in order. `visit` may remove and free its record.
template <typename T, typename Visit>
static inline void indexed_list_each(const indexed_list<T> *records, Visit visit)
{
    struct list_head *next = nullptr;
    for (struct list_head *link = records->list.next; link != &records->list; link = next) {
        next = link->next;
        visit(list_entry(link, T, list));
    }
}

// Removes and frees every record.
template <typename T>
static inline void indexed_list_clear(indexed_list<T> *records)
{
    indexed_list_each(records, [](T *record) { free(record); });
    indexed_list_init(records);
}

#endif

#endif
