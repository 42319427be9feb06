// Which instances of which applications are online: the node sets, the topology events, join and quit.
// Topology events and setters run on the receive thread, queries on any; g_lib_mutex guards it all.
//
// One (application, node), by its bits in the sets below:
//   unknown   SYNC_INST received -> inst; acknowledged -> acked
//   inst      acknowledged -> both; forced quit -> unknown (a plain quit keeps the bit)
//   acked     SYNC_INST received -> both; any quit -> unknown
//   both      identities equal -> online; not equal -> acked
//   online    withdrawn, forced quit or try-quit -> unknown, with a quit event when it was a server
#ifndef ZEB_MNG_ONLINE_H
#define ZEB_MNG_ONLINE_H

#include <cstdint>
#include <linux/tipc.h>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_lock.h"
#include "zeb_mng.h"

constexpr uint32_t ZEB_SET_WORDS = 1024;
constexpr uint32_t ZEB_SET_SUMMARY_WORDS = ZEB_SET_WORDS / 64;

// A set of nodes. Node n is bit (n mod 64) of word (n div 64). `used` has a bit for each word that is not zero, and
// `blocks` one for each word of `used` that is not zero, so that walking and copying a sparse set touch few words; a
// word whose bit is clear is not looked at.
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

// Calls visit(node) for each node of the set, ascending. Empty words are skipped.
template <typename Visit>
static inline void zeb_app_set_each(const zeb_app_set_t *set, Visit visit)
{
    zeb_each_bit(set->blocks, 0, [&](uint32_t block) {
        zeb_each_bit(set->used[block], block * 64,
                     [&](uint32_t word) { zeb_each_bit(set->bmp[word], word * 64, visit); });
    });
}

// One local application that talks to a remote one.
typedef struct zeb_subscr_app_s {
    struct list_head list; // in subscr_app_list
    uint32_t subscr_app;
} zeb_subscr_app_t;

// The state of one remote application, shared by all local applications that talk to it.
typedef struct zeb_ol_app_s {
    struct list_head list;        // in g_zeb_mng.ol_app_list
    list_index_link_t index_link; // in g_zeb_mng.ol_app_index, by app_id
    uint32_t app_id;
    zeb_app_set_t srv_bmp;            // said that it is a server
    zeb_app_set_t inst_bmp;           // has synchronised with us
    zeb_app_set_t inst_ack_bmp;       // has acknowledged our synchronisation
    zeb_app_set_t ol_bmp;             // both, and the identities agree
    struct list_head subscr_app_list; // zeb_subscr_app_t
} zeb_ol_app_t;

zeb_ol_app_t *__zeb_get_ol_app(uint32_t app) ZEB_REQUIRES(g_lib_mutex);
void zeb_get_app_server(uint32_t app, zeb_app_set_t *ol_srv);
bool zeb_has_app_server(const zeb_app_set_t *ol_srv);

// Only those of `num` nodes that are online servers; returns whether the application has one on any node at all. For a
// call to few nodes: nothing is copied that it does not ask for.
bool zeb_get_app_server_on(uint32_t app, const uint32_t *nodes, int num, zeb_app_set_t *ol_srv);
bool zeb_app_online(uint32_t app, uint32_t node);
bool zeb_app_instance(uint32_t app, uint32_t node);

// zeb_app_instance and zeb_app_online in one look.
typedef struct zeb_inst_state_s {
    bool instance;
    bool online;
} zeb_inst_state_t;

zeb_inst_state_t zeb_get_inst_state(uint32_t app, uint32_t node);
void zeb_set_app_server(uint32_t app, uint32_t node);
void zeb_set_app_inst(uint32_t app, uint32_t node);
void zeb_set_app_inst_ack(uint32_t app, uint32_t node);
void zeb_try_notify_app_join(uint32_t my_app, uint32_t inst_node, uint32_t inst_app);

int zeb_add_comm_app(uint32_t src_app, uint32_t dst_app);
int __zeb_add_comm_app(uint32_t src_app, uint32_t dst_app) ZEB_REQUIRES(g_lib_mutex);
zeb_subscr_app_t *__zeb_get_subscr_app(uint32_t subscr_app, uint32_t ntf_app) ZEB_REQUIRES(g_lib_mutex);
void zeb_del_comm_app(uint32_t src_app) ZEB_REQUIRES(g_lib_mutex);

int zeb_subscr_app_events(uint32_t lower, uint32_t upper, uint32_t timeout);
int zeb_unsubscr_app_events(uint32_t lower, uint32_t upper);
void zeb_subscr_tipc_events();
void zeb_process_tipc_subscr_event(struct tipc_event event);

// Sends one request on the topology connection, again at once on EINTR, ENOMEM and ENOBUFS. 0, or -1 with errno.
int zeb_send_subscription(const struct tipc_subscr *request);

// Each takes g_lib_mutex itself and queues the quit event after releasing it: not to be called under a lock.
void zeb_app_inst_quit(uint32_t app, uint32_t node);
void zeb_app_inst_force_quit(uint32_t app, uint32_t node);
void zeb_app_inst_try_quit(uint32_t app, uint32_t node);

#endif
