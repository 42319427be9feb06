// Searches over the intrusive list of list_head.h, for C++: walk, find-first, find-or-create, remove-matching. Every
// search takes the first match in list order. The caller holds the lock that guards the list.
#ifndef PLATFORM_LIST_ALGO_H
#define PLATFORM_LIST_ALGO_H

#include <cstdlib>

#include "platform/list_head.h"

// T is the record. Every record calls its link `list`, so the template needs no further argument.
template <typename T>
static inline T *list_record(struct list_head *link)
{
    return list_entry(link, T, list);
}

// Calls visit(record) for each record in order. `visit` may unlink and free its record.
template <typename T, typename Visit>
static inline void list_each(struct list_head *head, Visit visit)
{
    struct list_head *next = nullptr;
    for (struct list_head *link = head->next; link != head; link = next) {
        next = link->next;
        visit(list_record<T>(link));
    }
}

// The first record that `match` accepts, or null.
template <typename T, typename Match>
static inline T *list_find(struct list_head *head, Match match)
{
    for (struct list_head *link = head->next; link != head; link = link->next) {
        T *record = list_record<T>(link);
        if (match(record))
            return record;
    }
    return nullptr;
}

// The first record that `match` accepts. If there is none, appends and returns the record that `create` returns.
template <typename T, typename Match, typename Create>
static inline T *list_find_or_create(struct list_head *head, Match match, Create create)
{
    T *record = list_find<T>(head, match);
    if (record != nullptr)
        return record;
    record = create();
    list_add_tail(&record->list, head);
    return record;
}

// Unlinks and returns the first record that `match` accepts; null if there is none.
template <typename T, typename Match>
static inline T *list_take_first(struct list_head *head, Match match)
{
    T *record = list_find<T>(head, match);
    if (record != nullptr)
        list_del(&record->list);
    return record;
}

// Unlinks and frees every record that `match` accepts, and calls before_free(record) before each is freed. Returns the
// number of records.
template <typename T, typename Match, typename BeforeFree>
static inline int list_remove_matching(struct list_head *head, Match match, BeforeFree before_free)
{
    int removed = 0;
    list_each<T>(head, [&](T *record) {
        if (!match(record))
            return;
        list_del(&record->list);
        before_free(record);
        free(record);
        removed++;
    });
    return removed;
}

template <typename T, typename Match>
static inline int list_remove_matching(struct list_head *head, Match match)
{
    return list_remove_matching<T>(head, match, [](T *) {});
}

static inline int list_length(const struct list_head *head)
{
    int length = 0;
    for (const struct list_head *link = head->next; link != head; link = link->next)
        length++;
    return length;
}

#endif
