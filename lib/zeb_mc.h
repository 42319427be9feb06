// An application's private groups: groups of applications and groups of nodes. They live in the application's record
// and are never sent to peers. Any application thread may enter; the mutex of the application's record guards the
// groups. Queries return copies.
#ifndef ZEB_MC_H
#define ZEB_MC_H

#include <cstdint>

#include <zeb/zeb_diag.h>

#include "zeb_lock.h"

constexpr int ZEB_MC_NUM = 128; // groups of each kind

static_assert(sizeof(indexed_list<zeb_app_mc_t>) == sizeof(list_indexed_t), "the set is one record for C and C++");

#endif
