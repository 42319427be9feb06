/* Intrusive circular doubly linked list, shared by C and C++ code of the platform. A record embeds a `struct
 * list_head`; the head of a list is a bare `struct list_head` initialised with INIT_LIST_HEAD. Nothing here locks or
 * allocates. list_algo.h has the usual searches for C++. */
#ifndef PLATFORM_LIST_HEAD_H
#define PLATFORM_LIST_HEAD_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

/* Makes `head` an empty list (or a link that is on no list). */
static inline void INIT_LIST_HEAD(struct list_head *head)
{
    head->next = head;
    head->prev = head;
}

static inline int list_empty(const struct list_head *head)
{
    return head->next == head;
}

/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the neighbours in list order */
static inline void list_add_between(struct list_head *entry, struct list_head *prev, struct list_head *next)
{
    next->prev = entry;
    entry->next = next;
    entry->prev = prev;
    prev->next = entry;
}

/* Puts `entry` first. */
static inline void list_add(struct list_head *entry, struct list_head *head)
{
    list_add_between(entry, head, head->next);
}

/* Puts `entry` last. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head)
{
    list_add_between(entry, head->prev, head);
}

/* Takes `entry` off its list and clears its links. */
static inline void list_del(struct list_head *entry)
{
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = NULL;
    entry->prev = NULL;
}

/* Moves all entries of `from` to the end of `to`, in order; `from` is empty afterwards. */
static inline void list_splice_tail_init(struct list_head *from, struct list_head *to)
{
    if (list_empty(from))
        return;
    from->next->prev = to->prev;
    to->prev->next = from->next;
    from->prev->next = to;
    to->prev = from->prev;
    INIT_LIST_HEAD(from);
}

/* The record of type `type` whose member `member` is the link `ptr`. */
#define list_entry(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))

#ifdef __cplusplus
}
#endif

#endif
