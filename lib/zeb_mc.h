// An application's private groups: groups of applications and groups of nodes. They live in the application's record
// and are never sent to peers. Any application thread may enter; the mutex of the application's record guards the
// groups. Queries return copies.
#ifndef ZEB_MC_H
#define ZEB_MC_H

#include <cstdint>

#include <zeb/zeb_diag.h>

#include "zeb_lock.h"

constexpr int ZEB_MC_NUM = 128; // groups of each kind

// What zeb_get_app_mc_mbr and zeb_get_node_mc_mbr do, for a call that is in progress.
void zeb_copy_app_mc(uint32_t src_app, uint32_t mc_app, zeb_app_mc_t *out);
void zeb_copy_node_mc(uint32_t src_app, uint32_t mc_node, zeb_node_mc_t *out);

void zeb_clear_mc(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex); // frees all groups

static_assert(sizeof(indexed_list<zeb_app_mc_t>) == sizeof(list_indexed_t), "the set is one record for C and C++");

#endif
