// Sets of nodes. The caller owns the data; nothing here locks or allocates.
#ifndef ZEB_APP_SET_H
#define ZEB_APP_SET_H

#include <cstdint>

#include <zeb/zeb_msg.h>

constexpr uint32_t ZEB_SET_WORDS = 1024;
constexpr uint32_t ZEB_SET_SUMMARY_WORDS = ZEB_SET_WORDS / 64;

// Node n is bit (n mod 64) of word (n div 64). `used` has a bit for each word that is not zero, and `blocks` a bit for
// each word of `used` that is not zero, so walking and copying a sparse set touch few words. A word whose bit is clear
// may hold anything and must not be read.
typedef struct zeb_app_set_s {
    uint32_t blocks;
    uint64_t used[ZEB_SET_SUMMARY_WORDS];
    uint64_t bmp[ZEB_SET_WORDS];
} zeb_app_set_t;

static inline bool zeb_app_set_test(const zeb_app_set_t *set, uint32_t node)
{
    if (!zeb_valid_node_id(node))
        return false;
    uint32_t word = node / 64;
    if ((set->blocks >> (word / 64) & 1) == 0 || (set->used[word / 64] >> (word % 64) & 1) == 0)
        return false;
    return (set->bmp[word] >> (node % 64) & 1) != 0;
}

// Returns false, and changes nothing, for a node above 65535.
static inline bool zeb_app_set_add(zeb_app_set_t *set, uint32_t node)
{
    if (!zeb_valid_node_id(node))
        return false;
    uint32_t word = node / 64;
    uint64_t word_bit = 1ull << (word % 64);
    uint32_t block_bit = 1u << (word / 64);
    if ((set->blocks & block_bit) == 0)
        set->used[word / 64] = 0;
    set->blocks |= block_bit;
    if ((set->used[word / 64] & word_bit) == 0)
        set->bmp[word] = 0;
    set->used[word / 64] |= word_bit;
    set->bmp[word] |= 1ull << (node % 64);
    return true;
}

// Makes the set that of one node 0..65535.
static inline void zeb_app_set_one(zeb_app_set_t *set, uint32_t node)
{
    uint32_t word = node / 64;
    set->blocks = 1u << (word / 64);
    set->used[word / 64] = 1ull << (word % 64);
    set->bmp[word] = 1ull << (node % 64);
}

static inline void zeb_app_set_del(zeb_app_set_t *set, uint32_t node)
{
    if (!zeb_app_set_test(set, node))
        return;
    uint32_t word = node / 64;
    set->bmp[word] &= ~(1ull << (node % 64));
    if (set->bmp[word] == 0)
        set->used[word / 64] &= ~(1ull << (word % 64));
    if (set->used[word / 64] == 0)
        set->blocks &= ~(1u << (word / 64));
}

// Calls visit(index) for each set bit of `bits`, ascending, with `base` added.
template <typename Visit>
static inline void zeb_each_bit(uint64_t bits, uint32_t base, Visit visit)
{
    for (; bits != 0; bits &= bits - 1)
        visit(base + (uint32_t)__builtin_ctzll(bits));
}

// Calls visit(node) for each node of the set, ascending.
template <typename Visit>
static inline void zeb_app_set_each(const zeb_app_set_t *set, Visit visit)
{
    zeb_each_bit(set->blocks, 0, [&](uint32_t block) {
        zeb_each_bit(set->used[block], block * 64,
                     [&](uint32_t word) { zeb_each_bit(set->bmp[word], word * 64, visit); });
    });
}

#endif
