// An application's private fan-out lists: groups of applications and groups of nodes. They live in the application's
// record and never travel.
// Any application thread may call; the application record's mutex guards the group set. Queries return copies.
#ifndef ZEB_MC_H
#define ZEB_MC_H

#include <cstdint>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_lock.h"

constexpr int ZEB_MC_NUM = 128;         // groups of each kind
constexpr int ZEB_APP_MC_MBR_NUM = 16;  // places of an application group
constexpr int ZEB_NODE_MC_MBR_NUM = 64; // places of a node group

typedef struct zeb_app_mc_s {
    struct list_head list;
    list_index_link_t index_link;
    int32_t mc_id;
    uint32_t mbr[ZEB_APP_MC_MBR_NUM]; // 0 is an empty place
} zeb_app_mc_t;

typedef struct zeb_node_mc_s {
    struct list_head list;
    list_index_link_t index_link;
    int32_t mc_id;
    uint32_t mbr[ZEB_NODE_MC_MBR_NUM]; // above 65535 is an empty place; node 0 is a member like any other
} zeb_node_mc_t;

typedef struct zeb_mc_s {
    uint32_t app_id;    // the owner's
    zeb_mutex_t *mutex; // the owner's; guards everything below
    int32_t app_mc_num ZEB_GUARDED_BY(mutex);
    int32_t node_mc_num ZEB_GUARDED_BY(mutex);
    int32_t cur_app_mc_id ZEB_GUARDED_BY(mutex);                    // next candidate id
    int32_t cur_node_mc_id ZEB_GUARDED_BY(mutex);                   // next candidate id
    indexed_list<zeb_app_mc_t> app_mc_list ZEB_GUARDED_BY(mutex);   // by id, in creation order
    indexed_list<zeb_node_mc_t> node_mc_list ZEB_GUARDED_BY(mutex); // by id, in creation order
} zeb_mc_t;

// Empties the set; owner and mutex stay.
void zeb_mc_init(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex);

// Copies of a group; every place empty when there is none.
void zeb_get_app_mc_mbr(uint32_t src_app, uint32_t mc_app, zeb_app_mc_t *out);
void zeb_get_node_mc_mbr(uint32_t src_app, uint32_t mc_node, zeb_node_mc_t *out);

// Appends the groups to the print buffer; the caller holds the application record's mutex.
extern "C" void zeb_cli_print_mc_info(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex) __attribute__((visibility("default")));

#endif
